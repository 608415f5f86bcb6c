// What a validation saw on its way, gathered while it runs and turned into the results' report
// at the end.
//
// The recorder is reached through the thread, not passed around: the verify callback, the
// downloads and the cache are deep below the validation and know nothing of each other. A
// validation nested in another (the root lookup) records for itself and hands the thread back.
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>

#include <openssl/x509_vfy.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

struct ValidationReportAccess {
    static void attach(CertificateValidationResults& results, std::vector<CertificateCheck> checks,
                       std::vector<RevocationFetch> fetches) {
        results.checks = std::move(checks);
        results.fetches = std::move(fetches);
    }
    static void attach(PKCS7CertificateValidationResults& results,
                       const CertificateValidationResults& signer) {
        results.checks = signer.checks;
        results.fetches = signer.fetches;
    }
};

class ValidationRecorder {
  public:
    ValidationRecorder();
    ~ValidationRecorder();
    ValidationRecorder(const ValidationRecorder&) = delete;
    ValidationRecorder& operator=(const ValidationRecorder&) = delete;

    // The validation running on this thread; null outside one.
    static ValidationRecorder* current();

    // An error the verify callback was shown (or raised itself: `late` marks the callback's own
    // checks, which run with OpenSSL's signature checks, after revocation).
    void sawError(int depth, int code, bool forgiven, bool late = false);

    // Where the list for `certificate` came from; borrowed, alive for the validation.
    void listFor(const X509* certificate, RevocationCheck::Source source, std::string url);

    // Another verification's errors replace these: the path that passed is the one reported.
    void takeErrors(ValidationRecorder& other) { errors = std::move(other.errors); }

    // Fills the report from the verification's final state. `crlFlags` are the CRL flags the
    // verification ran with.
    void report(X509_STORE_CTX* context, X509* leaf, unsigned long crlFlags,
                CertificateValidationResults& results);

  private:
    friend class FetchRecord;

    struct SeenError {
        int depth;
        int code;
        bool forgiven;
        bool late;
    };
    struct ListSource {
        const X509* certificate;
        RevocationCheck::Source source;
        std::string url;
    };

    ValidationRecorder* previous;
    std::vector<SeenError> errors;
    std::vector<ListSource> sources;
    std::vector<RevocationFetch> fetches;
    std::optional<std::size_t> openFetch;
    std::optional<std::string> openFailure;
};

// One attempt to obtain a list, from `url`'s server or from the cache. Records nothing outside
// a validation. Unless it succeeded, it ends with the first failure noted, so a download that
// fails quietly still says why.
class FetchRecord {
  public:
    explicit FetchRecord(std::string url);
    ~FetchRecord();
    FetchRecord(const FetchRecord&) = delete;
    FetchRecord& operator=(const FetchRecord&) = delete;

    void bytes(std::size_t count);
    void fromCache();
    void succeeded();
    void failed(const std::string& message);

    // For code that only sees the open fetch: the first failure wins.
    static void noteFailure(const std::string& message);
    static void noteHttpStatus(int status);

    // A download that could not start: the certificate names no usable distribution point.
    static void unfetchable(const std::string& message);

  private:
    RevocationFetch* entry() const;

    ValidationRecorder* recorder;
    std::chrono::steady_clock::time_point start;
    bool ok = false;
};

}  // namespace foundation::certificates::detail
