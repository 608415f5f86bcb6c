#include "platform/bundle/TrustSources.hpp"

#include "platform/bundle/CertificateBlocks.hpp"

#include <openssl/x509.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

namespace foundation::certificates::detail {

namespace {

const char* const kDistributionBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",                       // Debian, Ubuntu
    "/etc/pki/ca-trust/extracted/openssl/ca-bundle.trust.crt",  // Fedora, RHEL, CentOS
    "/etc/pki/tls/certs/ca-bundle.crt",                         // Fedora, RHEL, CentOS
    "/etc/ssl/ca-bundle.pem",                                   // openSUSE
    "/var/lib/ca-certificates/ca-bundle.pem",                   // openSUSE
    "/etc/ssl/cert.pem",                                        // Alpine
    "/etc/ca-certificates/extracted/tls-ca-bundle.pem",         // Arch
};

// Trust bundles are a few hundred kilobytes; a larger file is not one.
constexpr off_t kMaxFileSize = 64 << 20;

std::mutex rootMutex;
std::string testRoot;

std::string builtInRoot() {
    const std::lock_guard<std::mutex> lock(rootMutex);
    return testRoot;
}

struct FileIdentity {
    dev_t device;
    ino_t inode;
    bool operator<(const FileIdentity& other) const {
        return std::tie(device, inode) < std::tie(other.device, other.inode);
    }
};

struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

// The whole text of a regular file. Opened without blocking, so that a FIFO named by the
// environment cannot hang the import.
std::optional<std::string> readRegularFile(const std::string& path, FileIdentity& identity) {
    const Descriptor file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    struct stat status {};
    if (file.fd < 0 || ::fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > kMaxFileSize) {
        return std::nullopt;
    }
    identity = {status.st_dev, status.st_ino};
    std::string text;
    text.reserve(static_cast<std::size_t>(status.st_size));
    char chunk[65536];
    for (;;) {
        const ssize_t got = ::read(file.fd, chunk, sizeof chunk);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (text.size() + static_cast<std::size_t>(got) > static_cast<std::size_t>(kMaxFileSize))
            return std::nullopt;
        text.append(chunk, static_cast<std::size_t>(got));
    }
    return text;
}

void addFile(TrustSourceContents& contents, const std::string& path) {
    FileIdentity identity{};
    std::optional<std::string> text = readRegularFile(path, identity);
    if (!text || !holdsCertificateBlock(*text)) return;
    contents.sources.push_back(path);
    contents.files.push_back({contents.sources.size() - 1, std::move(*text)});
}

std::vector<std::string> splitList(const std::string& list) {
    std::vector<std::string> items;
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t end = std::min(list.find(':', start), list.size());
        if (end > start) items.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return items;
}

// Every regular file of the directories, by name; a file reached twice (the links of a hashed
// directory) is read once.
void addDirectories(TrustSourceContents& contents, const std::vector<std::string>& directories) {
    std::set<FileIdentity> read;
    for (const std::string& directory : directories) {
        std::error_code error;
        std::vector<std::string> names;
        for (std::filesystem::directory_iterator entry(directory, error), last;
             !error && entry != last; entry.increment(error)) {
            names.push_back(entry->path().filename().string());
        }
        std::sort(names.begin(), names.end());
        bool used = false;
        for (const std::string& name : names) {
            FileIdentity identity{};
            std::optional<std::string> text =
                readRegularFile((std::filesystem::path(directory) / name).string(), identity);
            if (!text || !read.insert(identity).second || !holdsCertificateBlock(*text)) continue;
            if (!used) contents.sources.push_back(directory);
            used = true;
            contents.files.push_back({contents.sources.size() - 1, std::move(*text)});
        }
    }
}

std::string environment(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr ? value : "";
}

}  // namespace

TrustSourceContents readTrustSources() {
    TrustSourceContents contents;
    const std::string file = environment(X509_get_default_cert_file_env());
    if (!file.empty()) addFile(contents, file);
    if (!contents.files.empty()) return contents;

    addDirectories(contents, splitList(environment(X509_get_default_cert_dir_env())));
    if (!contents.files.empty()) return contents;

    const std::string root = builtInRoot();
    for (const char* bundle : kDistributionBundles) {
        addFile(contents, root + bundle);
        if (!contents.files.empty()) return contents;
    }
    addFile(contents, root + X509_get_default_cert_file());
    if (!contents.files.empty()) return contents;
    std::vector<std::string> directories = splitList(X509_get_default_cert_dir());
    for (std::string& directory : directories) directory.insert(0, root);
    addDirectories(contents, directories);
    return contents;
}

void setTrustSourceRootForTesting(const std::string& root) {
    const std::lock_guard<std::mutex> lock(rootMutex);
    testRoot = root;
}

}  // namespace foundation::certificates::detail
