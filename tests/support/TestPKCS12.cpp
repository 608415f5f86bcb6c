#include "support/TestPKCS12.hpp"

#include "support/TestCertificates.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>

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

// Legacy ciphers come from a private library context, so the process's default context never
// gets the legacy provider from here: only the library under test loads it there.
class LegacyContext {
  public:
    LegacyContext() {
        require(context != nullptr, "library context");
        defaultProvider = OSSL_PROVIDER_load(context.get(), "default");
        legacyProvider = OSSL_PROVIDER_load(context.get(), "legacy");
        require(defaultProvider != nullptr && legacyProvider != nullptr, "providers");
    }
    LegacyContext(const LegacyContext&) = delete;
    LegacyContext& operator=(const LegacyContext&) = delete;
    ~LegacyContext() {
        OSSL_PROVIDER_unload(legacyProvider);
        OSSL_PROVIDER_unload(defaultProvider);
    }
    OSSL_LIB_CTX* get() const { return context.get(); }

  private:
    std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> context{OSSL_LIB_CTX_new(),
                                                                        OSSL_LIB_CTX_free};
    OSSL_PROVIDER* defaultProvider = nullptr;
    OSSL_PROVIDER* legacyProvider = nullptr;
};

}  // namespace

const char* algorithmsName(PKCS12Algorithms algorithms) {
    return algorithms == PKCS12Algorithms::Default ? "Default" : "Legacy";
}

fc::ByteArray makePKCS12(const PKCS12Recipe& recipe) {
    // The stack only lends the caller's certificates to PKCS12_create.
    struct FreeStackOnly {
        void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
    };
    std::unique_ptr<STACK_OF(X509), FreeStackOnly> cas(sk_X509_new_null());
    require(cas != nullptr, "stack");
    for (X509* ca : recipe.caChain) require(sk_X509_push(cas.get(), ca) > 0, "stack push");

    const char* passphrase = recipe.passphrase.c_str();
    std::unique_ptr<LegacyContext> legacy;  // outlives the container made in it
    std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(nullptr, PKCS12_free);
    if (recipe.algorithms == PKCS12Algorithms::Default) {
        p12.reset(PKCS12_create(passphrase, "test", recipe.key, recipe.certificate, cas.get(), 0, 0,
                                0, recipe.mac ? 0 : -1, 0));
    } else {
        legacy = std::make_unique<LegacyContext>();
        p12.reset(PKCS12_create_ex(passphrase, "test", recipe.key, recipe.certificate, cas.get(),
                                   NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                   NID_pbe_WithSHA1And40BitRC2_CBC, kIterations, -1, 0,
                                   legacy->get(), nullptr));
        require(p12 != nullptr, "PKCS12_create_ex");
        if (recipe.mac) {
            require(
                PKCS12_set_mac(p12.get(), passphrase, -1, nullptr, 0, kIterations, EVP_sha1()) == 1,
                "SHA-1 MAC");
        }
    }
    require(p12 != nullptr, "PKCS12_create");

    const int length = i2d_PKCS12(p12.get(), nullptr);
    require(length > 0, "DER length");
    fc::ByteArray der(static_cast<std::size_t>(length));
    unsigned char* out = der.data();
    require(i2d_PKCS12(p12.get(), &out) == length, "DER writing");
    return der;
}

fc::X509UPtr selfSignedFor(EVP_PKEY* key) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", "PKCS12 Test"}};
    recipe.key = key;
    return makeCertificate(recipe);
}

}  // namespace testsupport
