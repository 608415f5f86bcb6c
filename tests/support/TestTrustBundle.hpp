// Trust sources that stand for the platform's trusted certificates while they live.
#pragma once

#include <foundation/certificates/Types.hpp>

#include <openssl/x509.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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

// A directory tree of this process's own in place of the whole system: the built-in trust
// locations are looked up below root(), and SSL_CERT_FILE and SSL_CERT_DIR are unset until set
// here. Everything is restored and the tree removed on destruction.
class ScopedTrustTree {
  public:
    ScopedTrustTree();
    ~ScopedTrustTree();
    ScopedTrustTree(const ScopedTrustTree&) = delete;
    ScopedTrustTree& operator=(const ScopedTrustTree&) = delete;

    const std::filesystem::path& root() const { return root_; }
    // The path below the root for an absolute system path ("/etc/ssl/cert.pem").
    std::filesystem::path at(const std::string& systemPath) const;
    // Writes the file (replacing it in place), making its directories; returns the path.
    std::filesystem::path write(const std::filesystem::path& path, const std::string& contents);
    void setCertFile(const std::string& value);
    void setCertDirectories(const std::string& value);

  private:
    std::optional<std::string> previousFile_;
    std::optional<std::string> previousDirectories_;
    std::filesystem::path root_;
};

// A PEM block of any bytes under any label.
std::string pemBlock(const foundation::certificates::ByteArray& der,
                     const std::string& label = "CERTIFICATE");

// The certificate as a TRUSTED CERTIFICATE block trusted and rejected for these purposes
// (NID_server_auth, NID_email_protect, ...).
std::string trustedPEM(const X509* certificate, const std::vector<int>& trusted,
                       const std::vector<int>& rejected);

}  // namespace testsupport
