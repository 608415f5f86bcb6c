#include "support/TestKeys.hpp"

#include <openssl/crypto.h>
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <map>
#include <mutex>
#include <stdexcept>

namespace testsupport {

using foundation::certificates::EVP_PKEYUPtr;
using foundation::certificates::makeEVP_PKEYUPtr;

namespace {

EVP_PKEYUPtr checked(EVP_PKEY* key, const char* what) {
    if (key == nullptr) throw std::runtime_error(std::string("key generation failed: ") + what);
    return makeEVP_PKEYUPtr(key);
}

EVP_PKEYUPtr generateDsa() {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> paramContext(
        EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* params = nullptr;
    if (!paramContext || EVP_PKEY_paramgen_init(paramContext.get()) != 1 ||
        EVP_PKEY_CTX_set_dsa_paramgen_bits(paramContext.get(), 1024) != 1 ||
        EVP_PKEY_CTX_set_dsa_paramgen_q_bits(paramContext.get(), 160) != 1 ||
        EVP_PKEY_paramgen(paramContext.get(), &params) != 1) {
        throw std::runtime_error("DSA parameter generation failed");
    }
    const EVP_PKEYUPtr parameters = makeEVP_PKEYUPtr(params);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> keyContext(
        EVP_PKEY_CTX_new_from_pkey(nullptr, parameters.get(), nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    if (!keyContext || EVP_PKEY_keygen_init(keyContext.get()) != 1 ||
        EVP_PKEY_keygen(keyContext.get(), &key) != 1) {
        throw std::runtime_error("DSA key generation failed");
    }
    return makeEVP_PKEYUPtr(key);
}

EVP_PKEYUPtr generateWithContext(const char* algorithm, int rsaBits) {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, algorithm, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), rsaBits) != 1 ||
        EVP_PKEY_keygen(context.get(), &key) != 1) {
        throw std::runtime_error(std::string("key generation failed: ") + algorithm);
    }
    return makeEVP_PKEYUPtr(key);
}

}  // namespace

const char* keyKindName(KeyKind kind) {
    switch (kind) {
        case KeyKind::RSA512:
            return "RSA512";
        case KeyKind::RSA1023:
            return "RSA1023";
        case KeyKind::RSA1024:
            return "RSA1024";
        case KeyKind::RSA2048:
            return "RSA2048";
        case KeyKind::RSAPSS:
            return "RSAPSS";
        case KeyKind::P256:
            return "P256";
        case KeyKind::P384:
            return "P384";
        case KeyKind::P521:
            return "P521";
        case KeyKind::Secp256k1:
            return "Secp256k1";
        case KeyKind::Ed25519:
            return "Ed25519";
        case KeyKind::Ed448:
            return "Ed448";
        case KeyKind::X25519:
            return "X25519";
        case KeyKind::DSA:
            return "DSA";
    }
    return "?";
}

EVP_PKEYUPtr generateKey(KeyKind kind) {
    switch (kind) {
        case KeyKind::RSA512:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{512}), "RSA512");
        case KeyKind::RSA1023:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1023}), "RSA1023");
        case KeyKind::RSA1024:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}), "RSA1024");
        case KeyKind::RSA2048:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}), "RSA2048");
        case KeyKind::RSAPSS:
            return generateWithContext("RSA-PSS", 1024);
        case KeyKind::P256:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "prime256v1"), "P-256");
        case KeyKind::P384:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp384r1"), "P-384");
        case KeyKind::P521:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp521r1"), "P-521");
        case KeyKind::Secp256k1:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp256k1"), "secp256k1");
        case KeyKind::Ed25519:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), "Ed25519");
        case KeyKind::Ed448:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"), "Ed448");
        case KeyKind::X25519:
            return checked(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"), "X25519");
        case KeyKind::DSA:
            return generateDsa();
    }
    throw std::logic_error("unknown key kind");
}

EVP_PKEY* sharedKey(KeyKind kind) {
    // OpenSSL registers its own clean-up at exit when initialised; doing that before the map
    // exists makes the map's destructor run first, while OpenSSL is still usable.
    [[maybe_unused]] static const bool initialised = OPENSSL_init_crypto(0, nullptr) == 1;
    static std::mutex mutex;
    static std::map<KeyKind, EVP_PKEYUPtr> keys;
    const std::lock_guard<std::mutex> lock(mutex);
    auto it = keys.find(kind);
    if (it == keys.end()) it = keys.emplace(kind, generateKey(kind)).first;
    return it->second.get();
}

ScopedKeyAcceptance::ScopedKeyAcceptance(foundation::certificates::KeyAcceptance acceptance)
    : previous(foundation::certificates::getKeyAcceptance()) {
    foundation::certificates::setKeyAcceptance(acceptance);
}

ScopedKeyAcceptance::~ScopedKeyAcceptance() {
    foundation::certificates::setKeyAcceptance(previous);
}

}  // namespace testsupport
