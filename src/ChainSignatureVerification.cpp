// OpenSSL 3.0's internal_verify (crypto/x509/x509_vfy.c) rewritten on the public API, so that
// the signature checks can consult the cache. Everything a verify callback or a caller can
// observe happens as there: the same checks in the same order, the same error, depth and
// current certificate for each callback call, the same return values. The one difference is
// the current issuer, which the public API cannot set; nothing in the library reads it.
#include "ChainSignatureVerification.hpp"

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"

#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <ctime>

namespace foundation::certificates::detail {

namespace {

const EVP_MD* sha256() {
    // Fetched once: an implicit fetch on every digest takes a process-wide lock in OpenSSL 3.0.
    static const OpenSSLPtr<EVP_MD> md(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return md.get();
}

// Key usage bits as OpenSSL caches them (ex_kusage). X509_get_key_usage answers 0 for a
// certificate with any invalid extension, where OpenSSL still uses the decoded bits.
std::uint32_t keyUsageBits(X509* certificate, std::uint32_t extensionFlags) {
    if ((extensionFlags & EXFLAG_INVALID) == 0) return X509_get_key_usage(certificate);
    const OpenSSLPtr<ASN1_STRING> usage(
        static_cast<ASN1_STRING*>(X509_get_ext_d2i(certificate, NID_key_usage, nullptr, nullptr)));
    if (!usage || ASN1_STRING_length(usage.get()) <= 0) return 0;
    const unsigned char* data = ASN1_STRING_get0_data(usage.get());
    std::uint32_t bits = data[0];
    if (ASN1_STRING_length(usage.get()) > 1) bits |= static_cast<std::uint32_t>(data[1]) << 8;
    return bits;
}

// ossl_x509_signing_allowed: the issuer's key usage must allow signing the subject.
int signingAllowed(X509* issuer, X509* subject) {
    const std::uint32_t issuerFlags = X509_get_extension_flags(issuer);
    const auto rejects = [&](std::uint32_t usage) {
        return (issuerFlags & EXFLAG_KUSAGE) != 0 &&
               (keyUsageBits(issuer, issuerFlags) & usage) == 0;
    };
    if ((X509_get_extension_flags(subject) & EXFLAG_PROXY) != 0) {
        return rejects(KU_DIGITAL_SIGNATURE) ? X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE : X509_V_OK;
    }
    return rejects(KU_KEY_CERT_SIGN) ? X509_V_ERR_KEYUSAGE_NO_CERTSIGN : X509_V_OK;
}

// ossl_x509_likely_issued(certificate, certificate) == X509_V_OK. OpenSSL caches exactly that
// as "self-signed" when it reads the extensions (same names, key identifiers and key type), and
// answers no for a certificate whose extensions it could not read.
bool likelySelfIssued(X509* certificate) {
    const std::uint32_t flags = X509_get_extension_flags(certificate);
    return (flags & EXFLAG_SS) != 0 && (flags & EXFLAG_INVALID) == 0;
}

// verify_cb_cert: tells the callback of an error at a depth; false stops the verification.
bool report(X509_STORE_CTX* context, X509_STORE_CTX_verify_cb callback, X509* certificate,
            int depth, int error) {
    X509_STORE_CTX_set_error_depth(context, depth);
    X509_STORE_CTX_set_current_cert(context, certificate);
    if (error != X509_V_OK) X509_STORE_CTX_set_error(context, error);
    return callback(0, context) != 0;
}

// ossl_x509_check_cert_time, with a depth, so every failure goes to the callback.
bool checkValidityTimes(X509_STORE_CTX* context, X509_STORE_CTX_verify_cb callback,
                        X509* certificate, int depth) {
    const X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context);
    const unsigned long flags = X509_VERIFY_PARAM_get_flags(param);
    std::time_t checkTime = 0;
    std::time_t* at = nullptr;  // now, read afresh by each comparison as OpenSSL does
    if ((flags & X509_V_FLAG_USE_CHECK_TIME) != 0) {
        checkTime = X509_VERIFY_PARAM_get_time(param);
        at = &checkTime;
    } else if ((flags & X509_V_FLAG_NO_CHECK_TIME) != 0) {
        return true;
    }
    const int notBefore = X509_cmp_time(X509_get0_notBefore(certificate), at);
    if (notBefore == 0 &&
        !report(context, callback, certificate, depth, X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD)) {
        return false;
    }
    if (notBefore > 0 &&
        !report(context, callback, certificate, depth, X509_V_ERR_CERT_NOT_YET_VALID)) {
        return false;
    }
    const int notAfter = X509_cmp_time(X509_get0_notAfter(certificate), at);
    if (notAfter == 0 &&
        !report(context, callback, certificate, depth, X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD)) {
        return false;
    }
    return notAfter >= 0 ||
           report(context, callback, certificate, depth, X509_V_ERR_CERT_HAS_EXPIRED);
}

}  // namespace

std::optional<SignatureDigest> signatureDigest(X509* subject, X509* issuer) {
    // A key that cannot be made only means the signature is verified without the cache.
    const ScopedErrorQueueMark mark;
    unsigned char* certificate = nullptr;
    const int certificateLength = i2d_X509(subject, &certificate);
    const OpenSSLMemory<unsigned char> ownedCertificate(certificate);
    unsigned char* key = nullptr;
    const int keyLength = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(issuer), &key);
    const OpenSSLMemory<unsigned char> ownedKey(key);
    const OpenSSLPtr<EVP_MD_CTX> context(EVP_MD_CTX_new());
    SignatureDigest digest{};
    unsigned int length = 0;
    // A certificate's DER is self-delimiting, so the two encodings cannot run into each other.
    if (certificateLength <= 0 || keyLength <= 0 || !context || sha256() == nullptr ||
        EVP_DigestInit_ex(context.get(), sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), certificate, static_cast<std::size_t>(certificateLength)) !=
            1 ||
        EVP_DigestUpdate(context.get(), key, static_cast<std::size_t>(keyLength)) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 || length != digest.size()) {
        return std::nullopt;
    }
    return digest;
}

