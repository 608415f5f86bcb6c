#include "ValidationRecorder.hpp"

#include "Asn1Conversions.hpp"
#include "OpenSSLPtr.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Encodings.hpp>

#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace foundation::certificates::detail {

namespace {

thread_local ValidationRecorder* currentRecorder = nullptr;

bool isRevocationError(int code) {
    switch (code) {
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
        case X509_V_ERR_CRL_SIGNATURE_FAILURE:
        case X509_V_ERR_CRL_NOT_YET_VALID:
        case X509_V_ERR_CRL_HAS_EXPIRED:
        case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
        case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
        case X509_V_ERR_CERT_REVOKED:
        case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
        case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
        case X509_V_ERR_DIFFERENT_CRL_SCOPE:
        case X509_V_ERR_CRL_PATH_VALIDATION_ERROR:
        case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
            return true;
        default:
            return false;
    }
}

// Errors OpenSSL finds after it has looked at the lists: signatures, validity periods, name
// constraints and policies.
bool comesAfterRevocation(int code) {
    switch (code) {
        case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
        case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        case X509_V_ERR_CERT_NOT_YET_VALID:
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
        case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
        case X509_V_ERR_PERMITTED_VIOLATION:
        case X509_V_ERR_EXCLUDED_VIOLATION:
        case X509_V_ERR_SUBTREE_MINMAX:
        case X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE:
        case X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX:
        case X509_V_ERR_UNSUPPORTED_NAME_SYNTAX:
        case X509_V_ERR_INVALID_POLICY_EXTENSION:
        case X509_V_ERR_NO_EXPLICIT_POLICY:
            return true;
        default:
            return false;
    }
}

// Fetched once: the digest by name would be looked up in the providers at every call.
const EVP_MD* sha256() {
    static const OpenSSLPtr<EVP_MD> fetched(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return fetched ? fetched.get() : EVP_sha256();
}

struct Description {
    std::string subject, issuer, fingerprint;
};

Description describe(const X509* certificate) {
    Description description;
    description.subject = nameToString(X509_get_subject_name(certificate));
    description.issuer =
        X509_NAME_cmp(X509_get_subject_name(certificate), X509_get_issuer_name(certificate)) == 0
            ? description.subject
            : nameToString(X509_get_issuer_name(certificate));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate, sha256(), digest, &length) == 1) {
        description.fingerprint = hexEncode(ByteArray(digest, digest + length));
    }
    return description;
}

void freeDescription(void*, void* description, CRYPTO_EX_DATA*, int, long, void*) {
    delete static_cast<Description*>(description);
}

// Printing names and hashing costs more than the rest of the report together, and the same
// certificates (trusted roots, intermediates, a leaf validated again) come back validation after
// validation. So each parsed certificate keeps its description until it is freed. Our lock
// guards the slot: OpenSSL's ex_data is not safe for a writer beside readers.
int descriptionSlot() {
    static const int slot = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, freeDescription);
    return slot;
}
std::shared_mutex descriptionsLock;

Description described(const X509* certificate) {
    const int slot = descriptionSlot();
    if (slot < 0) return describe(certificate);
    {
        const std::shared_lock<std::shared_mutex> reading(descriptionsLock);
        if (const auto* kept =
                static_cast<const Description*>(X509_get_ex_data(certificate, slot))) {
            return *kept;
        }
    }
    auto fresh = std::make_unique<Description>(describe(certificate));
    const std::unique_lock<std::shared_mutex> writing(descriptionsLock);
    if (const auto* kept = static_cast<const Description*>(X509_get_ex_data(certificate, slot))) {
        return *kept;
    }
    // The description is not part of the certificate; only this file reads the slot.
    if (X509_set_ex_data(const_cast<X509*>(certificate), slot, fresh.get()) == 1) {
        return *fresh.release();
    }
    return *fresh;
}

}  // namespace

ValidationRecorder::ValidationRecorder() : previous(currentRecorder) { currentRecorder = this; }

ValidationRecorder::~ValidationRecorder() { currentRecorder = previous; }

ValidationRecorder* ValidationRecorder::current() { return currentRecorder; }

void ValidationRecorder::sawError(int depth, int code, bool forgiven, bool late) {
    // OpenSSL reports some errors twice, e.g. a missing issuer while building and again while
    // checking trust.
    const bool repeated = std::any_of(errors.begin(), errors.end(), [&](const SeenError& e) {
        return e.depth == depth && e.code == code && e.forgiven == forgiven;
    });
    if (!repeated) errors.push_back({depth, code, forgiven, late});
}

void ValidationRecorder::listFor(const X509* certificate, RevocationCheck::Source source,
                                 std::string url) {
    sources.push_back({certificate, source, std::move(url)});
}

