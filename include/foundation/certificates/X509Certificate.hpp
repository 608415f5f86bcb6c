// X509Certificate: one X.509 certificate, loaded from PEM or DER.
//
// A value type. Copies share the parsed certificate, which is never modified, so copying is
// cheap; clone() makes an independent deep copy. A moved-from object throws
// X509CertificateException "Error: X509Certificate is uninitialized." from every operation but
// destruction, assignment and swap.
//
// Thread safety: every operation, assignment and swap included, may run concurrently with any
// other on the same object; a reader sees the value from before or after an assignment, never a
// mix. The object is locked only to take a reference to its parsed certificate, never for the
// work, so no call waits behind another thread's validation.
//
//   foundation::certificates::X509Certificate certificate(pemText);
//   std::cout << certificate.getSubjectName() << '\n' << certificate;
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/PublicKeyInfo.hpp>
#include <foundation/certificates/Types.hpp>

#include <openssl/x509.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace foundation::certificates {

class CertificateValidationOptions;
class CertificateValidationResults;
class TrustStore;
class X509CertificateChain;
class X509CertificateImpl;

namespace detail {
struct FacadeAccess;
}

class FOUNDATION_CERTIFICATES_EXPORT X509Certificate {
  public:
    // The nine key-usage bits, named as OpenSSL's extension configuration names them.
    enum class KeyUsage : std::uint32_t {
        DigitalSignature = 0,
        NonRepudiation = 1,
        KeyEncipherment = 2,
        DataEncipherment = 3,
        KeyAgreement = 4,
        KeyCertSign = 5,
        CRLSign = 6,
        EncipherOnly = 7,
        DecipherOnly = 8,
    };

    // The subjectAltName entries of the four kinds that name an endpoint, each in certificate
    // order. Other kinds (directory names, other names, ...) are left out.
    struct SubjectAlternativeNames {
        std::vector<std::string> dnsNames;
        std::vector<std::string> ipAddresses;  // text: "192.0.2.7", "2001:db8::7"
        std::vector<std::string> emailAddresses;
        std::vector<std::string> uris;
    };

    // An empty certificate: empty() is true, content accessors throw
    // "Error: X509Certificate has no content.".
    X509Certificate();

    // Load the first certificate in the data, PEM when "-----BEGIN CERTIFICATE-----" occurs
    // anywhere in it, DER otherwise. Throw InvalidArgument for empty or unreadable input and for
    // data that is not in the detected encoding, X509CertificateException for other parse
    // failures and RSA keys under 1024 bits, UnsupportedKeyType / UnsupportedEllipticCurve for
    // keys the current KeyAcceptance does not include. The stream is read to its end.
    explicit X509Certificate(std::istream& input);
    explicit X509Certificate(const std::string& data);
    explicit X509Certificate(const ByteArray& data);

    // A deep copy of the caller's certificate, which stays the caller's. Null gives
    // "Error: X509Certificate has no content.". Keys are checked as for loading.
    explicit X509Certificate(const X509* certificate);

    // Used by the library's other implementation classes.
    explicit X509Certificate(X509CertificateImpl& impl);
    explicit X509Certificate(X509CertificateImpl&& impl);

    // Copying shares the source's parsed certificate. Copying a moved-from object throws
    // "Error: X509Certificate is uninitialized.".
    X509Certificate(const X509Certificate& other);
    X509Certificate& operator=(const X509Certificate& other);

    // swap is two assignments, each atomic: a concurrent assignment to one of the two objects
    // may be overwritten.
    X509Certificate(X509Certificate&& other) noexcept;
    X509Certificate& operator=(X509Certificate&& other) noexcept;
    void swap(X509Certificate& other) noexcept;

    ~X509Certificate();

    bool empty() const;

    // An independent deep copy (the parsed certificate is duplicated).
    X509Certificate clone() const;

    // A deep copy as an OpenSSL object (get1-style): the caller frees it with X509_free.
    X509* getOpenSSLCertificate() const;

    // DER bytes; one line of base64 of the DER bytes; PEM text with 63-character lines.
    ByteArray getAsBytes() const;
    std::string getAsString() const;
    std::string getAsPEMString() const;

    // Names in RFC 2253 form, most specific attribute first: "CN=Leaf,O=Example Org,C=US".
    std::string getSubjectName() const;
    std::string getIssuerName() const;

    // Attribute short name to UTF-8 value. A name repeating an attribute keeps the last one;
    // attribute types OpenSSL does not know share the key "UNDEF".
    std::unordered_map<std::string, std::string> getSubjectNameAsRDNs() const;
    std::unordered_map<std::string, std::string> getIssuerNameAsRDNs() const;

    // Throw InvalidArgument "Subject name has no CN." / "Issuer name has no CN.".
    std::string getSubjectCommonName() const;
    std::string getIssuerCommonName() const;

