#include "PKCS12IterationLimit.hpp"

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>

#include <openssl/objects.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <atomic>
#include <limits>

namespace foundation::certificates {

namespace {

std::atomic<std::uint64_t> maximumIterations{0};

constexpr std::uint64_t kUnbounded = std::numeric_limits<std::uint64_t>::max();

// Negative counts give OpenSSL a single round; counts wider than 64 bits saturate.
std::uint64_t countOf(const ASN1_INTEGER* integer) {
    if (integer == nullptr || ASN1_STRING_type(integer) == V_ASN1_NEG_INTEGER) return 0;
    std::uint64_t value = 0;
    return ASN1_INTEGER_get_uint64(&value, integer) == 1 ? value : kUnbounded;
}

std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b) {
    return b != 0 && a > kUnbounded / b ? kUnbounded : a * b;
}

template <typename T>
detail::OpenSSLPtr<T> unpack(const ASN1_ITEM* item, const ASN1_TYPE* parameter) {
    if (parameter == nullptr) return nullptr;
    return detail::wrap(static_cast<T*>(ASN1_TYPE_unpack_sequence(item, parameter)));
}

// The rounds a password-based algorithm's key derivation runs; 0 when it names none that
// OpenSSL would run. For scrypt that is N * r * p, the block mixes it performs.
std::uint64_t derivationRounds(const X509_ALGOR* algorithm) {
    if (algorithm == nullptr) return 0;
    if (OBJ_obj2nid(algorithm->algorithm) != NID_pbes2) {
        const auto pbe = unpack<PBEPARAM>(ASN1_ITEM_rptr(PBEPARAM), algorithm->parameter);
        return pbe ? countOf(pbe->iter) : 0;
    }
    const auto pbes2 = unpack<PBE2PARAM>(ASN1_ITEM_rptr(PBE2PARAM), algorithm->parameter);
    if (!pbes2 || pbes2->keyfunc == nullptr) return 0;
    const X509_ALGOR* kdf = pbes2->keyfunc;
    switch (OBJ_obj2nid(kdf->algorithm)) {
        case NID_id_pbkdf2: {
            const auto pbkdf2 = unpack<PBKDF2PARAM>(ASN1_ITEM_rptr(PBKDF2PARAM), kdf->parameter);
            return pbkdf2 ? countOf(pbkdf2->iter) : 0;
        }
        case NID_id_scrypt: {
            const auto scrypt =
                unpack<SCRYPT_PARAMS>(ASN1_ITEM_rptr(SCRYPT_PARAMS), kdf->parameter);
            if (!scrypt) return 0;
            return saturatingProduct(
                saturatingProduct(countOf(scrypt->costParameter), countOf(scrypt->blockSize)),
                countOf(scrypt->parallelizationParameter));
        }
        default:
            return 0;
    }
}

void enforce(std::uint64_t count, std::uint64_t limit) {
    if (count > limit) {
        throw PKCS12CertificateException("Error: PKCS12 certificate iteration count " +
                                         std::to_string(count) + " exceeds the limit of " +
                                         std::to_string(limit) + ".");
    }
}

// Bag sets nest, so shrouded keys are looked for at every depth; OpenSSL's decoder bounds it.
void checkBags(const STACK_OF(PKCS12_SAFEBAG) * bags, std::uint64_t limit) {
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, i);
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
            case NID_pkcs8ShroudedKeyBag:
                if (const X509_SIG* shrouded = PKCS12_SAFEBAG_get0_pkcs8(bag)) {
                    const X509_ALGOR* algorithm = nullptr;
                    X509_SIG_get0(shrouded, &algorithm, nullptr);
                    enforce(derivationRounds(algorithm), limit);
                }
                break;
            case NID_safeContentsBag:
                checkBags(PKCS12_SAFEBAG_get0_safes(bag), limit);
                break;
            default:
                break;
        }
    }
}

const X509_ALGOR* encryptionOf(const PKCS7* part) {
    if (!PKCS7_type_is_encrypted(part) || part->d.encrypted == nullptr ||
        part->d.encrypted->enc_data == nullptr) {
        return nullptr;
    }
    return part->d.encrypted->enc_data->algorithm;
}

}  // namespace

void setMaximumPKCS12Iterations(std::uint64_t maximum) noexcept { maximumIterations = maximum; }

std::uint64_t getMaximumPKCS12Iterations() noexcept { return maximumIterations; }

namespace detail {

// A malformed part is skipped rather than refused: opening it fails later with OpenSSL's own
// reason, which the errors raised here must not displace.
void checkVisiblePKCS12Iterations(const PKCS12& container, std::uint64_t limit) {
    if (limit == 0) return;
    const ScopedErrorQueueMark errors;
    if (PKCS12_mac_present(&container)) {
        const ASN1_INTEGER* iterations = nullptr;
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, &container);
        enforce(iterations == nullptr ? 1 : countOf(iterations), limit);
    }
    const auto parts = wrap(PKCS12_unpack_authsafes(&container));
    for (int i = 0; i < sk_PKCS7_num(parts.get()); ++i) {
        PKCS7* part = sk_PKCS7_value(parts.get(), i);
        if (PKCS7_type_is_data(part)) {
            const auto bags = wrap(PKCS12_unpack_p7data(part));
            checkBags(bags.get(), limit);
        } else {
            enforce(derivationRounds(encryptionOf(part)), limit);
        }
    }
}

void checkEncryptedPKCS12Iterations(const PKCS12& container, const std::string& passphrase,
                                    std::uint64_t limit) {
    if (limit == 0) return;
    const ScopedErrorQueueMark errors;
    const auto parts = wrap(PKCS12_unpack_authsafes(&container));
    for (int i = 0; i < sk_PKCS7_num(parts.get()); ++i) {
        PKCS7* part = sk_PKCS7_value(parts.get(), i);
        if (encryptionOf(part) == nullptr) continue;
        const auto bags = wrap(
            PKCS12_unpack_p7encdata(part, passphrase.c_str(), static_cast<int>(passphrase.size())));
        checkBags(bags.get(), limit);
    }
}

}  // namespace detail

}  // namespace foundation::certificates
