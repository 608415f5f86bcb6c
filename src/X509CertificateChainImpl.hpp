// The implementation behind X509CertificateChain. Never changed once a chain shares it: adding
// or removing builds a new one, which is cheap because the certificates are shared.
#pragma once

#include "X509CertificateImpl.hpp"

#include <foundation/certificates/X509Certificate.hpp>

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace foundation::certificates {

class X509CertificateChainImpl {
  public:
    X509CertificateChainImpl();
    explicit X509CertificateChainImpl(std::istream& input);
    explicit X509CertificateChainImpl(const std::string& pemText);
    X509CertificateChainImpl(const X509CertificateChainImpl& other);
    X509CertificateChainImpl(X509CertificateChainImpl&& other) noexcept;
    X509CertificateChainImpl& operator=(const X509CertificateChainImpl& other);
    X509CertificateChainImpl& operator=(X509CertificateChainImpl&& other) noexcept;
    ~X509CertificateChainImpl();

    void init(const std::string& pemText);

    void addCertificate(std::shared_ptr<const X509CertificateImpl> certificate);
    std::vector<X509Certificate> getCertificates() const;
    std::size_t getNumCertificates() const noexcept { return certificates.size(); }
    bool empty() const noexcept { return certificates.empty(); }
    void throwIfEmpty() const;
    std::string getAsString() const;
    void print(std::ostream& os) const;
    X509Certificate popLeafCertificate();

  private:
    std::vector<std::shared_ptr<const X509CertificateImpl>> certificates;
};

}  // namespace foundation::certificates
