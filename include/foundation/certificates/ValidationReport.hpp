// What one validation did, certificate by certificate and fetch by fetch.
//
// Plain values without OpenSSL inside: copy them, keep them after the certificates, chains and
// stores are gone. Every validation fills them, whatever its options.
#pragma once

#include <foundation/certificates/Export.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace foundation::certificates {

// One error OpenSSL's verifier reported for a certificate of the path.
struct VerificationError {
    int code = 0;           // OpenSSL's X509_V_ERR_* number
    std::string text;       // OpenSSL's text for it
    bool forgiven = false;  // the options let verification go on past it
};

// Whether a certificate's revocation was checked, what came out, and where its list came from.
struct RevocationCheck {
    enum class Status : std::uint32_t {
        NotRevoked = 0,
        Revoked = 1,
        Unknown = 2,  // checked, but the list was missing, badly signed or out of date
    };
    enum class Source : std::uint32_t {
        None = 0,          // no list for this certificate
        SuppliedList = 1,  // one of the caller's lists (withRevocationLists)
        Downloaded = 2,    // downloaded from `url` during this validation
        Cache = 3,         // the cache's list for `url`
    };

    bool checked = false;  // OpenSSL looked this certificate up in a list
    Status status = Status::NotRevoked;
    Source source = Source::None;
    std::string url;  // for Downloaded and Cache
};

// One certificate of the path OpenSSL built, or of as much of it as it got before failing.
struct CertificateCheck {
    int depth = 0;                          // 0 = the validated certificate
    std::string subject, issuer;            // RFC 2253
    std::string sha256Fingerprint;          // as X509Certificate::getSHA256Fingerprint gives it
    std::vector<VerificationError> errors;  // in the order OpenSSL reported them
    RevocationCheck revocation;
};

// One attempt to obtain a revocation list, from the network or from the cache.
struct RevocationFetch {
    std::string url;        // empty when the certificate names no usable distribution point
    std::string outcome;    // "ok", or the download's failure message
    int httpStatus = 0;     // of the last response; 0 when none came (or from the cache)
    std::size_t bytes = 0;  // the list's (or the response body's) size
    std::chrono::milliseconds duration{0};
    bool fromCache = false;
};

class CertificateValidationResults;
class PKCS7CertificateValidationResults;

// A short report for people: one block per certificate, one line per fetch.
FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const CertificateValidationResults& r);
FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const PKCS7CertificateValidationResults& r);

}  // namespace foundation::certificates
