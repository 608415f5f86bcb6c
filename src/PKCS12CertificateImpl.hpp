// The implementation behind PKCS12Certificate. Never changed once a facade shares it.
#pragma once

#include <foundation/certificates/PrivateKeyInfo.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/pkcs12.h>

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

namespace foundation::certificates {

class PKCS12CertificateImpl {
  public:
    PKCS12CertificateImpl();
    PKCS12CertificateImpl(std::istream& input, const std::string& passphrase);
    PKCS12CertificateImpl(const ByteArray& der, const std::string& passphrase);
    // Moving leaves the source as a default-constructed implementation.
    PKCS12CertificateImpl(PKCS12CertificateImpl&& other);
    PKCS12CertificateImpl& operator=(const PKCS12CertificateImpl& other);
    PKCS12CertificateImpl& operator=(PKCS12CertificateImpl&& other);
    ~PKCS12CertificateImpl();

    X509Certificate getCertificate() const { return certificate; }
    X509CertificateChain getCAChain() const { return caChain; }
    std::optional<PrivateKeyInfo> getPrivateKeyInfo() const { return privateKeyInfo; }
    ByteArray getPrivateExponent() const;

    bool empty() const noexcept { return !pkcs12; }
    void throwIfEmpty() const;

    ByteArray getAsBytes() const;
    void print(std::ostream& os) const;
    bool operator==(const PKCS12CertificateImpl& other) const;

    // The private scalar of an elliptic-curve key: for P-256 its magnitude, for Ed25519 the raw
    // private key bytes.
    ByteArray extractECCPrivateInteger(const EVP_PKEY* key) const;

  private:
    void init(const ByteArray& der, const std::string& passphrase);
    void swapMembers(PKCS12CertificateImpl& other) noexcept;

    std::optional<PrivateKeyInfo> privateKeyInfo;
    std::shared_ptr<PKCS12> pkcs12;
    X509Certificate certificate;
    X509CertificateChain caChain;
};

}  // namespace foundation::certificates
