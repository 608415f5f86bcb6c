// PKCS#7 structures made at run time: certificate bundles, signatures, and the types a
// signed-data reader must refuse.
#pragma once

#include "OpenSSLPtr.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <openssl/pkcs7.h>

#include <string>
#include <vector>

namespace testsupport {

using PKCS7Ptr = foundation::certificates::detail::OpenSSLPtr<PKCS7>;

struct Signer {
    foundation::certificates::EVP_PKEYUPtr key{nullptr, EVP_PKEY_free};
    foundation::certificates::X509UPtr certificate{nullptr, X509_free};
};

// RSA-2048 signers made once per process, key usage digitalSignature,nonRepudiation. The chained
// and expired (since yesterday) ones are issued by rsaPKI()'s intermediate.
const Signer& chainedSigner();
const Signer& expiredSigner();
const Signer& selfSignedSigner();

// Signed-data holding the certificates in order and no signer; none: no certificate set at all.
PKCS7Ptr makeCertificateBundle(const std::vector<const X509*>& certificates);

struct SignatureRecipe {
    const Signer* signer = nullptr;                // required
    std::vector<const X509*> extraCertificates{};  // after the signer's certificate
    bool detached = false;
    bool withCertificates = true;  // false: PKCS7_NOCERTS
};

// A binary-mode signature over the content.
PKCS7Ptr makeSignature(const SignatureRecipe& recipe,
                       const foundation::certificates::ByteArray& content);
PKCS7Ptr makeDataStructure();  // empty content
PKCS7Ptr makeEnvelopedStructure(const X509* recipient,
                                const foundation::certificates::ByteArray& content);

std::string pkcs7ToPEM(const PKCS7* pkcs7);
foundation::certificates::ByteArray pkcs7ToDER(const PKCS7* pkcs7);

}  // namespace testsupport