    std::string getSerialNumber() const;        // decimal
    std::string getSignatureAlgorithm() const;  // OpenSSL short name, e.g. "RSA-SHA256"

    // OpenSSL's print form, e.g. "Mar  5 14:07:09 2025 GMT".
    std::string getValidNotBefore() const;
    std::string getValidNotAfter() const;

    // Whole seconds since the epoch, as microsecond time points.
    TimePoint getValidNotBeforeTimePoint() const;
    TimePoint getValidNotAfterTimePoint() const;

    // 64 lower-case hex digits of the SHA-256 digest of the DER encoding.
    std::string getSHA256Fingerprint() const;

    // Issuer name equals subject name (the signature is not checked).
    bool isSelfSigned() const;
    // OpenSSL's X509_check_ca is positive.
    bool isCACertificate() const;
    // Key usage has digitalSignature and extended key usage, when present, has codeSigning.
    bool isValidForDigitalSigning() const;

    // Extensions. Each accessor gives an empty result (empty vector or bytes, no value) when the
    // certificate lacks the extension, and throws X509CertificateException naming the extension
    // when it is present but cannot be decoded or appears twice.
    SubjectAlternativeNames getSubjectAlternativeNames() const;
    // The URIs among the full names of the CRL distribution points.
    std::vector<std::string> getCRLDistributionPoints() const;
    // The URIs of the authority information access entries for OCSP and for CA issuers.
    std::vector<std::string> getOCSPResponders() const;
    std::vector<std::string> getCAIssuers() const;
    // The key usage bits that are set, in bit order.
    std::vector<KeyUsage> getKeyUsage() const;
    // OpenSSL's short names ("serverAuth"), or the dotted OID of a purpose OpenSSL cannot name.
    std::vector<std::string> getExtendedKeyUsage() const;
    // The policy OIDs of the certificate policies extension, dotted ("2.5.29.32.0" for
    // anyPolicy), in the certificate's order.
    std::vector<std::string> getCertificatePolicies() const;
    // The basic constraints' pathLenConstraint.
    std::optional<long> getPathLengthConstraint() const;
    ByteArray getSubjectKeyIdentifier() const;
    // The key identifier of the authority key identifier extension.
    ByteArray getAuthorityKeyIdentifier() const;

    // The DER SubjectPublicKeyInfo, and its SHA-256 digest in lower-case hex (the form public-key
    // pins take).
    ByteArray getSubjectPublicKeyInfo() const;
    std::string getSubjectPublicKeyInfoSHA256() const;

    PublicKeyInfo getPublicKeyInfo() const;
    std::uint64_t getKeySize() const;
    ByteArray getPublicExponent() const;  // NotRSAKey for elliptic-curve keys
    ByteArray getModulus() const;         // NotRSAKey for elliptic-curve keys

    // Equal SHA-256 fingerprints.
    bool operator==(const X509Certificate& other) const;
    bool operator!=(const X509Certificate& other) const;

    // A short summary: names, fingerprint, self-signed and CA flags.
    void print(std::ostream& os) const;

    // Validates this certificate with OpenSSL's verifier against the chain (untrusted
    // intermediates, in issuing order, leaf side first) and the trust store; an empty trust store
    // stands for the platform's trusted certificates. Verification outcomes are in the results;
    // misuse and internal failures throw X509CertificateException, and so do failed revocation
    // list downloads in DownloadCRL::ThrowOnError mode. Blocks while lists are downloaded; other
    // threads may use this object, the chain and the trust store meanwhile.
    CertificateValidationResults validateCertificate(const X509CertificateChain& chain,
                                                     const CertificateValidationOptions& options,
                                                     const TrustStore& trustStore) const;

    // The trust anchor of this certificate's verified chain (expired and self-signed chains
    // included; no revocation check). Throws X509CertificateException
    // "Error: Root CA X509Certificate has no content." when no path to a trusted root exists.
    X509Certificate getRootCACertificate(const X509CertificateChain& chain,
                                         const TrustStore& trustStore) const;

    // Throws "Error: X509Certificate is uninitialized." after a move.
    void throwIfImplEmpty() const;

  private:
    friend struct detail::FacadeAccess;

    explicit X509Certificate(std::shared_ptr<const X509CertificateImpl> impl) noexcept;

    std::shared_ptr<const X509CertificateImpl> impl;
    mutable std::mutex mutex;
};

FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const X509Certificate& certificate);

// A new stack of deep copies of the certificates, in order; the caller frees it with
// stackDeleter_X509. Throws "Error: X509Certificate has no content." for an empty certificate.
FOUNDATION_CERTIFICATES_EXPORT STACK_OF(X509) *
    getCopyOfOpenSSLX509Stack(const std::vector<X509Certificate>& certificates);

}  // namespace foundation::certificates
