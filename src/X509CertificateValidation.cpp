// Validation of one certificate with OpenSSL's verifier: the working store, the revocation
// lists, the flags, the forgiving callback, and the mapping of OpenSSL's verdict.
#include "Asn1Conversions.hpp"
#include "ChainSignatureVerification.hpp"
#include "FacadeAccess.hpp"
#include "OpenSSLPtr.hpp"
#include "PathSearch.hpp"
#include "PlatformTrust.hpp"
#include "RevocationChecking.hpp"
#include "RevocationListAccess.hpp"
#include "StoreSnapshot.hpp"
#include "ValidationAccess.hpp"
#include "ValidationRecorder.hpp"
#include "WebPkiProfile.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <climits>

namespace foundation::certificates {

namespace {

using Options = CertificateValidationOptions;
using detail::ValidationAccess;

constexpr unsigned long kAlwaysFlags = X509_V_FLAG_X509_STRICT | X509_V_FLAG_ALLOW_PROXY_CERTS |
                                       X509_V_FLAG_CHECK_SS_SIGNATURE | X509_V_FLAG_TRUSTED_FIRST;

// OpenSSL has no code-signing purpose before 3.2, and its later one is stricter than its other
// purposes, so this one is ours on every version, shaped like those: a leaf's key usage must allow
// signatures, and any certificate's extended key usage, where present, must list code signing.
bool allowsCodeSigning(X509* certificate, int depth) {
    const uint32_t flags = X509_get_extension_flags(certificate);
    if ((flags & EXFLAG_XKUSAGE) != 0 &&
        (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) == 0) {
        return false;
    }
    return depth > 0 || (flags & EXFLAG_KUSAGE) == 0 ||
           (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
}

// The requirements OpenSSL cannot be asked to check the way the options define them, for one
// certificate of the chain: the OpenSSL error to report, or X509_V_OK.
int ownRequirementError(X509* certificate, int depth, const Options& options) {
    if (ValidationAccess::purpose(options) == CertificatePurpose::CodeSigning &&
        !allowsCodeSigning(certificate, depth)) {
        return X509_V_ERR_INVALID_PURPOSE;
    }
    // OpenSSL's own e-mail check falls back to the subject's emailAddress attribute when the
    // leaf has no rfc822Name; only subjectAltName counts here, as for host names.
    const std::string& email = ValidationAccess::emailAddress(options);
    if (depth == 0 && !email.empty() &&
        X509_check_email(certificate, email.data(), email.size(),
                         X509_CHECK_FLAG_NEVER_CHECK_SUBJECT) != 1) {
        return X509_V_ERR_EMAIL_MISMATCH;
    }
    return X509_V_OK;
}

// The second the validation judges; the profile always fixes one.
std::time_t checkTime(const Options& options) {
    const auto time =
        ValidationAccess::validationTime(options).value_or(std::chrono::system_clock::now());
    return static_cast<std::time_t>(
        std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count());
}

// OpenSSL asks after every check; the options decide which failures are forgiven. It keeps no
// state: the options come with the context, so concurrent validations do not meet here.
int verifyCallback(int ok, X509_STORE_CTX* context) {
    const auto* options = static_cast<const Options*>(X509_STORE_CTX_get_ex_data(context, 0));
    // ok == 1 is OpenSSL's word that a certificate of the chain passed all its own checks.
    X509* current = X509_STORE_CTX_get_current_cert(context);
    if (ok == 1 && options != nullptr && current != nullptr) {
        const int own =
            ownRequirementError(current, X509_STORE_CTX_get_error_depth(context), *options);
        if (own != X509_V_OK) {
            X509_STORE_CTX_set_error(context, own);
            return 0;
        }
    }
    const int error = X509_STORE_CTX_get_error(context);
    if (error == X509_V_OK) return 1;
    if (options == nullptr) return ok;
    if (error == X509_V_ERR_CERT_HAS_EXPIRED && current != nullptr &&
        ValidationAccess::profile(*options) == ValidationProfile::WebPKI &&
        detail::expiresExactlyAt(current, checkTime(*options))) {
        return 1;
    }
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return ValidationAccess::allowExpired(*options) == Options::AllowExpiredCertificate::Yes
                       ? 1
                       : ok;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return ValidationAccess::allowSelfSigned(*options) ==
                           Options::AllowSelfSignedCertificate::Yes
                       ? 1
                       : ok;
        case X509_V_ERR_CERT_REVOKED:
            return ValidationAccess::allowRevoked(*options) == Options::AllowRevokedCertificate::Yes
                       ? 1
                       : ok;
        default:
            return ok;
    }
}

// The same verdicts, with what OpenSSL reported and what the options made of it kept for the
// results' report.
int explainingCallback(int ok, X509_STORE_CTX* context) {
    const int reported = X509_STORE_CTX_get_error(context);
    const int verdict = verifyCallback(ok, context);
    detail::ValidationRecorder* recorder = detail::ValidationRecorder::current();
    if (recorder == nullptr) return verdict;
    const int depth = X509_STORE_CTX_get_error_depth(context);
    if (ok == 0 && reported != X509_V_OK) {
        recorder->sawError(depth, reported, verdict == 1);
    } else if (ok == 1 && verdict == 0) {
        // A requirement of ours failed where OpenSSL saw none; it runs with OpenSSL's last checks.
        recorder->sawError(depth, X509_STORE_CTX_get_error(context), false, true);
    }
    return verdict;
}

std::string verificationErrorText(X509_STORE_CTX* context) {
    const int error = X509_STORE_CTX_get_error(context);
    // Without a current certificate (an internal OpenSSL failure) the subject stays empty.
    X509* current = X509_STORE_CTX_get_current_cert(context);
    const std::string subject =
        current != nullptr ? detail::nameToString(X509_get_subject_name(current)) : std::string();
    return "Errors present: Error code " + std::to_string(error) + "  at depth " +
           std::to_string(X509_STORE_CTX_get_error_depth(context)) +
           "Certificate Subject Name=" + subject + "\n" +
           ". \nMessage:" + X509_verify_cert_error_string(error) + "\n";
}

CertificateValidationResults resultsFor(X509_STORE_CTX* context, const Options& options) {
    const int error = X509_STORE_CTX_get_error(context);
    // These errors can only arise from a requirement the caller set; they stay "other errors"
    // otherwise, as they always were.
    const bool nameRequired = !ValidationAccess::hostName(options).empty() ||
                              !ValidationAccess::ipAddress(options).empty() ||
                              !ValidationAccess::emailAddress(options).empty();
    const bool purposeRequired = ValidationAccess::purpose(options) != CertificatePurpose::Any;
    switch (error) {
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_EMAIL_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            if (nameRequired) {
                return {CertificateChainStatus::NameMismatch, verificationErrorText(context)};
            }
            break;
        case X509_V_ERR_INVALID_PURPOSE:
            if (purposeRequired) {
                return {CertificateChainStatus::PurposeMismatch, verificationErrorText(context)};
            }
            break;
        case X509_V_ERR_INVALID_POLICY_EXTENSION:
        case X509_V_ERR_NO_EXPLICIT_POLICY:
            if (ValidationAccess::policies(options)) {
                return {CertificateChainStatus::PolicyMismatch, verificationErrorText(context)};
            }
            break;
        default:
            break;
    }
    switch (error) {
        case X509_V_OK:
            return {CertificateChainStatus::Valid, ""};
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_CERT_CHAIN_TOO_LONG:
        case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        case X509_V_ERR_INVALID_CA:
            return {CertificateChainStatus::InvalidChain, verificationErrorText(context)};
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return {CertificateChainStatus::SelfSigned, ""};
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
        case X509_V_ERR_CRL_SIGNATURE_FAILURE:
        case X509_V_ERR_CRL_NOT_YET_VALID:
        case X509_V_ERR_CRL_HAS_EXPIRED:
        case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
        case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
            return {CertificateChainStatus::CRLError, verificationErrorText(context)};
        case X509_V_ERR_CERT_REVOKED:
            return {CertificateChainStatus::Revoked, verificationErrorText(context)};
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return {CertificateChainStatus::Expired, verificationErrorText(context)};
        case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return {CertificateChainStatus::InvalidSignature, verificationErrorText(context)};
        default:
            return {CertificateChainStatus::ValidationFailed,
                    "Validation Failed. Return code=" + std::to_string(error) + "." +
                        verificationErrorText(context)};
    }
}

// The certificates a validation trusts, read-only: the caller's trust store, or the platform's
// trusted certificates when it is empty. Shared with other validations and never changed, so
// the caller's trust store never sees what a validation adds.
std::shared_ptr<X509_STORE> trustedStore(const TrustStore& trustStore) {
    try {
        return detail::trustedVerificationStore(trustStore);
    } catch (const TrustStoreException& e) {
        throw X509CertificateException(std::string("Internal error:") + e.what());
    }
}

// The lists by reference, for the verification context; null when there are none.
detail::OpenSSLPtr<STACK_OF(X509_CRL)> crlStack(
    const std::vector<CertificateRevocationList>& lists) {
    if (lists.empty()) return nullptr;
    detail::OpenSSLPtr<STACK_OF(X509_CRL)> stack(sk_X509_CRL_new_null());
    for (const CertificateRevocationList& list : lists) {
        if (!stack ||
            sk_X509_CRL_push(stack.get(), detail::RevocationListAccess::shared(list)) <= 0) {
            throw X509CertificateException("Internal error: Unable to allocate a stack.");
        }
    }
    return stack;
}

int openSSLPurpose(CertificatePurpose purpose) {
    switch (purpose) {
        case CertificatePurpose::TLSServer:
            return X509_PURPOSE_SSL_SERVER;
        case CertificatePurpose::TLSClient:
            return X509_PURPOSE_SSL_CLIENT;
        case CertificatePurpose::EmailProtection:
            return X509_PURPOSE_SMIME_SIGN;
        case CertificatePurpose::TimeStamping:
            return X509_PURPOSE_TIMESTAMP_SIGN;
        case CertificatePurpose::Any:
        case CertificatePurpose::CodeSigning:  // checked by the verify callback
            break;
    }
    return 0;
}

// OpenSSL given no initial set keeps no user-constrained set at all, and then refuses every
// chain that must carry an explicit policy; anyPolicy must be named.
bool applyPolicySettings(X509_VERIFY_PARAM* param, const CertificatePolicySettings& settings) {
    unsigned long flags = X509_V_FLAG_POLICY_CHECK;
    if (settings.requireExplicitPolicy) flags |= X509_V_FLAG_EXPLICIT_POLICY;
    if (settings.inhibitPolicyMapping) flags |= X509_V_FLAG_INHIBIT_MAP;
    if (settings.inhibitAnyPolicy) flags |= X509_V_FLAG_INHIBIT_ANY;
    static const std::vector<std::string> anyPolicy{"2.5.29.32.0"};
    const std::vector<std::string>& initial =
        settings.initialPolicies.empty() ? anyPolicy : settings.initialPolicies;
    for (const std::string& oid : initial) {
        ASN1_OBJECT* policy = OBJ_txt2obj(oid.c_str(), 1);
        if (policy == nullptr || X509_VERIFY_PARAM_add0_policy(param, policy) != 1) {
            ASN1_OBJECT_free(policy);
            return false;
        }
    }
    return X509_VERIFY_PARAM_set_flags(param, flags) == 1;
}

// The caller's requirements on the context's parameters; nothing for what was not set. The
// e-mail address and code signing are checked by the verify callback.
void applyRequirements(X509_VERIFY_PARAM* param, const Options& options) {
    bool applied = true;
    if (const auto& time = ValidationAccess::validationTime(options)) {
        const auto seconds = std::chrono::floor<std::chrono::seconds>(time->time_since_epoch());
        X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(seconds.count()));
    }
    // Names are matched in subjectAltName only; a wildcard must be a whole label.
    X509_VERIFY_PARAM_set_hostflags(
        param, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (const std::string& host = ValidationAccess::hostName(options); !host.empty()) {
        applied = applied && X509_VERIFY_PARAM_set1_host(param, host.data(), host.size()) == 1;
    }
    if (const ByteArray& ip = ValidationAccess::ipAddress(options); !ip.empty()) {
        applied = applied && X509_VERIFY_PARAM_set1_ip(param, ip.data(), ip.size()) == 1;
    }
    if (const int purpose = openSSLPurpose(ValidationAccess::purpose(options)); purpose != 0) {
        applied = applied && X509_VERIFY_PARAM_set_purpose(param, purpose) == 1;
    }
    if (const auto& policies = ValidationAccess::policies(options)) {
        applied = applied && applyPolicySettings(param, *policies);
    }
    if (!applied) {
        throw X509CertificateException(
            "Internal error: Unable to set the validation requirements.");
    }
}

// Flags and callback go on the context, not on the store: the store may be shared. The context
// starts from the store's (default) parameters, so the effect is the same.
void setUpContext(X509_STORE_CTX* context, X509_STORE* store, X509* certificate,
                  STACK_OF(X509) * untrusted, STACK_OF(X509_CRL) * crls, unsigned long flags,
                  const Options& options) {
    X509_STORE_CTX_init(context, store, certificate, untrusted);
    if (crls != nullptr) X509_STORE_CTX_set0_crls(context, crls);
    if (X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context), flags) == 0) {
        throw X509CertificateException("Failed to set the flags to X509 parameters");
    }
    applyRequirements(X509_STORE_CTX_get0_param(context), options);
    X509_STORE_CTX_set_verify_cb(context, explainingCallback);
    detail::useSignatureCache(context);
    X509_STORE_CTX_set_ex_data(context, 0, const_cast<Options*>(&options));
}

