// Records every file the process makes with mkstemp, so a test can check that the library
// removed its own temporary files, even while other test processes are downloading.
// Linked into every test executable with -Wl,--wrap=mkstemp.
#include "support/TemporaryFileProbe.hpp"

#include <filesystem>
#include <mutex>

extern "C" int __real_mkstemp(char* pathTemplate);

namespace {

std::mutex& mutex() {
    static std::mutex instance;
    return instance;
}

std::vector<std::string>& created() {
    static std::vector<std::string> paths;
    return paths;
}

}  // namespace

extern "C" int __wrap_mkstemp(char* pathTemplate) {
    const int descriptor = __real_mkstemp(pathTemplate);
    if (descriptor >= 0) {
        const std::lock_guard<std::mutex> lock(mutex());
        created().emplace_back(pathTemplate);
    }
    return descriptor;
}

namespace testsupport {

std::vector<std::string> leftoverTemporaryFiles(const std::string& prefix) {
    const std::lock_guard<std::mutex> lock(mutex());
    std::vector<std::string> left;
    for (const std::string& path : created()) {
        std::error_code ignored;
        if (path.rfind(prefix, 0) == 0 && std::filesystem::exists(path, ignored)) {
            left.push_back(path);
        }
    }
    return left;
}

std::size_t temporaryFilesCreated(const std::string& prefix) {
    const std::lock_guard<std::mutex> lock(mutex());
    std::size_t count = 0;
    for (const std::string& path : created()) count += path.rfind(prefix, 0) == 0 ? 1 : 0;
    return count;
}

}  // namespace testsupport