void ValidationRecorder::report(X509_STORE_CTX* context, X509* leaf, unsigned long crlFlags,
                                CertificateValidationResults& results) {
    const STACK_OF(X509)* path = X509_STORE_CTX_get0_chain(context);
    const int length = path != nullptr ? sk_X509_num(path) : 0;
    std::vector<const X509*> certificates;
    for (int depth = 0; depth < length; ++depth) certificates.push_back(sk_X509_value(path, depth));
    if (certificates.empty()) certificates.push_back(leaf);
    for (const SeenError& error : errors) {
        // Errors past the end of what was built still belong somewhere.
        while (certificates.size() <= static_cast<std::size_t>(error.depth)) {
            certificates.push_back(nullptr);
        }
    }
    std::vector<CertificateCheck> checks(certificates.size());
    for (std::size_t depth = 0; depth < certificates.size(); ++depth) {
        checks[depth].depth = static_cast<int>(depth);
        if (certificates[depth] == nullptr) continue;
        Description description = described(certificates[depth]);
        checks[depth].subject = std::move(description.subject);
        checks[depth].issuer = std::move(description.issuer);
        checks[depth].sha256Fingerprint = std::move(description.fingerprint);
    }

    for (const SeenError& error : errors) {
        checks[static_cast<std::size_t>(error.depth)].errors.push_back(
            {error.code, X509_verify_cert_error_string(error.code), error.forgiven});
    }

    // Which certificates OpenSSL looked up in a list: those the flags cover, unless verification
    // stopped before it got to them.
    bool checking = (crlFlags & X509_V_FLAG_CRL_CHECK) != 0;
    std::size_t lastChecked = 0;
    if (checking) {
        lastChecked = (crlFlags & X509_V_FLAG_CRL_CHECK_ALL) != 0 ? checks.size() - 1 : 0;
        const auto fatal = std::find_if(errors.begin(), errors.end(),
                                        [](const SeenError& e) { return !e.forgiven; });
        if (fatal != errors.end() && !fatal->late && !comesAfterRevocation(fatal->code)) {
            if (isRevocationError(fatal->code)) {
                lastChecked = std::min(lastChecked, static_cast<std::size_t>(fatal->depth));
            } else {
                lastChecked = 0;
                checking = false;
            }
        }
    }
    for (std::size_t depth = 0; depth < checks.size(); ++depth) {
        CertificateCheck& check = checks[depth];
        RevocationCheck& revocation = check.revocation;
        if (const X509* certificate = certificates[depth]) {
            for (const ListSource& source : sources) {
                if (source.certificate == certificate ||
                    X509_cmp(source.certificate, certificate) == 0) {
                    revocation.source = source.source;
                    revocation.url = source.url;
                }
            }
        }
        const bool revokedHere = std::any_of(
            check.errors.begin(), check.errors.end(),
            [](const VerificationError& e) { return e.code == X509_V_ERR_CERT_REVOKED; });
        const bool listFailedHere =
            std::any_of(check.errors.begin(), check.errors.end(), [](const VerificationError& e) {
                return isRevocationError(e.code) && e.code != X509_V_ERR_CERT_REVOKED;
            });
        revocation.checked = (checking && depth <= lastChecked) || revokedHere || listFailedHere;
        // A self-signed anchor has no issuer to revoke it; OpenSSL passes it over.
        if (revocation.checked && !revokedHere && !listFailedHere && depth + 1 == checks.size() &&
            depth > 0 && certificates[depth] != nullptr &&
            (X509_get_extension_flags(const_cast<X509*>(certificates[depth])) & EXFLAG_SS) != 0) {
            revocation.checked = false;
        }
        if (revokedHere) {
            revocation.status = RevocationCheck::Status::Revoked;
        } else if (listFailedHere) {
            revocation.status = RevocationCheck::Status::Unknown;
        }
    }
    ValidationReportAccess::attach(results, std::move(checks), std::move(fetches));
}

FetchRecord::FetchRecord(std::string url)
    : recorder(ValidationRecorder::current()), start(std::chrono::steady_clock::now()) {
    if (recorder == nullptr) return;
    RevocationFetch fetch;
    fetch.url = std::move(url);
    recorder->fetches.push_back(std::move(fetch));
    recorder->openFetch = recorder->fetches.size() - 1;
    recorder->openFailure.reset();
}

FetchRecord::~FetchRecord() {
    RevocationFetch* fetch = entry();
    if (fetch == nullptr) return;
    fetch->duration = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    if (ok) {
        fetch->outcome = "ok";
    } else {
        fetch->outcome = recorder->openFailure.value_or("CRL Download Error: list not accepted\n");
    }
    recorder->openFetch.reset();
    recorder->openFailure.reset();
}

RevocationFetch* FetchRecord::entry() const {
    if (recorder == nullptr || !recorder->openFetch) return nullptr;
    return &recorder->fetches[*recorder->openFetch];
}

void FetchRecord::bytes(std::size_t count) {
    if (RevocationFetch* fetch = entry()) fetch->bytes = count;
}

void FetchRecord::fromCache() {
    if (RevocationFetch* fetch = entry()) fetch->fromCache = true;
}

void FetchRecord::succeeded() { ok = true; }

void FetchRecord::failed(const std::string& message) {
    if (recorder != nullptr && !recorder->openFailure) recorder->openFailure = message;
}

void FetchRecord::noteFailure(const std::string& message) {
    ValidationRecorder* recorder = ValidationRecorder::current();
    if (recorder != nullptr && recorder->openFetch && !recorder->openFailure) {
        recorder->openFailure = message;
    }
}

void FetchRecord::noteHttpStatus(int status) {
    ValidationRecorder* recorder = ValidationRecorder::current();
    if (recorder != nullptr && recorder->openFetch) {
        recorder->fetches[*recorder->openFetch].httpStatus = status;
    }
}

void FetchRecord::unfetchable(const std::string& message) {
    ValidationRecorder* recorder = ValidationRecorder::current();
    if (recorder == nullptr) return;
    RevocationFetch fetch;
    fetch.outcome = message;
    recorder->fetches.push_back(std::move(fetch));
}

}  // namespace foundation::certificates::detail