detail::OpenSSLPtr<X509_STORE_CTX> newContext() {
    detail::OpenSSLPtr<X509_STORE_CTX> context(X509_STORE_CTX_new());
    if (!context) {
        throw X509CertificateException("Internal Error: error creating X509_STORE_CTX object\n");
    }
    return context;
}

std::vector<X509*> chainOf(X509_STORE_CTX* context) {
    std::vector<X509*> chain;
    STACK_OF(X509)* built = X509_STORE_CTX_get0_chain(context);
    for (int i = 0; i < sk_X509_num(built); ++i) chain.push_back(sk_X509_value(built, i));
    return chain;
}

// Failures that a path through other certificates could avoid: anything about an issuer, the
// end of the path or the constraints on it. What belongs to the leaf alone (its names, its
// dates, its revocation) stays with every path.
bool anotherPathMayHelp(int error, int depth) {
    switch (error) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_CERT_CHAIN_TOO_LONG:
        case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        case X509_V_ERR_INVALID_CA:
        case X509_V_ERR_CERT_UNTRUSTED:
        case X509_V_ERR_CERT_REJECTED:
        case X509_V_ERR_PERMITTED_VIOLATION:
        case X509_V_ERR_EXCLUDED_VIOLATION:
        case X509_V_ERR_SUBTREE_MINMAX:
        case X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE:
        case X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX:
        case X509_V_ERR_UNSUPPORTED_NAME_SYNTAX:
            return true;
        case X509_V_ERR_CERT_REVOKED:
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return false;
        default:
            return depth > 0;
    }
}