bool verifyCertificateSignature(X509* subject, X509* issuer, EVP_PKEY* issuerKey) {
    SignatureCache& cache = signatureCache();
    // A DSA key may take its parameters from further up the chain, so its encoding alone does
    // not say which key verified.
    if (!cache.enabled() || EVP_PKEY_get_base_id(issuerKey) == EVP_PKEY_DSA) {
        return X509_verify(subject, issuerKey) > 0;
    }
    const std::optional<SignatureDigest> digest = signatureDigest(subject, issuer);
    if (digest && cache.contains(*digest)) return true;
    const bool verified = X509_verify(subject, issuerKey) > 0;
    if (verified && digest) cache.insert(*digest);
    return verified;
}

int verifyChainSignaturesAndTimes(X509_STORE_CTX* context) {
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context);
    const unsigned long flags = X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(context));
    const X509_STORE_CTX_verify_cb callback = X509_STORE_CTX_get_verify_cb(context);

    int depth = sk_X509_num(chain) - 1;
    X509* issuer = sk_X509_value(chain, depth);
    X509* subject = issuer;
    X509_STORE_CTX_set_error_depth(context, depth);
    // A top certificate that is not self-issued is only the issuer of the one below it, unless
    // partial chains are accepted. (OpenSSL's bare DANE trust anchors never occur here.)
    if (!likelySelfIssued(issuer) && (flags & X509_V_FLAG_PARTIAL_CHAIN) == 0) {
        if (depth > 0) {
            --depth;
            X509_STORE_CTX_set_error_depth(context, depth);
            subject = sk_X509_value(chain, depth);
        } else if (!report(context, callback, issuer, 0,
                           X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE)) {
            return 0;
        }
    }

    // Errors stay set: only the callback may clear one.
    while (depth >= 0) {
        // A self-signature only when asked for: it adds no security.
        if (subject != issuer || ((flags & X509_V_FLAG_CHECK_SS_SIGNATURE) != 0 &&
                                  (X509_get_extension_flags(issuer) & EXFLAG_SS) != 0)) {
            // Missing or unsuitable issuer keys are reported at the issuer's depth.
            const int issuerDepth = depth + (subject == issuer ? 0 : 1);
            // A self-issued end-entity certificate at the top may sign whatever its key usage.
            const int allowed =
                subject == issuer && (X509_get_extension_flags(issuer) & EXFLAG_CA) == 0
                    ? X509_V_OK
                    : signingAllowed(issuer, subject);
            if (allowed != X509_V_OK && !report(context, callback, issuer, issuerDepth, allowed)) {
                return 0;
            }
            EVP_PKEY* key = X509_get0_pubkey(issuer);
            if (key == nullptr) {
                if (!report(context, callback, issuer, issuerDepth,
                            X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY)) {
                    return 0;
                }
            } else if (!verifyCertificateSignature(subject, issuer, key) &&
                       !report(context, callback, subject, depth,
                               X509_V_ERR_CERT_SIGNATURE_FAILURE)) {
                return 0;
            }
        }

        // The anchor's validity too, beyond what RFC 5280 asks.
        if (!checkValidityTimes(context, callback, subject, depth)) return 0;

        // Success at this depth; an earlier error, if any, stays.
        X509_STORE_CTX_set_current_cert(context, subject);
        X509_STORE_CTX_set_error_depth(context, depth);
        if (callback(1, context) == 0) return 0;

        if (--depth >= 0) {
            issuer = subject;
            subject = sk_X509_value(chain, depth);
        }
    }
    return 1;
}

void useSignatureCache(X509_STORE_CTX* context) {
    if (signatureCache().enabled())
        X509_STORE_CTX_set_verify(context, verifyChainSignaturesAndTimes);
}

}  // namespace foundation::certificates::detail
