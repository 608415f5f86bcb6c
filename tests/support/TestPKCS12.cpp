#include "support/TestPKCS12.hpp"

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

}  // namespace

fc::ByteArray makePKCS12(const PKCS12Recipe& recipe) {
    // The stack only lends the caller's certificates.
    std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> cas(
        sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
    require(cas != nullptr, "stack");
    for (X509* ca : recipe.caChain) require(sk_X509_push(cas.get(), ca) > 0, "stack push");

    const char* passphrase = recipe.passphrase.c_str();
    std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(nullptr, PKCS12_free);
    if (recipe.algorithms == PKCS12Algorithms::Default) {
        p12.reset(PKCS12_create(passphrase, "test", recipe.key, recipe.certificate, cas.get(), 0, 0,
                                0, recipe.mac ? 0 : -1, 0));
    } else {
        static const LegacyContext legacy;
        require(legacy.base != nullptr && legacy.legacy != nullptr, "legacy providers");
        p12.reset(PKCS12_create_ex(passphrase, "test", recipe.key, recipe.certificate, cas.get(),
                                   NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                   NID_pbe_WithSHA1And40BitRC2_CBC, kIterations, -1, 0,
                                   legacy.context, nullptr));
        require(
            p12 == nullptr || !recipe.mac ||
                PKCS12_set_mac(p12.get(), passphrase, -1, nullptr, 0, kIterations, EVP_sha1()) == 1,
            "SHA-1 MAC");
    }
    require(p12 != nullptr, "PKCS12_create");

    unsigned char* der = nullptr;
    const int length = i2d_PKCS12(p12.get(), &der);
    require(length > 0, "DER writing");
    const fc::ByteArray bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

fc::X509UPtr selfSignedFor(EVP_PKEY* key) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", "PKCS12 Test"}};
    recipe.key = key;
    return makeCertificate(recipe);
}

}  // namespace testsupport
