// Arbitrary bytes and passphrases into the PKCS#12 loader. Input: one byte giving the passphrase
// length, the passphrase, then the container. Only the library's exceptions may come out, the
// OpenSSL error queue must be empty after every load, and an opened container must answer every
// accessor.
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>

#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>

namespace fc = foundation::certificates;

namespace {

// Key derivation runs as many rounds as the data asks for; a mutated count would make single
// runs take minutes without reaching any new code. The MAC count is screened here, independently
// of the library; the library's own bound then covers the encrypted parts and keys behind it.
constexpr long kMaxMACIterations = 4096;

bool tooCostly(const fc::ByteArray& der) {
    const unsigned char* cursor = der.data();
    PKCS12* p12 = d2i_PKCS12(nullptr, &cursor, static_cast<long>(der.size()));
    bool costly = false;
    if (p12 != nullptr) {
        const ASN1_INTEGER* iterations = nullptr;
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, p12);
        costly = iterations != nullptr && ASN1_INTEGER_get(iterations) > kMaxMACIterations;
        PKCS12_free(p12);
    }
    ERR_clear_error();
    return costly;
}

void exercise(const fc::PKCS12Certificate& container) {
    if (container.empty() || container.getAsBytes().empty()) std::abort();

    const fc::X509Certificate certificate = container.getCertificate();
    const fc::X509CertificateChain chain = container.getCAChain();
    std::ostringstream sink;
    for (const fc::X509Certificate& ca : chain.getCertificates()) {
        sink << ca.getSHA256Fingerprint() << ca.getPublicKeyInfo().getKeySize();
    }

    const auto key = container.getPrivateKeyInfo();
    if (key && key->getType() == fc::KeyType::RSA) {
        if (container.getPrivateExponent() != key->getRSAPrivateExponent()) std::abort();
    } else if (key) {
        sink << key->getECCPrivateInteger().size() << static_cast<int>(key->getECCCurve());
        try {
            container.getPrivateExponent();
            std::abort();
        } catch (const fc::NotRSAKey&) {
        }
    } else if (!container.getPrivateExponent().empty()) {
        std::abort();
    }

    // Printing and comparing need the key's certificate.
    if (!certificate.empty()) {
        sink << certificate.getSubjectName() << container;
        const fc::PKCS12Certificate copy(container);
        if (copy != container) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t passphraseLength = std::min<std::size_t>(data[0], size - 1);
    const std::string passphrase(reinterpret_cast<const char*>(data + 1), passphraseLength);
    const fc::ByteArray der(data + 1 + passphraseLength, data + size);
    if (tooCostly(der)) return 0;
    static const bool bounded = (fc::setMaximumPKCS12Iterations(kMaxMACIterations), true);
    static_cast<void>(bounded);
    try {
        const fc::PKCS12Certificate container(der, passphrase);
        if (ERR_peek_error() != 0) std::abort();
        exercise(container);
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
