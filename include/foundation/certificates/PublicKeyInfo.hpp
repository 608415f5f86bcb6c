// A certificate's public key, described without OpenSSL.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/Types.hpp>

#include <cstdint>

namespace foundation::certificates {

class FOUNDATION_CERTIFICATES_EXPORT PublicKeyInfo {
  public:
    // An RSA key. Throws CertificateException when the exponent or the modulus is empty.
    PublicKeyInfo(unsigned long keySize, const ByteArray& publicExponent, const ByteArray& modulus);

    // An elliptic-curve key: for the NIST curves the encoded point as the certificate carries it
    // (normally uncompressed: 0x04, X, Y; 65, 97 or 133 bytes for P-256, P-384, P-521), for
    // Ed25519 and Ed448 the 32- or 57-byte raw key. Throws CertificateException when the point is
    // empty.
    PublicKeyInfo(unsigned long keySize, const ByteArray& publicPoint, EllipticCurve curve);

    KeyType getType() const noexcept { return type; }

    // Key size in bits as OpenSSL reports it (EVP_PKEY_get_bits).
    std::uint64_t getKeySize() const noexcept { return keySize; }

    // Throw NotRSAKey for an elliptic-curve key.
    ByteArray getRSAPublicExponent() const;
    ByteArray getRSAModulus() const;

    // Throw NotECCKey for an RSA key.
    ByteArray getECCPublicPoint() const;
    EllipticCurve getECCCurve() const;

    bool operator==(const PublicKeyInfo& other) const;
    bool operator!=(const PublicKeyInfo& other) const { return !(*this == other); }

  private:
    KeyType type;
    std::uint64_t keySize;
    ByteArray publicExponent;
    ByteArray modulus;
    ByteArray publicPoint;
    EllipticCurve curve;
};

}  // namespace foundation::certificates
