#include "support/TestPKCS12.hpp"

#include "OpenSSLPtr.hpp"
#include "support/TestCertificates.hpp"

#include <openssl/pkcs12.h>
#include <openssl/provider.h>

#include <memory>
#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

constexpr int kIterations = 2048;

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test PKCS#12: ") + what);
}

// Legacy ciphers come from a private library context, so only the library under test loads the
// legacy provider into the process's default context.
struct LegacyContext {
    OSSL_LIB_CTX* context = OSSL_LIB_CTX_new();
    OSSL_PROVIDER* base = OSSL_PROVIDER_load(context, "default");
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(context, "legacy");
    ~LegacyContext() {
        OSSL_PROVIDER_unload(legacy);
        OSSL_PROVIDER_unload(base);
        OSSL_LIB_CTX_free(context);
    }
};

using SafeBags = fc::detail::OpenSSLPtr<STACK_OF(PKCS12_SAFEBAG)>;
using Parts = fc::detail::OpenSSLPtr<STACK_OF(PKCS7)>;

bool laidOutByHand(const PKCS12Iterations& counts) {
    return counts.mac != 0 || counts.encryptedPart != 0 || counts.key != 0 ||
           counts.keyInEncryptedPart;
}

// What PKCS12_create does with OpenSSL 3.0's default algorithms, one count per derivation.
PKCS12* layOut(const PKCS12Recipe& recipe) {
    const PKCS12Iterations& counts = recipe.iterations;
    const char* passphrase = recipe.passphrase.c_str();
    const auto orDefault = [](int count) { return count != 0 ? count : PKCS12_DEFAULT_ITER; };

    SafeBags encrypted(sk_PKCS12_SAFEBAG_new_null());
    SafeBags plain(sk_PKCS12_SAFEBAG_new_null());
    require(encrypted && plain, "bag stacks");
    STACK_OF(PKCS12_SAFEBAG)* rawEncrypted = encrypted.get();
    STACK_OF(PKCS12_SAFEBAG)* rawPlain = plain.get();
    if (recipe.certificate != nullptr) {
        require(PKCS12_add_cert(&rawEncrypted, recipe.certificate) != nullptr, "certificate bag");
    }
    for (X509* ca : recipe.caChain) {
        require(PKCS12_add_cert(&rawEncrypted, ca) != nullptr, "certificate bag");
    }
    if (recipe.key != nullptr) {
        require(PKCS12_add_key(counts.keyInEncryptedPart ? &rawEncrypted : &rawPlain, recipe.key, 0,
                               orDefault(counts.key), NID_aes_256_cbc, passphrase) != nullptr,
                "key bag");
    }

    Parts parts(sk_PKCS7_new_null());
    require(parts != nullptr, "part stack");
    STACK_OF(PKCS7)* rawParts = parts.get();
    if (sk_PKCS12_SAFEBAG_num(encrypted.get()) > 0) {
        require(PKCS12_add_safe(&rawParts, encrypted.get(), NID_aes_256_cbc,
                                orDefault(counts.encryptedPart), passphrase) == 1,
                "encrypted part");
    }
    if (sk_PKCS12_SAFEBAG_num(plain.get()) > 0) {
        require(PKCS12_add_safe(&rawParts, plain.get(), -1, 0, passphrase) == 1, "plain part");
    }
    PKCS12* p12 = PKCS12_add_safes(parts.get(), 0);
    require(p12 != nullptr, "PKCS12_add_safes");
    if (recipe.mac &&
        PKCS12_set_mac(p12, passphrase, -1, nullptr, 0, orDefault(counts.mac), nullptr) != 1) {
        PKCS12_free(p12);
        require(false, "MAC");
    }
    return p12;
}

fc::ByteArray toDER(const PKCS12* p12) {
    unsigned char* der = nullptr;
    const int length = i2d_PKCS12(p12, &der);
    require(length > 0, "DER writing");
    const fc::ByteArray bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

}  // namespace

fc::ByteArray makePKCS12(const PKCS12Recipe& recipe) {
    // The stack only lends the caller's certificates.
    std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> cas(
        sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
    require(cas != nullptr, "stack");
    for (X509* ca : recipe.caChain) require(sk_X509_push(cas.get(), ca) > 0, "stack push");

    const char* passphrase = recipe.passphrase.c_str();
    std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(nullptr, PKCS12_free);
    if (recipe.algorithms == PKCS12Algorithms::Default && laidOutByHand(recipe.iterations)) {
        p12.reset(layOut(recipe));
    } else if (recipe.algorithms == PKCS12Algorithms::Default) {
        p12.reset(PKCS12_create(passphrase, "test", recipe.key, recipe.certificate, cas.get(), 0, 0,
                                0, recipe.mac ? 0 : -1, 0));
    } else {
        static const LegacyContext legacy;
        require(legacy.base != nullptr && legacy.legacy != nullptr, "legacy providers");
        p12.reset(PKCS12_create_ex(passphrase, "test", recipe.key, recipe.certificate, cas.get(),
                                   NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                   NID_pbe_WithSHA1And40BitRC2_CBC, kIterations, -1, 0,
                                   legacy.context, nullptr));
        require(p12 == nullptr || !recipe.mac ||
                    PKCS12_set_mac(p12.get(), passphrase, -1, nullptr, 0,
                                   recipe.iterations.mac != 0 ? recipe.iterations.mac : kIterations,
                                   EVP_sha1()) == 1,
                "SHA-1 MAC");
    }
    require(p12 != nullptr, "PKCS12_create");
    return toDER(p12.get());
}

fc::ByteArray withMACIterations(const fc::ByteArray& der, long iterations) {
    const unsigned char* cursor = der.data();
    const fc::detail::OpenSSLPtr<PKCS12> p12 =
        fc::detail::wrap(d2i_PKCS12(nullptr, &cursor, static_cast<long>(der.size())));
    require(p12 != nullptr, "DER reading");
    const ASN1_INTEGER* count = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, p12.get());
    // OpenSSL hands out the MAC's fields read-only; the count is rewritten in place all the same.
    require(count != nullptr && ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), iterations) == 1,
            "MAC count");
    return toDER(p12.get());
}

fc::X509UPtr selfSignedFor(EVP_PKEY* key) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", "PKCS12 Test"}};
    recipe.key = key;
    return makeCertificate(recipe);
}

}  // namespace testsupport
