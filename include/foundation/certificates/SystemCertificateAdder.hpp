// The platform's trusted certificates.
//
// osx::SystemCertificateAdder is the adder a TrustStore uses unless it is given another one.
// It takes the certificates the user and the administrator explicitly trust for the usage,
// then the system's certificates except those the user or the administrator distrust. Where
// the platform keeps no per-user or administrator trust settings (Linux and other non-Apple
// systems), the system's certificates are those of the PEM bundle named by SSL_CERT_FILE, or
// of OpenSSL's default certificate file when it is not set.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <string>

namespace foundation::certificates {

namespace osx {

class FOUNDATION_CERTIFICATES_EXPORT SystemCertificateAdder : public ISystemCertificateAdder {
  public:
    SystemCertificateAdder() = default;
    SystemCertificateAdder(const SystemCertificateAdder&) = default;
    SystemCertificateAdder& operator=(const SystemCertificateAdder&) = default;
    ~SystemCertificateAdder() override;

    ISystemCertificateAdder* clone() const override;
    void addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
                               bool throwOnFailure) override;
};

}  // namespace osx

// The certificate bundle the system's certificates are read from: SSL_CERT_FILE when set,
// otherwise OpenSSL's default certificate file. The file need not exist.
FOUNDATION_CERTIFICATES_EXPORT std::string getSystemCertificatesFile();

// OpenSSL's certificate directory: SSL_CERT_DIR when set, otherwise OpenSSL's default. The
// library itself does not read it.
FOUNDATION_CERTIFICATES_EXPORT std::string getSystemCertificatesFolder();

}  // namespace foundation::certificates
