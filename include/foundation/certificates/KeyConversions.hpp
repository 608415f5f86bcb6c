// Key classification and conversions between OpenSSL numbers, curve points and bytes.
//
// The library handles RSA keys and elliptic-curve keys on NIST P-256 or Ed25519; a process that
// opts in with setKeyAcceptance(KeyAcceptance::Extended) also handles P-384, P-521 and Ed448.
// Everything else is refused here with a typed exception, so a key that passed these functions
// is supported.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <cstdint>

namespace foundation::certificates {

enum class KeyType : std::uint32_t {
    RSA = 0,  // EVP_PKEY_RSA
    ECC = 1,  // EVP_PKEY_EC, EVP_PKEY_ED25519 or (Extended) EVP_PKEY_ED448
};

enum class EllipticCurve : std::uint32_t {
    Prime256v1 = 0,  // EVP_PKEY_EC on the group "prime256v1" (NIST P-256)
    Ed25519 = 1,     // EVP_PKEY_ED25519
    Secp384r1 = 2,   // EVP_PKEY_EC on the group "secp384r1" (NIST P-384), Extended only
    Secp521r1 = 3,   // EVP_PKEY_EC on the group "secp521r1" (NIST P-521), Extended only
    Ed448 = 4,       // EVP_PKEY_ED448, Extended only
};

// Which keys the whole process accepts.
//
// Standard (the default): RSA of at least 1024 bits, P-256 and Ed25519. It stays the default
// because code written against it may assume those three, e.g. that a private integer has 32
// bytes or a curve is one of two values.
// Extended: additionally P-384, P-521 and Ed448, as real trust bundles and TLS chains hold them.
// RSA keys still need 1024 bits.
enum class KeyAcceptance : std::uint32_t { Standard = 0, Extended = 1 };

// Thread-safe. Takes effect for every later load, classification and validation; objects already
// loaded are not checked again, but their key accessors classify by the new setting.
FOUNDATION_CERTIFICATES_EXPORT void setKeyAcceptance(KeyAcceptance acceptance);
// Standard until set.
FOUNDATION_CERTIFICATES_EXPORT KeyAcceptance getKeyAcceptance();

// Throws CertificateException for null, UnsupportedEllipticCurve for Ed448 under Standard
// acceptance and UnsupportedKeyType for every other algorithm (DSA, DH, RSA-PSS, X25519, ...).
FOUNDATION_CERTIFICATES_EXPORT KeyType getKeyType(const EVP_PKEY* key);

// The curve of an elliptic-curve key. Throws as getKeyType, CertificateException for an RSA key
// or a key whose parameters cannot be read, and UnsupportedEllipticCurve for any named group the
// current acceptance does not include.
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
