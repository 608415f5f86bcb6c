// The secret part of a private key, described without OpenSSL.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/Types.hpp>

namespace foundation::certificates {

class FOUNDATION_CERTIFICATES_EXPORT PrivateKeyInfo {
  public:
    // An RSA key: its private exponent d. Throws CertificateException when it is empty.
    explicit PrivateKeyInfo(const ByteArray& privateExponent);

    // An elliptic-curve key: for the NIST curves the private integer (a big-endian magnitude),
    // for Ed25519 and Ed448 the 32 or 57 raw private key bytes. Throws CertificateException when
    // the integer is empty.
    PrivateKeyInfo(const ByteArray& privateInteger, EllipticCurve curve);

    PrivateKeyInfo(const PrivateKeyInfo& other);
    PrivateKeyInfo(PrivateKeyInfo&& other) noexcept;
    PrivateKeyInfo& operator=(const PrivateKeyInfo& other);
    PrivateKeyInfo& operator=(PrivateKeyInfo&& other) noexcept;
    // Overwrites the key material before releasing it.
    ~PrivateKeyInfo();

    KeyType getType() const noexcept { return type; }

    // Throws NotRSAKey for an elliptic-curve key.
    ByteArray getRSAPrivateExponent() const;

    // Throw NotECCKey for an RSA key.
    ByteArray getECCPrivateInteger() const;
    EllipticCurve getECCCurve() const;

    bool operator==(const PrivateKeyInfo& other) const;
    bool operator!=(const PrivateKeyInfo& other) const { return !(*this == other); }

  private:
    KeyType type;
    ByteArray eccPrivateInteger;
    ByteArray rsaPrivateExponent;
    EllipticCurve curve;
};

}  // namespace foundation::certificates
