#include "support/TestTrustBundle.hpp"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace testsupport {

ScopedTrustBundle::ScopedTrustBundle() {
    if (const char* previous = std::getenv("SSL_CERT_FILE")) previous_ = previous;
    static int counter = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("foundation-bundle-" + std::to_string(::getpid()) + "-" + std::to_string(++counter) +
             ".pem");
    setenv("SSL_CERT_FILE", path_.c_str(), 1);
}

ScopedTrustBundle::~ScopedTrustBundle() {
    if (previous_) {
        setenv("SSL_CERT_FILE", previous_->c_str(), 1);
    } else {
        unsetenv("SSL_CERT_FILE");
    }
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

void ScopedTrustBundle::write(const std::string& contents) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << contents;
}

}  // namespace testsupport
