// PKCS#7 structures made at run time: certificate bundles, attached and detached signatures,
// and structures of the types a signed-data reader must refuse.
#pragma once

#include "OpenSSLPtr.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <openssl/pkcs7.h>

#include <string>
#include <vector>

namespace testsupport {

using PKCS7Ptr = foundation::certificates::detail::OpenSSLPtr<PKCS7>;

// A signing certificate and its key.
struct Signer {
    foundation::certificates::EVP_PKEYUPtr key{nullptr, EVP_PKEY_free};
    foundation::certificates::X509UPtr certificate{nullptr, X509_free};
};

// Signers made once per process, RSA-2048, key usage digitalSignature,nonRepudiation (what
// OpenSSL's S/MIME signing purpose accepts):
//   chained   issued by rsaPKI()'s intermediate, so it chains to rsaPKI()'s root
//   direct    issued by rsaPKI()'s root itself
//   expired   issued by rsaPKI()'s intermediate, expired yesterday
//   selfSigned its own issuer
//   tlsServer  issued by rsaPKI()'s intermediate for TLS servers only (extendedKeyUsage
//              serverAuth), which OpenSSL's S/MIME signing purpose refuses
const Signer& chainedSigner();
const Signer& directSigner();
const Signer& expiredSigner();
const Signer& selfSignedSigner();
const Signer& tlsServerSigner();

// Signed-data holding the certificates, in order, and no signer information. With no
// certificates the structure has no certificate set at all.
PKCS7Ptr makeCertificateBundle(const std::vector<const X509*>& certificates);

struct SignatureRecipe {
    const Signer* signer = nullptr;  // required
    // Put after the signer's certificate into the structure (e.g. its intermediate).
    std::vector<const X509*> extraCertificates;
    bool detached = false;         // PKCS7_DETACHED: the content is not inside
    bool withCertificates = true;  // false: PKCS7_NOCERTS, no certificate inside at all
    bool alterContent = false;     // after signing, flip the first byte of the attached content
};

// A signature over the content, byte for byte (binary mode, no line-ending conversion).
PKCS7Ptr makeSignature(const SignatureRecipe& recipe,
                       const foundation::certificates::ByteArray& content);

// The data type, holding the content.
PKCS7Ptr makeDataStructure(const foundation::certificates::ByteArray& content);
// The enveloped type: the content encrypted for the recipient.
PKCS7Ptr makeEnvelopedStructure(const X509* recipient,
                                const foundation::certificates::ByteArray& content);
// The signed-and-enveloped type carrying the certificates and no recipients or signers.
PKCS7Ptr makeSignedAndEnvelopedBundle(const std::vector<const X509*>& certificates);

std::string pkcs7ToPEM(const PKCS7* pkcs7);
foundation::certificates::ByteArray pkcs7ToDER(const PKCS7* pkcs7);

}  // namespace testsupport
