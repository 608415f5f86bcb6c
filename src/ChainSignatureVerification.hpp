// The last step of chain verification (each certificate's signature and validity times, from
// the anchor down to the leaf) with every signature going through the signature cache.
#pragma once

#include "SignatureCache.hpp"

#include <openssl/x509_vfy.h>

#include <optional>

namespace foundation::certificates::detail {

// Has the context verify signatures through the cache while the cache is on. With the cache off
// the context keeps OpenSSL's own step, untouched.
void useSignatureCache(X509_STORE_CTX* context);

// The verify hook itself (X509_STORE_CTX_set_verify): OpenSSL 3.0's step, check for check and
// callback for callback, so a result never depends on what the cache holds.
int verifyChainSignaturesAndTimes(X509_STORE_CTX* context);

// X509_verify(subject, issuerKey) > 0, answered from the cache when it can be.
bool verifyCertificateSignature(X509* subject, X509* issuer, EVP_PKEY* issuerKey);

// The cache key of the subject's signature under the issuer's key; none when it cannot be made.
std::optional<SignatureDigest> signatureDigest(X509* subject, X509* issuer);

}  // namespace foundation::certificates::detail
