// The implementation behind X509Certificate: one parsed certificate, shared between copies.
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/PublicKeyInfo.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace foundation::certificates {

class TrustStore;
class X509CertificateChain;

class X509CertificateImpl {
  public:
    // The search key of encoding detection and the frame of PEM output.
    static constexpr std::string_view pemHeader = "-----BEGIN CERTIFICATE-----";
    static constexpr std::string_view pemFooter = "-----END CERTIFICATE-----";

    X509CertificateImpl();
    // A deep copy of the caller's certificate, put through the public-key check.
    explicit X509CertificateImpl(const X509* certificate);
    explicit X509CertificateImpl(std::istream& input);
    explicit X509CertificateImpl(const std::string& data);
    explicit X509CertificateImpl(const ByteArray& data);
    X509CertificateImpl(X509CertificateImpl&& other) noexcept;
    X509CertificateImpl& operator=(const X509CertificateImpl& other);
    X509CertificateImpl& operator=(X509CertificateImpl&& other) noexcept;
    ~X509CertificateImpl();

    // Takes a reference to a certificate that the library parsed itself and nobody else can
    // change (from a chain, PKCS#7 or PKCS#12 structure): no duplicate, the key check still runs.
    static X509CertificateImpl fromParsed(X509SPtr certificate);

    void init(const ByteArray& data);
    Encoding autodetectEncoding(const ByteArray& data) const;

    bool empty() const noexcept { return !certificate; }
    void throwIfEmpty() const;

    X509CertificateImpl clone() const;
    X509* getOpenSSLCertificate() const;  // deep copy, caller owns

    // Borrowed; valid while this object (or a copy sharing it) lives. Null when empty.
    X509* get() const noexcept { return certificate.get(); }
    const X509SPtr& shared() const noexcept { return certificate; }

    ByteArray getAsBytes() const;
    std::string getAsString() const;
    std::string getAsPEMString() const;

    std::string getSubjectName() const;
    std::string getIssuerName() const;
    std::unordered_map<std::string, std::string> getSubjectNameAsRDNs() const;
    std::unordered_map<std::string, std::string> getIssuerNameAsRDNs() const;
    std::string getSubjectCommonName() const;
    std::string getIssuerCommonName() const;
    std::string getSerialNumber() const;
    std::string getSignatureAlgorithm() const;
    std::string getValidNotBefore() const;
    std::string getValidNotAfter() const;
    TimePoint getValidNotBeforeTimePoint() const;
    TimePoint getValidNotAfterTimePoint() const;
    std::string getSHA256Fingerprint() const;
    bool isSelfSigned() const;
    bool isCACertificate() const;
    bool isValidForDigitalSigning() const;

    X509Certificate::SubjectAlternativeNames getSubjectAlternativeNames() const;
    std::vector<std::string> getCRLDistributionPoints() const;
    std::vector<std::string> getOCSPResponders() const;
    std::vector<std::string> getCAIssuers() const;
    std::vector<X509Certificate::KeyUsage> getKeyUsage() const;
    std::vector<std::string> getExtendedKeyUsage() const;
    std::vector<std::string> getCertificatePolicies() const;
    std::optional<long> getPathLengthConstraint() const;
    ByteArray getSubjectKeyIdentifier() const;
    ByteArray getAuthorityKeyIdentifier() const;
    ByteArray getSubjectPublicKeyInfo() const;
    std::string getSubjectPublicKeyInfoSHA256() const;

    std::uint64_t getKeySize() const;
    ByteArray getRSAPublicExponent() const;
    ByteArray getRSAModulus() const;
    ByteArray getECCPublicPoint() const;
    EllipticCurve getECCCurve() const;
    PublicKeyInfo getPublicKeyInfo() const;
    void throwIfInvalidPublicKeyInfo() const;

    void print(std::ostream& os) const;

    // A second implementation sharing this one's certificate.
    X509CertificateImpl share() const { return X509CertificateImpl(certificate); }

    // Whether the trust anchor a validation returns is an independent duplicate (for callers)
    // or shares the verified certificate.
    enum class AnchorCopy { Duplicate, Shared };

    // Validation against the chain and the trust store under the options: the trust anchor
    // (only when verification succeeded) and the results record.
    std::pair<std::optional<X509CertificateImpl>, CertificateValidationResults> validationHelper(
        const X509CertificateChain& chain, const CertificateValidationOptions& options,
        const TrustStore& trustStore, AnchorCopy anchorCopy) const;
    CertificateValidationResults validateCertificate(const X509CertificateChain& chain,
                                                     const CertificateValidationOptions& options,
                                                     const TrustStore& trustStore) const;
    X509CertificateImpl getRootCACertificate(const X509CertificateChain& chain,
                                             const TrustStore& trustStore) const;

  private:
    explicit X509CertificateImpl(X509SPtr certificate);
    EVP_PKEYUPtr publicKey() const;
    ByteArray getRSAParameter(const char* name, const char* typeMessage,
                              const char* readMessage) const;

    X509SPtr certificate;
};

namespace detail {

// The certificates' parsed X509s by reference, for OpenSSL calls that only read them: they are
// never modified, so no duplicate is needed. Throws X509CertificateException for an empty
// certificate or when the stack cannot grow.
X509StackUPtr shareX509Stack(const std::vector<X509Certificate>& certificates);

// Lower-case hex of the SHA-256 digest of the DER encoding, as getSHA256Fingerprint gives it.
std::string sha256Fingerprint(const X509* certificate);

}  // namespace detail

}  // namespace foundation::certificates
