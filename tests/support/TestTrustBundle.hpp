// A trust bundle file that stands for the platform's trusted certificates while it lives.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace testsupport {

// Points SSL_CERT_FILE at a file of this process's own; restores the variable and removes the
// file on destruction.
class ScopedTrustBundle {
  public:
    ScopedTrustBundle();
    ~ScopedTrustBundle();
    ScopedTrustBundle(const ScopedTrustBundle&) = delete;
    ScopedTrustBundle& operator=(const ScopedTrustBundle&) = delete;

    // Replaces the bundle's contents (PEM text).
    void write(const std::string& contents);
    const std::filesystem::path& path() const { return path_; }

  private:
    std::optional<std::string> previous_;
    std::filesystem::path path_;
};

}  // namespace testsupport
