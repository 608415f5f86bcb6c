#include "support/TestPKCS7.hpp"

#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdexcept>
#include <utility>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test PKCS7: ") + what);
}

// A stack that borrows the certificates it lists.
struct BorrowedStack {
    STACK_OF(X509) * stack = sk_X509_new_null();

    explicit BorrowedStack(const std::vector<const X509*>& certificates) {
        require(stack != nullptr, "sk_X509_new_null");
        for (const X509* certificate : certificates) {
            require(sk_X509_push(stack, const_cast<X509*>(certificate)) > 0, "sk_X509_push");
        }
    }
    ~BorrowedStack() { sk_X509_free(stack); }
    BorrowedStack(const BorrowedStack&) = delete;
    BorrowedStack& operator=(const BorrowedStack&) = delete;
};

fc::BIOUPtr contentBIO(const fc::ByteArray& content) {
    fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    require(bio != nullptr, "BIO_new");
    if (!content.empty()) {
        require(BIO_write(bio.get(), content.data(), static_cast<int>(content.size())) ==
                    static_cast<int>(content.size()),
                "BIO_write");
    }
    return bio;
}

Signer makeSigner(const char* commonName, X509* issuer, EVP_PKEY* issuerKey, long notBeforeOffset,
                  long notAfterOffset, const char* serialHex,
                  std::vector<std::pair<int, std::string>> moreExtensions = {}) {
    Signer signer;
    signer.key = generateKey(KeyKind::RSA2048);
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", commonName}};
    recipe.key = signer.key.get();
    recipe.issuer = issuer;
    recipe.issuerKey = issuerKey;
    recipe.notBeforeOffset = notBeforeOffset;
    recipe.notAfterOffset = notAfterOffset;
    recipe.serialHex = serialHex;
    recipe.extensions = {{NID_key_usage, "critical,digitalSignature,nonRepudiation"}};
    recipe.extensions.insert(recipe.extensions.end(), moreExtensions.begin(), moreExtensions.end());
    signer.certificate = makeCertificate(recipe);
    return signer;
}

PKCS7Ptr newStructure(int type) {
    PKCS7Ptr pkcs7 = foundation::certificates::detail::wrap(PKCS7_new());
    require(pkcs7 != nullptr, "PKCS7_new");
    require(PKCS7_set_type(pkcs7.get(), type) == 1, "PKCS7_set_type");
    return pkcs7;
}

void addCertificates(PKCS7* pkcs7, const std::vector<const X509*>& certificates) {
    for (const X509* certificate : certificates) {
        require(PKCS7_add_certificate(pkcs7, const_cast<X509*>(certificate)) == 1,
                "PKCS7_add_certificate");
    }
}

}  // namespace

const Signer& chainedSigner() {
    static const Signer signer =
        makeSigner("Chained Signer", rsaPKI().intermediate.get(), rsaPKI().intermediateKey.get(),
                   -3600, 365 * kDay, "0101");
    return signer;
}

const Signer& directSigner() {
    static const Signer signer = makeSigner("Direct Signer", rsaPKI().root.get(),
                                            rsaPKI().rootKey.get(), -3600, 365 * kDay, "0102");
    return signer;
}

const Signer& expiredSigner() {
    static const Signer signer =
        makeSigner("Expired Signer", rsaPKI().intermediate.get(), rsaPKI().intermediateKey.get(),
                   -30 * kDay, -kDay, "0103");
    return signer;
}

const Signer& selfSignedSigner() {
    static const Signer signer =
        makeSigner("Self-Signed Signer", nullptr, nullptr, -3600, 365 * kDay, "0104");
    return signer;
}

const Signer& tlsServerSigner() {
    static const Signer signer =
        makeSigner("TLS Server Signer", rsaPKI().intermediate.get(), rsaPKI().intermediateKey.get(),
                   -3600, 365 * kDay, "0105", {{NID_ext_key_usage, "serverAuth"}});
    return signer;
}

PKCS7Ptr makeCertificateBundle(const std::vector<const X509*>& certificates) {
    PKCS7Ptr pkcs7 = newStructure(NID_pkcs7_signed);
    require(PKCS7_content_new(pkcs7.get(), NID_pkcs7_data) == 1, "PKCS7_content_new");
    // Certificates only: the inner content is absent, as in the usual bundle files.
    PKCS7_set_detached(pkcs7.get(), 1);
    addCertificates(pkcs7.get(), certificates);
    return pkcs7;
}

PKCS7Ptr makeSignature(const SignatureRecipe& recipe, const fc::ByteArray& content) {
    require(recipe.signer != nullptr, "a signer is required");
    const BorrowedStack extra(recipe.extraCertificates);
    const fc::BIOUPtr data = contentBIO(content);
    int flags = PKCS7_BINARY;
    if (recipe.detached) flags |= PKCS7_DETACHED;
    if (!recipe.withCertificates) flags |= PKCS7_NOCERTS;
    PKCS7Ptr pkcs7 = foundation::certificates::detail::wrap(
        PKCS7_sign(recipe.signer->certificate.get(), recipe.signer->key.get(), extra.stack,
                   data.get(), flags));
    require(pkcs7 != nullptr, "PKCS7_sign");

    if (recipe.alterContent) {
        require(!recipe.detached && !content.empty(), "only attached content can be altered");
        PKCS7* inner = pkcs7->d.sign->contents;
        require(OBJ_obj2nid(inner->type) == NID_pkcs7_data && inner->d.data != nullptr,
                "attached content");
        ASN1_OCTET_STRING* attached = inner->d.data;
        fc::ByteArray altered(ASN1_STRING_get0_data(attached),
                              ASN1_STRING_get0_data(attached) + ASN1_STRING_length(attached));
        altered[0] ^= 0x01;
        require(
            ASN1_OCTET_STRING_set(attached, altered.data(), static_cast<int>(altered.size())) == 1,
            "altering content");
    }
    return pkcs7;
}

PKCS7Ptr makeDataStructure(const fc::ByteArray& content) {
    PKCS7Ptr pkcs7 = newStructure(NID_pkcs7_data);
    require(
        ASN1_OCTET_STRING_set(pkcs7->d.data, content.data(), static_cast<int>(content.size())) == 1,
        "data content");
    return pkcs7;
}

PKCS7Ptr makeEnvelopedStructure(const X509* recipient, const fc::ByteArray& content) {
    const BorrowedStack recipients({recipient});
    const fc::BIOUPtr data = contentBIO(content);
    PKCS7Ptr pkcs7 = foundation::certificates::detail::wrap(
        PKCS7_encrypt(recipients.stack, data.get(), EVP_aes_128_cbc(), PKCS7_BINARY));
    require(pkcs7 != nullptr, "PKCS7_encrypt");
    return pkcs7;
}

PKCS7Ptr makeSignedAndEnvelopedBundle(const std::vector<const X509*>& certificates) {
    PKCS7Ptr pkcs7 = newStructure(NID_pkcs7_signedAndEnveloped);
    require(X509_ALGOR_set0(pkcs7->d.signed_and_enveloped->enc_data->algorithm,
                            OBJ_nid2obj(NID_aes_128_cbc), V_ASN1_UNDEF, nullptr) == 1,
            "content encryption algorithm");
    addCertificates(pkcs7.get(), certificates);
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
    const int length = i2d_PKCS7(pkcs7, nullptr);
    require(length > 0, "DER length");
    fc::ByteArray bytes(static_cast<std::size_t>(length));
    unsigned char* out = bytes.data();
    require(i2d_PKCS7(pkcs7, &out) == length, "DER writing");
    return bytes;
}

}  // namespace testsupport
