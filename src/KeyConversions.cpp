#include <foundation/certificates/KeyConversions.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/core_names.h>

#include <atomic>
#include <cstring>
#include <string>

namespace foundation::certificates {

namespace {

std::atomic<KeyAcceptance> keyAcceptance{KeyAcceptance::Standard};

bool extended() { return getKeyAcceptance() == KeyAcceptance::Extended; }

void throwIfNullKey(const EVP_PKEY* key) {
    if (key == nullptr) {
        throw CertificateException("Failed to sanity check EVP_PKEY. Argument is nullptr");
    }
}

}  // namespace

void setKeyAcceptance(KeyAcceptance acceptance) {
    keyAcceptance.store(acceptance, std::memory_order_release);
}

KeyAcceptance getKeyAcceptance() { return keyAcceptance.load(std::memory_order_acquire); }

KeyType getKeyType(const EVP_PKEY* key) {
    throwIfNullKey(key);
    const int id = EVP_PKEY_get_base_id(key);
    switch (id) {
        case EVP_PKEY_RSA:
            return KeyType::RSA;
        case EVP_PKEY_EC:
        case EVP_PKEY_ED25519:
            return KeyType::ECC;
        case EVP_PKEY_ED448:
            if (extended()) return KeyType::ECC;
            throw UnsupportedEllipticCurve("Key uses Ed448, which is not currently supported");
        default:
            throw UnsupportedKeyType("Key is not currently supported. OpenSSL type id: " +
                                     std::to_string(id));
    }
}

EllipticCurve getEllipticCurve(const EVP_PKEY* key) {
    throwIfNullKey(key);
    if (getKeyType(key) != KeyType::ECC) {
        throw CertificateException("Expected the EVP_PKEY to be ECC-based. It is not.");
    }
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_ED25519) return EllipticCurve::Ed25519;
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_ED448) return EllipticCurve::Ed448;

    OSSL_PARAM* rawParams = nullptr;
    if (EVP_PKEY_todata(key, EVP_PKEY_PUBLIC_KEY, &rawParams) != 1) {
        throw CertificateException("Could not extract public key information from EVP_PKEY");
    }
    const OSSL_PARAMUPtr params = makeOSSL_PARAMUPtr(rawParams);
    const OSSL_PARAM* group = OSSL_PARAM_locate(params.get(), OSSL_PKEY_PARAM_GROUP_NAME);
    if (group == nullptr) {
        throw CertificateException(
            "Expected EVP_PKEY to have group parameter since it's an EVP_PKEY_EC");
    }
    const char* name = nullptr;
    if (OSSL_PARAM_get_utf8_string_ptr(group, &name) != 1 || name == nullptr) name = "";
    if (std::strcmp(name, "prime256v1") == 0) return EllipticCurve::Prime256v1;
    if (extended() && std::strcmp(name, "secp384r1") == 0) return EllipticCurve::Secp384r1;
    if (extended() && std::strcmp(name, "secp521r1") == 0) return EllipticCurve::Secp521r1;
    throw UnsupportedEllipticCurve("ECC-based key is not using supported ECC Curve. Curve: " +
                                   std::string(name));
}

ByteArray bnToByteArray(const BIGNUM* number) {
    if (number == nullptr) {
        throw CertificateException("Failed to convert BIGNUM to ByteArray. Argument is nullptr.");
    }
    const int expected = (BN_num_bits(number) + 7) / 8;
    ByteArray bytes(static_cast<std::size_t>(expected), 0);
    const int written = BN_bn2bin(number, bytes.data());
    if (written < 0 || written != expected) {
        throw CertificateException(
            "Wrote " + std::to_string(written) +
            " bytes from BIGNUM to ByteArray. Expected: " + std::to_string(expected));
    }
    return bytes;
}

EC_POINTUPtr ByteArrayToEC_POINT(const ByteArray& bytes, const EC_GROUP* group) {
    if (group == nullptr) {
        throw CertificateException("Failed to create EC_POINT from ByteArray. Argument is nullptr");
    }
    const BN_CTXUPtr context = makeBN_CTXUPtr(BN_CTX_new());
    EC_POINTUPtr point = makeEC_POINTUPtr(EC_POINT_new(group));
    if (EC_POINT_oct2point(group, point.get(), bytes.data(), bytes.size(), context.get()) != 1) {
        throw CertificateException("Failed to convert point from bytes to an EC_POINT");
    }
    return point;
}

ByteArray EC_POINTToByteArray(const EC_POINT* point, const EC_GROUP* group) {
    if (point == nullptr || group == nullptr) {
        throw CertificateException(
            "Failed to create ByteArray from EC_POINT. Argument(s) are nullptr");
    }
    const BN_CTXUPtr context = makeBN_CTXUPtr(BN_CTX_new());
    const std::size_t length =
        EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, context.get());
    if (length == 0) {
        throw CertificateException("Failed to get number of bytes to store public point");
    }
    ByteArray bytes(length, 0);
    if (EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, bytes.data(), bytes.size(),
                           context.get()) == 0) {
        throw CertificateException("Failed to convert EC_POINT to ByteArray");
    }
    return bytes;
}

}  // namespace foundation::certificates
