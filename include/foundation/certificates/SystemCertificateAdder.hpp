// The platform's trusted certificates.
//
// osx::SystemCertificateAdder is the adder a TrustStore uses unless it is given another one.
// It takes the certificates the user and the administrator explicitly trust for the usage,
// then the system's certificates except those the user or the administrator distrust. Where
// the platform keeps no per-user or administrator trust settings (Linux and other non-Apple
// systems), the system's certificates are those of the first of these that holds any: the file
// named by SSL_CERT_FILE, the directories named by SSL_CERT_DIR, the bundle of a known
// distribution, OpenSSL's default certificate file, then its default directory. A bundle's
// TRUSTED CERTIFICATE blocks keep their certificates out of usages they are rejected for or not
// trusted for.
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

// SSL_CERT_FILE when set, otherwise OpenSSL's default certificate file. The file need not exist,
// and the system's certificates may come from elsewhere: see the report of
// TrustStore::addSystemCertificatesWithReport for the sources actually read.
FOUNDATION_CERTIFICATES_EXPORT std::string getSystemCertificatesFile();

// SSL_CERT_DIR when set, otherwise OpenSSL's default certificate directory.
FOUNDATION_CERTIFICATES_EXPORT std::string getSystemCertificatesFolder();

}  // namespace foundation::certificates
