// Validation options and result records.
//
// Plain values without OpenSSL inside. Every enumerator's number is part of the interface:
// stored results and callers compare them.
#pragma once

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/ValidationReport.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace foundation::certificates {

class CrlCache;

namespace detail {
struct ValidationAccess;
struct ValidationReportAccess;
}  // namespace detail

// How revocation lists are downloaded when a validation asks for downloads and these settings
// are given (CertificateValidationOptions::withRevocationFetch). Without them, lists are fetched
// as always: the first http:// distribution point on port 80, no connection limit, 60 seconds
// for the exchange, no size limit, through a temporary file.
//
// With them, a distribution point's explicit port is honoured, the scheme is matched in any
// case, 301/302/307/308 redirects to other http:// locations are followed (three at most,
// within the same deadlines and size limit), chunked responses are decoded, and the list is
// parsed from memory. Each limit that is hit fails the download with its own
// "CRL Download Error: ...\n" message, reported like every other download failure under the
// options' DownloadCRL mode.
struct RevocationFetchSettings {
    std::chrono::milliseconds connectTimeout{0};       // name resolution + connection; 0 = no limit
    std::chrono::milliseconds exchangeTimeout{60000};  // request + whole response; 0 = no limit
    std::size_t maxResponseBytes = 0;                  // the list's bytes; 0 = no limit
    bool tryEveryDistributionPoint = false;  // every http:// URI in order, the next after a failure
    std::shared_ptr<CrlCache> cache;         // null = no cache
};

// The certificate policies a chain must carry (RFC 5280 path validation, sections 6.1.3 d-f, 6.1.4
// and 6.1.5). A chain that ends with no acceptable policy is refused only when an explicit
// policy is required, by the caller or by a certificate's policy constraints.
struct CertificatePolicySettings {
    std::vector<std::string> initialPolicies;  // dotted OIDs; empty = anyPolicy
    bool requireExplicitPolicy = false;
    bool inhibitPolicyMapping = false;
    bool inhibitAnyPolicy = false;
};

// What a certificate chain must be good for. Any sets no requirement; each other value runs
// OpenSSL's purpose check over the whole chain: the leaf's key usage and extended key usage, and
// a CA's extended key usage where it has one.
enum class CertificatePurpose : std::uint32_t {
    Any = 0,
    TLSServer = 1,
    TLSClient = 2,
    CodeSigning = 3,
    EmailProtection = 4,  // S/MIME signing
    TimeStamping = 5,
};

// What a validation tolerates, and whether revocation lists are fetched and checked.
//
// The five-setting constructor is all most callers need. The with... setters add requirements
// and return the record, so they chain:
//
//   auto options = CertificateValidationOptions(...five settings...)
//                      .withHostName("www.example.com")
//                      .withPurpose(CertificatePurpose::TLSServer);
//
// (Keep the record in a variable of its own type, as above: a reference bound to the result of
// a chain on a temporary dangles.) A requirement that is never set changes nothing.
// RFC5280 is OpenSSL's verdict alone. WebPKI adds the rules browsers apply to TLS server chains
// (listed in the README) and searches the other paths the given certificates offer when the
// first one fails.
enum class ValidationProfile : std::uint32_t {
    RFC5280 = 0,
    WebPKI = 1,
};

class FOUNDATION_CERTIFICATES_EXPORT CertificateValidationOptions {
  public:
    // Forgives OpenSSL's errors 18 and 19 (self-signed certificate at depth 0 or in the chain).
    enum class AllowSelfSignedCertificate : std::uint32_t { No = 0, Yes = 1 };
    // Forgives error 10 (certificate expired) only; a certificate not yet valid is never forgiven.
    enum class AllowExpiredCertificate : std::uint32_t { No = 0, Yes = 1 };
    // Forgives error 23 (revoked). With Yes, revocation is not checked at all.
    enum class AllowRevokedCertificate : std::uint32_t { No = 0, Yes = 1 };
    // Which certificates' revocation lists are checked: none, the validated certificate only, or
    // every certificate below the root.
    enum class CheckCRL : std::uint32_t { None = 0, LeafOnly = 1, FullChain = 2 };
    // Whether lists are downloaded (over HTTP, blocking), and whether a failed download throws
    // X509CertificateException (ThrowOnError) or silently switches revocation checking off
    // (IgnoreErrors). With No, no list is ever checked, whatever CheckCRL says.
    enum class DownloadCRL : std::uint32_t { No = 0, IgnoreErrors = 1, ThrowOnError = 2 };

    CertificateValidationOptions(AllowSelfSignedCertificate allowSelfSigned,
                                 AllowExpiredCertificate allowExpired,
                                 AllowRevokedCertificate allowRevoked, CheckCRL checkCRL,
                                 DownloadCRL downloadCRL);

    // Judges the whole chain as of this time instead of now: the validity of every certificate
    // and the expiry of downloaded revocation lists. Precision is one second.
    CertificateValidationOptions& withValidationTime(std::chrono::system_clock::time_point time);

    // The leaf must name this host in a subjectAltName dNSName entry (the subject's common name
    // is never consulted). Case-insensitive; a certificate's wildcard matches only as the whole
    // left-most label, and only one label. A final dot is dropped. Throws InvalidArgument for
    // anything that is not a DNS host name, IP addresses included.
    CertificateValidationOptions& withHostName(std::string dnsName);

    // The leaf must hold this address in a subjectAltName iPAddress entry. IPv4 dotted-quad or
    // IPv6 text; throws InvalidArgument for anything else.
    CertificateValidationOptions& withIPAddress(std::string address);

    // The leaf must hold this address in a subjectAltName rfc822Name entry. The domain compares
    // case-insensitively, the local part exactly. Throws InvalidArgument unless the address is
    // local-part@domain with an unquoted ASCII local part and a DNS domain.
    CertificateValidationOptions& withEmailAddress(std::string address);

    // Throws InvalidArgument for a value that is not a CertificatePurpose enumerator.
    CertificateValidationOptions& withPurpose(CertificatePurpose purpose);

    // Revocation lists the caller already has. With AllowRevokedCertificate::No and CheckCRL
    // LeafOnly or FullChain they switch revocation checking on, also with DownloadCRL::No (the
    // offline mode): a certificate whose list is missing then gets CRLError, a revoked one
    // Revoked. A level whose list is among them is never downloaded. The lists are shared, not
    // copied, and never changed.
    CertificateValidationOptions& withRevocationLists(std::vector<CertificateRevocationList> lists);

    // Downloads under limits, optionally through a shared cache; see RevocationFetchSettings.
    // Takes effect only when DownloadCRL asks for downloads.
    CertificateValidationOptions& withRevocationFetch(RevocationFetchSettings settings);

    // WebPKI needs a host name or IP address (validation throws InvalidArgument without one)
    // and implies CertificatePurpose::TLSServer when no purpose was set.
    CertificateValidationOptions& withProfile(ValidationProfile profile);

    // Checks the chain's certificate policies under these settings. A chain without an
    // acceptable policy, or with an invalid or inconsistent policy extension, gets
    // PolicyMismatch; a valid one reports its policies (CertificateValidationResults::
    // getValidPolicies). Throws InvalidArgument naming an initial policy that is not a dotted
    // object identifier.
    CertificateValidationOptions& withPolicyCheck(CertificatePolicySettings settings);

  private:
    friend struct detail::ValidationAccess;

    AllowSelfSignedCertificate allowSelfSigned;
    AllowExpiredCertificate allowExpired;
    AllowRevokedCertificate allowRevoked;
    CheckCRL checkCRL;
    DownloadCRL downloadCRL;

    // Requirements added by the with... setters; in their unset state validation ignores them.
    std::optional<std::chrono::system_clock::time_point> validationTime;
    std::string hostName;
    ByteArray ipAddress;  // 4 or 16 bytes in network order
    std::string emailAddress;
    CertificatePurpose purpose = CertificatePurpose::Any;
    std::vector<CertificateRevocationList> revocationLists;
    std::optional<RevocationFetchSettings> revocationFetch;
    ValidationProfile profile = ValidationProfile::RFC5280;
    std::optional<CertificatePolicySettings> policies;
};

// The outcome of chain validation.
enum class CertificateChainStatus : std::uint32_t {
    Valid = 0,             // verified, or every error was forgiven
    InvalidChain = 1,      // no path to a trusted root (errors 2, 20, 21, 22, 25, 79)
    SelfSigned = 2,        // self-signed and not trusted (errors 18, 19)
    CRLError = 3,          // a revocation list is missing, badly signed or out of date
    Revoked = 4,           // error 23
    Expired = 5,           // error 10
    InvalidSignature = 6,  // a certificate's signature does not verify (errors 4, 7)
    ValidationFailed = 7,  // any other error, e.g. 9 (not yet valid)
    // Only when the options ask for it:
    NameMismatch = 8,       // host name, IP address or e-mail address not in the leaf (62, 63, 64)
    PurposeMismatch = 9,    // a certificate of the chain is not for the purpose (26)
    PolicyMismatch = 10,    // no acceptable policy, or a bad policy extension (42, 43)
    ProfileViolation = 11,  // the chain breaks a rule of the requested profile
};

// Whether, when and under which serial number a certificate was revoked.
class FOUNDATION_CERTIFICATES_EXPORT CertificateRevocationResults {
  public:
    enum class RevocationStatus : std::uint32_t { NotRevoked = 0, Revoked = 1 };

    CertificateRevocationResults(RevocationStatus status, std::string revocationDate,
                                 std::string revokedSerialNumber);

    RevocationStatus getRevocationStatus() const { return status; }
    // As OpenSSL prints it, e.g. "Mar  5 14:07:09 2025 GMT"; empty when not revoked.
    std::string getRevocationDateString() const { return revocationDate; }
    // Decimal digits; empty when not revoked.
    std::string getRevokedSerialNumberString() const { return revokedSerialNumber; }

  private:
    RevocationStatus status;
    std::string revocationDate;
    std::string revokedSerialNumber;
};

// The outcome of one validation: a status, an explanatory text and revocation details.
class FOUNDATION_CERTIFICATES_EXPORT CertificateValidationResults {
  public:
    // Revocation results start as NotRevoked with two empty strings.
    CertificateValidationResults(CertificateChainStatus status, std::string validationErrorString);

    CertificateChainStatus getCertificateChainStatus() const { return status; }
    std::string getValidationErrorString() const { return validationErrorString; }
    CertificateRevocationResults getCertificateRevocationResults() const { return revocation; }
    void setCertificateRevocationResults(const CertificateRevocationResults& results);

    // The user-constrained policy set of a valid chain, as dotted OIDs ("2.5.29.32.0" for
    // anyPolicy); empty without CertificateValidationOptions::withPolicyCheck or when validation
    // failed.
    std::vector<std::string> getValidPolicies() const { return validPolicies; }

    // The path OpenSSL built, or got furthest with, leaf first; each certificate with the errors
    // reported for it, forgiven or not, and its revocation check.
    std::vector<CertificateCheck> getCertificateChecks() const { return checks; }
    // Every revocation list the validation tried to obtain, in the order it tried.
    std::vector<RevocationFetch> getRevocationFetches() const { return fetches; }

  private:
    friend struct detail::ValidationReportAccess;

    CertificateChainStatus status;
    std::string validationErrorString;
    CertificateRevocationResults revocation;
    std::vector<std::string> validPolicies;
    std::vector<CertificateCheck> checks;
    std::vector<RevocationFetch> fetches;

    friend struct detail::ValidationAccess;
};

// The outcome of a PKCS#7 signature check.
class FOUNDATION_CERTIFICATES_EXPORT PKCS7CertificateValidationResults {
  public:
    PKCS7CertificateValidationResults(bool signatureVerificationStatus,
                                      CertificateChainStatus status,
                                      const std::string& validationErrorString);

    bool getSignatureVerificationStatus() const { return signatureVerificationStatus; }
    CertificateChainStatus getCertificateChainStatus() const { return status; }
    std::string getValidationErrorString() const { return validationErrorString; }

    // The signature verified and the signer's chain is Valid. A verified signature whose signer
    // is only self-signed, expired or untrusted is not a valid signature.
    bool isValidSignature() const;

    // The signer's validation, when one ran: verifySignature validates the signer itself when
    // the signature holds but OpenSSL's path check fails. Empty otherwise.
    std::vector<CertificateCheck> getCertificateChecks() const { return checks; }
    std::vector<RevocationFetch> getRevocationFetches() const { return fetches; }

  private:
    friend struct detail::ValidationReportAccess;

    bool signatureVerificationStatus;
    CertificateChainStatus status;
    std::string validationErrorString;
    std::vector<CertificateCheck> checks;
    std::vector<RevocationFetch> fetches;
};

// The process-wide signature cache.
//
// Every validation remembers the certificate signatures that verified, keyed by a SHA-256
// digest of the signed certificate and the issuer's public key, and skips verifying them again;
// the trust anchor's self-signature is one of them. A failed signature is never remembered. The
// cache cannot change a result: validation checks, reports and forgives exactly what it does
// with the cache off, only faster. On by default with room for 16,384 signatures (about 80
// bytes each). Shared by all threads: concurrent lookups hold a lock only as readers, on one
// of 16 shards.

struct SignatureCacheStatistics {
    std::uint64_t hits = 0, misses = 0;  // lookups since the process started, while on
    std::size_t entries = 0, capacity = 0;
};

// Room for this many signatures, evicting what no longer fits at once. 0 turns the cache off
// and empties it. Safe to call while validations run.
FOUNDATION_CERTIFICATES_EXPORT void setSignatureCacheCapacity(std::size_t entries);

FOUNDATION_CERTIFICATES_EXPORT SignatureCacheStatistics getSignatureCacheStatistics();

}  // namespace foundation::certificates
