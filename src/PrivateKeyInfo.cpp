#include <foundation/certificates/PrivateKeyInfo.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/crypto.h>

#include <utility>

namespace foundation::certificates {

namespace {

void wipe(ByteArray& bytes) noexcept {
    OPENSSL_cleanse(bytes.data(), bytes.size());
    bytes.clear();
}

}  // namespace

PrivateKeyInfo::PrivateKeyInfo(const ByteArray& privateExponent)
    : type(KeyType::RSA),
      rsaPrivateExponent(privateExponent),
      curve(static_cast<EllipticCurve>(0)) {
    if (rsaPrivateExponent.empty()) {
        throw CertificateException("Empty private exponent in private key.");
    }
}

PrivateKeyInfo::PrivateKeyInfo(const ByteArray& privateInteger, EllipticCurve curve)
    : type(KeyType::ECC), eccPrivateInteger(privateInteger), curve(curve) {
    if (eccPrivateInteger.empty())
        throw CertificateException("Empty private integer in private key.");
}

PrivateKeyInfo::PrivateKeyInfo(const PrivateKeyInfo& other) = default;

PrivateKeyInfo::PrivateKeyInfo(PrivateKeyInfo&& other) noexcept
    : type(other.type),
      eccPrivateInteger(std::move(other.eccPrivateInteger)),
      rsaPrivateExponent(std::move(other.rsaPrivateExponent)),
      curve(other.curve) {}

PrivateKeyInfo& PrivateKeyInfo::operator=(const PrivateKeyInfo& other) {
    if (this != &other) {
        // Assigning into the old buffers could leave a longer old key's tail behind.
        PrivateKeyInfo copy(other);
        *this = std::move(copy);
    }
    return *this;
}

PrivateKeyInfo& PrivateKeyInfo::operator=(PrivateKeyInfo&& other) noexcept {
    if (this != &other) {
        wipe(eccPrivateInteger);
        wipe(rsaPrivateExponent);
        type = other.type;
        eccPrivateInteger = std::move(other.eccPrivateInteger);
        rsaPrivateExponent = std::move(other.rsaPrivateExponent);
        curve = other.curve;
    }
    return *this;
}

PrivateKeyInfo::~PrivateKeyInfo() {
    wipe(eccPrivateInteger);
    wipe(rsaPrivateExponent);
}

ByteArray PrivateKeyInfo::getRSAPrivateExponent() const {
    if (type != KeyType::RSA) {
        throw NotRSAKey(
            "Cannot get the private exponent from the key because it is not an RSA key.");
    }
    return rsaPrivateExponent;
}

ByteArray PrivateKeyInfo::getECCPrivateInteger() const {
    if (type != KeyType::ECC) {
        throw NotECCKey(
            "Cannot get the private integer from the key because it is not an ECC key.");
    }
    return eccPrivateInteger;
}

EllipticCurve PrivateKeyInfo::getECCCurve() const {
    if (type != KeyType::ECC) {
        throw NotECCKey("Cannot get the elliptic curve from the key because it is not an ECC key.");
    }
    return curve;
}

bool PrivateKeyInfo::operator==(const PrivateKeyInfo& other) const {
    if (type != other.type) return false;
    if (type == KeyType::RSA) return rsaPrivateExponent == other.rsaPrivateExponent;
    return eccPrivateInteger == other.eccPrivateInteger && curve == other.curve;
}

}  // namespace foundation::certificates
