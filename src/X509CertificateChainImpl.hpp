// The implementation behind X509CertificateChain.
#pragma once

#include <foundation/certificates/X509Certificate.hpp>

#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates {

class X509CertificateChainImpl {
  public:
    X509CertificateChainImpl();
    explicit X509CertificateChainImpl(std::istream& input);
    explicit X509CertificateChainImpl(const std::string& pemText);
    X509CertificateChainImpl(const X509CertificateChainImpl& other,
                             const std::lock_guard<std::mutex>&);
    X509CertificateChainImpl(X509CertificateChainImpl&& other) noexcept;
    X509CertificateChainImpl& operator=(const X509CertificateChainImpl& other);
    X509CertificateChainImpl& operator=(X509CertificateChainImpl&& other) noexcept;
    ~X509CertificateChainImpl();

    void init(const std::string& pemText);

    void addCertificate(const X509Certificate& certificate);
    const std::vector<X509Certificate>& getCertificates() const noexcept { return certificates; }
    std::size_t getNumCertificates() const noexcept { return certificates.size(); }
    bool empty() const noexcept { return certificates.empty(); }
    void throwIfEmpty() const;
    std::string getAsString() const;
    void print(std::ostream& os) const;
    X509Certificate popLeafCertificate();

  private:
    std::vector<X509Certificate> certificates;
};

}  // namespace foundation::certificates
