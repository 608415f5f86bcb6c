// SelfSignedCertBuilder: a new RSA key pair and a self-signed X.509 v3 certificate for it, for
// local servers and tools.
//
// Options are set with chained with... calls; whatever is not set takes its default when a
// certificate is built: common name "localhost", 365 days from now, a 2048-bit key, a random
// 64-bit serial number, usable as a CA, for TLS servers and clients and for code signing. The
// builder keeps no generated state, so every build makes a fresh key (and a fresh serial number
// unless one was set).
//
//   auto [certificate, keyPEM] = foundation::certificates::SelfSignedCertBuilder()
//                                    .withCommonName("devbox")
//                                    .withValidityPeriod(30)
//                                    .build();
//
// OpenSSL failures while building throw plain std::runtime_error
// "Failed to generate a certificate: <OpenSSL error code in decimal>".
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/asn1.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace foundation::certificates {

// RSA modulus lengths in bits.
enum class RSAPrivateKeySize : std::uint32_t {
    RSA2048 = 2048,
    RSA3072 = 3072,
    RSA4096 = 4096,
};

using ASN1_INTEGERUPtr = std::unique_ptr<ASN1_INTEGER, void (*)(ASN1_INTEGER*)>;

class FOUNDATION_CERTIFICATES_EXPORT SelfSignedCertBuilder {
  public:
    SelfSignedCertBuilder();

    SelfSignedCertBuilder& withPrivateKeySize(RSAPrivateKeySize size);
    // Encrypts the PEM key with triple DES and protects the PKCS#12. An empty passphrase is a
    // passphrase too.
    SelfSignedCertBuilder& withPrivateKeyPassphrase(std::string passphrase);
    SelfSignedCertBuilder& withCommonName(std::string commonName);
    // Complete entries in OpenSSL's subjectAltName syntax, e.g. "DNS:example.test", "IP:10.0.0.1".
    SelfSignedCertBuilder& withAdditionalSubjectAltNames(std::set<std::string> names);
    // 1 to 397 days; other values throw X509CertificateException and change nothing.
    SelfSignedCertBuilder& withValidityPeriod(unsigned int days);
    // Days to move the validity period by; negative values move it into the past.
    SelfSignedCertBuilder& withValidityPeriodOffset(int days);
    SelfSignedCertBuilder& withSerialNumber(unsigned long long serialNumber);
    SelfSignedCertBuilder& withAdditionalKeyUsage(std::set<X509Certificate::KeyUsage> usages);
    // OpenSSL extended-key-usage names ("OCSPSigning") or dotted object identifiers.
    SelfSignedCertBuilder& withAdditionalExtendedKeyUsage(std::set<std::string> usages);

    // Forgets every option set so far.
    SelfSignedCertBuilder& resetToDefaults();

    // The pieces a build puts into the certificate, each usable on its own. Extension values are
    // in OpenSSL's configuration syntax, their lists in byte-wise order.
    ASN1_INTEGERUPtr makeSerialNumber() const;
    std::string makeBasicConstraints() const;
    std::string makeKeyUsage() const;
    std::string makeExtendedKeyUsage() const;
    std::string makeSubjectAlternativeName(const std::string& commonName) const;

    // The certificate and its private key as PEM (PKCS#8) text.
    std::pair<X509Certificate, std::string> build() const;
    // The certificate and DER PKCS#12 bytes holding only the private key, under the common name
    // as friendly name. The bytes are empty when OpenSSL cannot make the PKCS#12.
    std::pair<X509Certificate, ByteArray> buildAndGetKeyBytesInPKCS12() const;

  private:
    struct Generated;
    Generated generate() const;

    std::optional<RSAPrivateKeySize> privateKeySize;
    std::optional<std::string> privateKeyPassphrase;
    std::optional<std::string> commonName;
    std::optional<std::set<std::string>> additionalSubjectAltNames;
    std::optional<unsigned int> validityPeriod;
    std::optional<int> validityPeriodOffset;
    std::optional<unsigned long long> serialNumber;
    std::optional<std::set<X509Certificate::KeyUsage>> additionalKeyUsage;
    std::optional<std::set<std::string>> additionalExtendedKeyUsage;
};

}  // namespace foundation::certificates
