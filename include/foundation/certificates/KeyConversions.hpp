// Key classification and conversions between OpenSSL numbers, curve points and bytes.
//
// The library handles RSA keys and elliptic-curve keys on NIST P-256 or Ed25519. Everything else
// is refused here with a typed exception, so a key that passed these functions is supported.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <cstdint>

namespace foundation::certificates {

enum class KeyType : std::uint32_t {
    RSA = 0,  // EVP_PKEY_RSA
    ECC = 1,  // EVP_PKEY_EC or EVP_PKEY_ED25519
};

enum class EllipticCurve : std::uint32_t {
    Prime256v1 = 0,  // EVP_PKEY_EC on the group "prime256v1" (NIST P-256)
    Ed25519 = 1,     // EVP_PKEY_ED25519
};

// Throws CertificateException for null, UnsupportedEllipticCurve for Ed448 and
// UnsupportedKeyType for every other algorithm (DSA, DH, RSA-PSS, X25519, ...).
FOUNDATION_CERTIFICATES_EXPORT KeyType getKeyType(const EVP_PKEY* key);

// The curve of an elliptic-curve key. Throws as getKeyType, CertificateException for an RSA key
// or a key whose parameters cannot be read, and UnsupportedEllipticCurve for any named group
// other than prime256v1.
FOUNDATION_CERTIFICATES_EXPORT EllipticCurve getEllipticCurve(const EVP_PKEY* key);

// The number's magnitude, big-endian, without leading zeros (empty for zero; the sign is lost).
FOUNDATION_CERTIFICATES_EXPORT ByteArray bnToByteArray(const BIGNUM* number);

// Decodes an octet-string point (any form OpenSSL accepts) on the group. The caller owns the
// returned point. Throws CertificateException when the group is null or the bytes are no point.
FOUNDATION_CERTIFICATES_EXPORT EC_POINTUPtr ByteArrayToEC_POINT(const ByteArray& bytes,
                                                                const EC_GROUP* group);

// The point's uncompressed octet string (0x04, X, Y). Throws CertificateException on failure.
FOUNDATION_CERTIFICATES_EXPORT ByteArray EC_POINTToByteArray(const EC_POINT* point,
                                                             const EC_GROUP* group);

}  // namespace foundation::certificates
