#include "support/TestCertificates.hpp"

#include "support/TestKeys.hpp"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test certificate: ") + what);
}

void setTime(ASN1_TIME* field, const std::optional<std::time_t>& absolute, long offset) {
    if (absolute) {
        require(ASN1_TIME_set(field, *absolute) != nullptr, "absolute time");
    } else {
        require(X509_gmtime_adj(field, offset) != nullptr, "relative time");
    }
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    require(extension != nullptr, "extension value");
    const int added = X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    require(added == 1, "adding extension");
}

bool signsWithoutDigest(const EVP_PKEY* key) {
    const int id = EVP_PKEY_get_base_id(key);
    return id == EVP_PKEY_ED25519 || id == EVP_PKEY_ED448;
}

TestPKI makePKI(KeyKind kind) {
    TestPKI pki;
    pki.rootKey = generateKey(kind);
    pki.intermediateKey = generateKey(kind);
    pki.leafKey = generateKey(kind);

    CertificateRecipe root;
    root.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Root"}};
    root.key = pki.rootKey.get();
    root.ca = true;
    root.serialHex = "01";
    root.notAfterOffset = 3650 * kDay;
    pki.root = makeCertificate(root);

    CertificateRecipe intermediate;
    intermediate.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Intermediate"}};
    intermediate.key = pki.intermediateKey.get();
    intermediate.issuer = pki.root.get();
    intermediate.issuerKey = pki.rootKey.get();
    intermediate.ca = true;
    intermediate.serialHex = "02";
    intermediate.notAfterOffset = 1825 * kDay;
    pki.intermediate = makeCertificate(intermediate);

    CertificateRecipe leaf;
    leaf.subject = {{"O", "Foundation Test"}, {"CN", "leaf.example.test"}};
    leaf.key = pki.leafKey.get();
    leaf.issuer = pki.intermediate.get();
    leaf.issuerKey = pki.intermediateKey.get();
    leaf.serialHex = "03";
    leaf.extensions = {{NID_key_usage, "critical,digitalSignature,keyEncipherment"},
                       {NID_ext_key_usage, "serverAuth"},
                       {NID_subject_alt_name, "DNS:leaf.example.test"}};
    pki.leaf = makeCertificate(leaf);
    return pki;
}

}  // namespace

fc::X509UPtr makeCertificate(const CertificateRecipe& recipe) {
    require(recipe.key != nullptr, "a key is required");
    fc::X509UPtr certificate = fc::makeX509UPtr(X509_new());
    require(certificate != nullptr, "X509_new");
    X509* x = certificate.get();
    require(X509_set_version(x, recipe.version) == 1, "version");

    BIGNUM* serial = nullptr;
    require(BN_hex2bn(&serial, recipe.serialHex.c_str()) > 0, "serial");
    const fc::BNUPtr serialOwner = fc::makeBNUPtr(serial);
    require(BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(x)) != nullptr, "serial");

    setTime(X509_getm_notBefore(x), recipe.notBefore, recipe.notBeforeOffset);
    setTime(X509_getm_notAfter(x), recipe.notAfter, recipe.notAfterOffset);

    X509_NAME* name = X509_get_subject_name(x);
    for (const auto& [field, value] : recipe.subject) {
        require(X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char*>(value.c_str()),
                                           -1, -1, 0) == 1,
                "subject entry");
    }
    require(X509_set_issuer_name(
                x, recipe.issuer != nullptr ? X509_get_subject_name(recipe.issuer) : name) == 1,
            "issuer name");
    require(X509_set_pubkey(x, recipe.key) == 1, "public key");

    X509* issuerForExtensions = recipe.issuer != nullptr ? recipe.issuer : x;
    if (recipe.version == 2) {
        addExtension(x, issuerForExtensions, NID_subject_key_identifier, "hash");
        if (recipe.issuer != nullptr && recipe.authorityKeyIdentifier) {
            addExtension(x, issuerForExtensions, NID_authority_key_identifier, "keyid:always");
        }
        if (recipe.ca) {
            addExtension(x, issuerForExtensions, NID_basic_constraints, "critical,CA:TRUE");
            addExtension(x, issuerForExtensions, NID_key_usage, "critical,keyCertSign,cRLSign");
        }
        for (const auto& [nid, value] : recipe.extensions) {
            addExtension(x, issuerForExtensions, nid, value);
        }
    }

    EVP_PKEY* signingKey = recipe.issuerKey != nullptr ? recipe.issuerKey : recipe.key;
    const EVP_MD* digest = signsWithoutDigest(signingKey)
                               ? nullptr
                               : (recipe.digest != nullptr ? recipe.digest : EVP_sha256());
    require(X509_sign(x, signingKey, digest) > 0, "signing");
    return certificate;
}

std::string toPEM(const X509* certificate) {
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509(bio.get(), certificate) == 1, "PEM writing");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

fc::ByteArray toDER(const X509* certificate) {
    const int length = i2d_X509(certificate, nullptr);
    require(length > 0, "DER length");
    fc::ByteArray bytes(static_cast<std::size_t>(length));
    unsigned char* out = bytes.data();
    require(i2d_X509(certificate, &out) == length, "DER writing");
    return bytes;
}

const TestPKI& rsaPKI() { return pkiOf(KeyKind::RSA2048); }

const TestPKI& ecPKI() { return pkiOf(KeyKind::P256); }

const TestPKI& pkiOf(KeyKind kind) {
    // As for sharedKey: OpenSSL first, so the map goes before OpenSSL's clean-up at exit.
    [[maybe_unused]] static const bool initialised = OPENSSL_init_crypto(0, nullptr) == 1;
    static std::mutex mutex;
    static std::map<KeyKind, std::unique_ptr<const TestPKI>> made;
    const std::lock_guard<std::mutex> lock(mutex);
    auto& pki = made[kind];
    if (!pki) pki = std::make_unique<const TestPKI>(makePKI(kind));
    return *pki;
}

}  // namespace testsupport