// The user-constrained policy set of a verified chain; anyPolicy when the caller's initial set
// was anyPolicy and the chain kept it.
std::vector<std::string> validPolicies(X509_STORE_CTX* context) {
    std::vector<std::string> oids;
    const X509_POLICY_TREE* tree = X509_STORE_CTX_get0_policy_tree(context);
    STACK_OF(X509_POLICY_NODE)* nodes = X509_policy_tree_get0_user_policies(tree);
    for (int i = 0; i < sk_X509_POLICY_NODE_num(nodes); ++i) {
        const ASN1_OBJECT* policy =
            X509_policy_node_get0_policy(sk_X509_POLICY_NODE_value(nodes, i));
        if (policy == nullptr) continue;
        std::string oid = detail::dottedOID(policy);
        if (std::find(oids.begin(), oids.end(), oid) == oids.end()) oids.push_back(std::move(oid));
    }
    return oids;
}

bool sameCertificate(const X509Certificate& certificate, const X509* x509) {
    const X509SPtr parsed = detail::FacadeAccess::read(
        certificate, [](const X509CertificateImpl& i) { return i.shared(); });
    return parsed.get() == x509 || (parsed && X509_cmp(parsed.get(), x509) == 0);
}

}  // namespace

std::pair<std::optional<X509CertificateImpl>, CertificateValidationResults>
X509CertificateImpl::validationHelper(const X509CertificateChain& chain,
                                      const Options& callerOptions, const TrustStore& trustStore,
                                      AnchorCopy anchorCopy) const {
    throwIfEmpty();
    detail::ValidationRecorder recorder;
    const bool webPki = ValidationAccess::profile(callerOptions) == ValidationProfile::WebPKI;
    if (webPki && ValidationAccess::hostName(callerOptions).empty() &&
        ValidationAccess::ipAddress(callerOptions).empty()) {
        throw InvalidArgument("The WebPKI profile needs a host name or an IP address.");
    }
    std::optional<Options> profileOptions;
    // Only when something is implied: copying the options costs a noticeable share.
    if (webPki && (!ValidationAccess::validationTime(callerOptions) ||
                   ValidationAccess::purpose(callerOptions) == CertificatePurpose::Any)) {
        profileOptions =
            ValidationAccess::withProfileDefaults(callerOptions, std::chrono::system_clock::now());
    }
    const Options& options = profileOptions ? *profileOptions : callerOptions;
    // A context that passed on another path points at its anchor stack, so this outlives it.
    detail::OpenSSLPtr<STACK_OF(X509)> passingAnchor;
    detail::OpenSSLPtr<X509_STORE_CTX> context = newContext();
    const std::shared_ptr<X509_STORE> trusted = trustedStore(trustStore);

    // This certificate first, unless the chain already starts with it.
    std::vector<X509Certificate> workingList = chain.getCertificates();
    if (workingList.empty() || !sameCertificate(workingList.front(), certificate.get())) {
        workingList.insert(workingList.begin(), X509Certificate(share()));
    }
    const X509StackUPtr untrusted = detail::shareX509Stack(workingList);

    // Lists are judged at the validation's time.
    const TimePoint now = std::chrono::time_point_cast<std::chrono::microseconds>(
        ValidationAccess::validationTime(options).value_or(std::chrono::system_clock::now()));
    const Options::DownloadCRL download = ValidationAccess::downloadCRL(options);
    const std::vector<CertificateRevocationList>& supplied =
        ValidationAccess::revocationLists(options);
    const std::optional<RevocationFetchSettings>& fetch =
        ValidationAccess::revocationFetch(options);

    // Downloaded lists go into a private copy; without downloads the shared store is only read.
    X509_STORE* store = trusted.get();
    detail::StoreUPtr withLists(nullptr, X509_STORE_free);
    std::vector<X509CRLUPtr> crls;
    // With the caller's lists or fetch settings, the lists go to the verification context
    // instead, and the shared store is only read.
    const bool listsForContext =
        !supplied.empty() || (fetch.has_value() && download != Options::DownloadCRL::No);
    std::vector<CertificateRevocationList> contextLists;
    bool crlsObtained = false;
    if (listsForContext) {
        crlsObtained = detail::gatherRevocationLists(download, ValidationAccess::checkCRL(options),
                                                     {supplied, fetch}, workingList, trusted.get(),
                                                     now, contextLists);
    } else if (download != Options::DownloadCRL::No) {
        try {
            withLists.reset(detail::copyStoreObjects(trusted.get()).release());
        } catch (const TrustStoreException& e) {
            throw X509CertificateException(std::string("Internal error:") + e.what());
        }
        store = withLists.get();
        crlsObtained = detail::downloadCRLs(download, ValidationAccess::checkCRL(options), crls,
                                            workingList, withLists, chain, trustStore, now);
    }

    unsigned long flags = kAlwaysFlags;
    if (crlsObtained &&
        ValidationAccess::allowRevoked(options) == Options::AllowRevokedCertificate::No) {
        if (ValidationAccess::checkCRL(options) == Options::CheckCRL::LeafOnly) {
            flags |= X509_V_FLAG_CRL_CHECK;
        } else if (ValidationAccess::checkCRL(options) == Options::CheckCRL::FullChain) {
            flags |= X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
        }
        // The caller's and the bounded fetcher's lists are judged by the full rules:
        // distribution-point scope, indirect lists, reason partitions and deltas. They reach
        // the context, where OpenSSL also finds an indirect list's issuer.
        if (listsForContext && (flags & X509_V_FLAG_CRL_CHECK) != 0) {
            flags |= X509_V_FLAG_EXTENDED_CRL_SUPPORT | X509_V_FLAG_USE_DELTAS;
        }
    }

    const detail::OpenSSLPtr<STACK_OF(X509_CRL)> contextCrls = crlStack(contextLists);
    setUpContext(context.get(), store, certificate.get(), untrusted.get(), contextCrls.get(), flags,
                 options);

    const unsigned long crlFlags = flags & (X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    CertificateValidationResults results(CertificateChainStatus::ValidationFailed, "");
    bool accepted = X509_verify_cert(context.get()) > 0;
    if (webPki) {
        detail::ProfileFacts facts;
        facts.time = checkTime(options);
        facts.expiryForgivable =
            ValidationAccess::allowExpired(options) == Options::AllowExpiredCertificate::Yes;
        for (const X509CRLUPtr& list : crls) facts.revocationLists.push_back(list.get());
        for (int i = 0; i < sk_X509_CRL_num(contextCrls.get()); ++i) {
            facts.revocationLists.push_back(sk_X509_CRL_value(contextCrls.get(), i));
        }
        if ((flags & X509_V_FLAG_CRL_CHECK_ALL) != 0) {
            facts.revocationCheckedDepth = INT_MAX;
        } else if ((flags & X509_V_FLAG_CRL_CHECK) != 0) {
            facts.revocationCheckedDepth = 0;
        }
        // The first path's verdict is the answer unless another path passes.
        std::optional<CertificateValidationResults> firstFailure;
        bool searchOthers = false;
        const std::vector<X509*> firstPath = chainOf(context.get());
        if (accepted) {
            if (const auto violation = detail::checkWebPkiProfile(firstPath, facts)) {
                firstFailure.emplace(CertificateChainStatus::ProfileViolation, violation->text);
                searchOthers = violation->depth > 0;
            }
        } else {
            firstFailure = resultsFor(context.get(), options);
            searchOthers = anotherPathMayHelp(X509_STORE_CTX_get_error(context.get()),
                                              X509_STORE_CTX_get_error_depth(context.get()));
        }
        if (searchOthers) {
            const X509StackUPtr anchors = makeX509StackUPtr(X509_STORE_get1_all_certs(store));
            std::vector<X509*> trustedCertificates, given;
            for (int i = 0; i < sk_X509_num(anchors.get()); ++i) {
                trustedCertificates.push_back(sk_X509_value(anchors.get(), i));
            }
            for (int i = 0; i < sk_X509_num(untrusted.get()); ++i) {
                given.push_back(sk_X509_value(untrusted.get(), i));
            }
            const auto attempt = [&](const std::vector<X509*>& path) {
                if (path == firstPath) return false;
                detail::OpenSSLPtr<X509_STORE_CTX> candidate = newContext();
                const detail::OpenSSLPtr<STACK_OF(X509)> between(sk_X509_new_null());
                detail::OpenSSLPtr<STACK_OF(X509)> anchor(sk_X509_new_null());
                bool built = between && anchor && sk_X509_push(anchor.get(), path.back()) > 0;
                for (std::size_t i = 1; built && i + 1 < path.size(); ++i) {
                    built = sk_X509_push(between.get(), path[i]) > 0;
                }
                if (!built)
                    throw X509CertificateException("Internal error: Unable to allocate a stack.");
                // What a candidate saw is reported only if it is the path that passes.
                detail::ValidationRecorder candidateRecorder;
                setUpContext(candidate.get(), store, certificate.get(), between.get(),
                             contextCrls.get(), flags, options);
                X509_STORE_CTX_set0_trusted_stack(candidate.get(), anchor.get());
                if (X509_verify_cert(candidate.get()) <= 0 ||
                    detail::checkWebPkiProfile(chainOf(candidate.get()), facts)) {
                    return false;
                }
                recorder.takeErrors(candidateRecorder);
                context = std::move(candidate);
                passingAnchor = std::move(anchor);
                return true;
            };
            if (detail::searchPaths(certificate.get(), given, trustedCertificates, attempt)) {
                firstFailure.reset();
                accepted = true;
            }
        }
        if (firstFailure) {
            results = *firstFailure;
            accepted = false;
        }
    }
    if (accepted) {
        results = CertificateValidationResults(CertificateChainStatus::Valid, "");
        if (ValidationAccess::policies(options)) {
            ValidationAccess::setValidPolicies(results, validPolicies(context.get()));
        }
        recorder.report(context.get(), certificate.get(), crlFlags, results);
        const X509StackUPtr verified = makeX509StackUPtr(X509_STORE_CTX_get1_chain(context.get()));
        const int length = verified ? sk_X509_num(verified.get()) : 0;
        if (length <= 0) throw X509CertificateException("Invalid certificate chain length.\n");
        // The anchor passes the same key check as every loaded certificate. Only a caller who
        // receives it gets a copy of its own.
        X509* anchor = sk_X509_value(verified.get(), length - 1);
        if (anchorCopy == AnchorCopy::Duplicate) {
            return {X509CertificateImpl(static_cast<const X509*>(anchor)), results};
        }
        X509_up_ref(anchor);
        return {X509CertificateImpl::fromParsed(makeX509SPtr(anchor)), results};
    }
    if (!webPki) results = resultsFor(context.get(), options);
    recorder.report(context.get(), certificate.get(), crlFlags, results);
    if (X509_STORE_CTX_get_error(context.get()) == X509_V_ERR_CERT_REVOKED &&
        ValidationAccess::checkCRL(options) != Options::CheckCRL::None) {
        results.setCertificateRevocationResults(
            listsForContext ? detail::revocationDetailsFromLists(contextLists, workingList)
                            : detail::certificateRevocationDetails(crls, workingList));
    }
    return {std::nullopt, results};
}

CertificateValidationResults X509CertificateImpl::validateCertificate(
    const X509CertificateChain& chain, const Options& options, const TrustStore& trustStore) const {
    return validationHelper(chain, options, trustStore, AnchorCopy::Shared).second;
}

X509CertificateImpl X509CertificateImpl::getRootCACertificate(const X509CertificateChain& chain,
                                                              const TrustStore& trustStore) const {
    const Options forgiving(
        Options::AllowSelfSignedCertificate::Yes, Options::AllowExpiredCertificate::Yes,
        Options::AllowRevokedCertificate::Yes, Options::CheckCRL::None, Options::DownloadCRL::No);
    auto outcome = validationHelper(chain, forgiving, trustStore, AnchorCopy::Duplicate);
    if (!outcome.first) {
        throw X509CertificateException("Error: Root CA X509Certificate has no content.");
    }
    return std::move(*outcome.first);
}

}  // namespace foundation::certificates
