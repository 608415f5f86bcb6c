#include <foundation/certificates/PublicKeyInfo.hpp>

#include <foundation/certificates/Exceptions.hpp>

namespace foundation::certificates {

PublicKeyInfo::PublicKeyInfo(unsigned long keySize, const ByteArray& publicExponent,
                             const ByteArray& modulus)
    : type(KeyType::RSA),
      keySize(keySize),
      publicExponent(publicExponent),
      modulus(modulus),
      curve(static_cast<EllipticCurve>(0)) {
    if (this->publicExponent.empty()) {
        throw CertificateException("Empty public exponent in public key");
    }
    if (this->modulus.empty()) throw CertificateException("Empty modulus in public key");
}

PublicKeyInfo::PublicKeyInfo(unsigned long keySize, const ByteArray& publicPoint,
                             EllipticCurve curve)
    : type(KeyType::ECC), keySize(keySize), publicPoint(publicPoint), curve(curve) {
    if (this->publicPoint.empty()) throw CertificateException("Empty public point in public key");
}

ByteArray PublicKeyInfo::getRSAPublicExponent() const {
    if (type != KeyType::RSA) {
        throw NotRSAKey("Cannot get the public exponent from the key because it is not an RSA key");
    }
    return publicExponent;
}

ByteArray PublicKeyInfo::getRSAModulus() const {
    if (type != KeyType::RSA) {
        throw NotRSAKey("Cannot get the modulus from the key because it is not an RSA key");
    }
    return modulus;
}

ByteArray PublicKeyInfo::getECCPublicPoint() const {
    if (type != KeyType::ECC) {
        throw NotECCKey("Cannot get the public point from the key because it is not an ECC key");
    }
    return publicPoint;
}

EllipticCurve PublicKeyInfo::getECCCurve() const {
    if (type != KeyType::ECC) {
        throw NotECCKey("Cannot get the elliptic curve from the key because it is not an ECC key");
    }
    return curve;
}

bool PublicKeyInfo::operator==(const PublicKeyInfo& other) const {
    if (type != other.type || keySize != other.keySize) return false;
    if (type == KeyType::RSA) {
        return publicExponent == other.publicExponent && modulus == other.modulus;
    }
    return publicPoint == other.publicPoint && curve == other.curve;
}

}  // namespace foundation::certificates
