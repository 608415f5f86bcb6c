#include "support/TestPKCS7.hpp"

#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;
using fc::detail::wrap;

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test PKCS7: ") + what);
}

// A stack that lends the certificates it lists.
using BorrowedStack = std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)>;

BorrowedStack borrow(const std::vector<const X509*>& certificates) {
    BorrowedStack stack(sk_X509_new_null(), [](STACK_OF(X509) * s) { sk_X509_free(s); });
    require(stack != nullptr, "sk_X509_new_null");
    for (const X509* certificate : certificates) {
        require(sk_X509_push(stack.get(), const_cast<X509*>(certificate)) > 0, "sk_X509_push");
    }
    return stack;
}

// Without a BIO the signing or encryption below fails and says so.
fc::BIOUPtr contentBIO(const fc::ByteArray& content) {
    return fc::makeBIOUPtr(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
}

Signer makeSigner(const char* commonName, bool chained, long notBeforeOffset, long notAfterOffset,
                  const char* serialHex) {
    Signer signer;
    signer.key = generateKey(KeyKind::RSA2048);
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", commonName}};
    recipe.key = signer.key.get();
    recipe.issuer = chained ? rsaPKI().intermediate.get() : nullptr;
    recipe.issuerKey = chained ? rsaPKI().intermediateKey.get() : nullptr;
    recipe.notBeforeOffset = notBeforeOffset;
    recipe.notAfterOffset = notAfterOffset;
    recipe.serialHex = serialHex;
    recipe.extensions = {{NID_key_usage, "critical,digitalSignature,nonRepudiation"}};
    signer.certificate = makeCertificate(recipe);
    return signer;
}

}  // namespace

const Signer& chainedSigner() {
    static const Signer signer = makeSigner("Chained Signer", true, -3600, 365 * kDay, "0101");
    return signer;
}

const Signer& expiredSigner() {
    static const Signer signer = makeSigner("Expired Signer", true, -30 * kDay, -kDay, "0103");
    return signer;
}

const Signer& selfSignedSigner() {
    static const Signer signer = makeSigner("Self-Signed Signer", false, -3600, 365 * kDay, "0104");
    return signer;
}

PKCS7Ptr makeCertificateBundle(const std::vector<const X509*>& certificates) {
    PKCS7Ptr pkcs7 = wrap(PKCS7_new());
    require(pkcs7 != nullptr && PKCS7_set_type(pkcs7.get(), NID_pkcs7_signed) == 1 &&
                PKCS7_content_new(pkcs7.get(), NID_pkcs7_data) == 1,
            "signed-data");
    // Certificates only: the inner content is absent, as in the usual bundle files.
    PKCS7_set_detached(pkcs7.get(), 1);
    for (const X509* certificate : certificates) {
        require(PKCS7_add_certificate(pkcs7.get(), const_cast<X509*>(certificate)) == 1,
                "PKCS7_add_certificate");
    }
    return pkcs7;
}

PKCS7Ptr makeSignature(const SignatureRecipe& recipe, const fc::ByteArray& content) {
    require(recipe.signer != nullptr, "a signer is required");
    const BorrowedStack extra = borrow(recipe.extraCertificates);
    int flags = PKCS7_BINARY;
    if (recipe.detached) flags |= PKCS7_DETACHED;
    if (!recipe.withCertificates) flags |= PKCS7_NOCERTS;
    PKCS7Ptr pkcs7 = wrap(PKCS7_sign(recipe.signer->certificate.get(), recipe.signer->key.get(),
                                     extra.get(), contentBIO(content).get(), flags));
    require(pkcs7 != nullptr, "PKCS7_sign");
    return pkcs7;
}

PKCS7Ptr makeDataStructure() {
    PKCS7Ptr pkcs7 = wrap(PKCS7_new());
    require(pkcs7 != nullptr && PKCS7_set_type(pkcs7.get(), NID_pkcs7_data) == 1, "data");
    return pkcs7;
}

PKCS7Ptr makeEnvelopedStructure(const X509* recipient, const fc::ByteArray& content) {
    PKCS7Ptr pkcs7 = wrap(PKCS7_encrypt(borrow({recipient}).get(), contentBIO(content).get(),
                                        EVP_aes_128_cbc(), PKCS7_BINARY));
    require(pkcs7 != nullptr, "PKCS7_encrypt");
    return pkcs7;
}

std::string pkcs7ToPEM(const PKCS7* pkcs7) {
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    require(bio != nullptr && PEM_write_bio_PKCS7(bio.get(), pkcs7) == 1, "PEM writing");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

fc::ByteArray pkcs7ToDER(const PKCS7* pkcs7) {
    unsigned char* der = nullptr;
    const int length = i2d_PKCS7(pkcs7, &der);
    require(length > 0, "DER writing");
    const fc::ByteArray bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

}  // namespace testsupport
