#include "support/TestTrustBundle.hpp"

#include "platform/bundle/TrustSources.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

std::optional<std::string> take(const char* variable) {
    std::optional<std::string> previous;
    if (const char* value = std::getenv(variable)) previous = value;
    unsetenv(variable);
    return previous;
}

void restore(const char* variable, const std::optional<std::string>& previous) {
    if (previous) {
        setenv(variable, previous->c_str(), 1);
    } else {
        unsetenv(variable);
    }
}

std::filesystem::path uniquePath(const std::string& stem, const std::string& suffix) {
    static int counter = 0;
    return std::filesystem::temp_directory_path() /
           (stem + std::to_string(::getpid()) + "-" + std::to_string(++counter) + suffix);
}

std::string memoryText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace

ScopedTrustBundle::ScopedTrustBundle() {
    if (const char* previous = std::getenv("SSL_CERT_FILE")) previous_ = previous;
    path_ = uniquePath("foundation-bundle-", ".pem");
    setenv("SSL_CERT_FILE", path_.c_str(), 1);
}

ScopedTrustBundle::~ScopedTrustBundle() {
    restore("SSL_CERT_FILE", previous_);
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

void ScopedTrustBundle::write(const std::string& contents) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << contents;
}

ScopedTrustTree::ScopedTrustTree()
    : previousFile_(take("SSL_CERT_FILE")),
      previousDirectories_(take("SSL_CERT_DIR")),
      root_(uniquePath("foundation-trust-tree-", "")) {
    std::filesystem::create_directories(root_);
    fc::detail::setTrustSourceRootForTesting(root_.string());
}

ScopedTrustTree::~ScopedTrustTree() {
    fc::detail::setTrustSourceRootForTesting("");
    restore("SSL_CERT_FILE", previousFile_);
    restore("SSL_CERT_DIR", previousDirectories_);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::filesystem::path ScopedTrustTree::at(const std::string& systemPath) const {
    return root_.string() + systemPath;
}

std::filesystem::path ScopedTrustTree::write(const std::filesystem::path& path,
                                             const std::string& contents) {
    std::filesystem::create_directories(path.parent_path());
    // Truncating keeps the file's inode, as an in-place rewrite of a bundle does.
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path.string());
    return path;
}

void ScopedTrustTree::setCertFile(const std::string& value) {
    setenv("SSL_CERT_FILE", value.c_str(), 1);
}

void ScopedTrustTree::setCertDirectories(const std::string& value) {
    setenv("SSL_CERT_DIR", value.c_str(), 1);
}

std::string pemBlock(const fc::ByteArray& der, const std::string& label) {
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    PEM_write_bio(bio.get(), label.c_str(), "", der.data(), static_cast<long>(der.size()));
    return memoryText(bio.get());
}

std::string trustedPEM(const X509* certificate, const std::vector<int>& trusted,
                       const std::vector<int>& rejected) {
    const fc::X509UPtr copy = fc::makeX509UPtr(X509_dup(certificate));
    for (const int nid : trusted) X509_add1_trust_object(copy.get(), OBJ_nid2obj(nid));
    for (const int nid : rejected) X509_add1_reject_object(copy.get(), OBJ_nid2obj(nid));
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (PEM_write_bio_X509_AUX(bio.get(), copy.get()) != 1) {
        throw std::runtime_error("TRUSTED CERTIFICATE writing failed");
    }
    return memoryText(bio.get());
}

}  // namespace testsupport
