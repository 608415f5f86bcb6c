#include <foundation/certificates/SelfSignedCertBuilder.hpp>

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <iterator>
#include <stdexcept>

namespace foundation::certificates {

namespace {

constexpr long kSecondsPerDay = 86400;
constexpr unsigned int kDefaultValidityDays = 365;
constexpr unsigned int kMaximumValidityDays = 397;
constexpr const char* kDefaultCommonName = "localhost";
constexpr const char* kOrganization = "Quorlin, Inc.";

const char* const kKeyUsageNames[] = {
    "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
    "keyCertSign",      "cRLSign",        "encipherOnly",    "decipherOnly",
};

const std::set<std::string> kDefaultKeyUsages{"digitalSignature", "keyCertSign", "cRLSign"};
const std::set<std::string> kDefaultExtendedKeyUsages{"serverAuth", "clientAuth", "codeSigning"};

const char* keyUsageName(X509Certificate::KeyUsage usage) {
    const auto index = static_cast<std::size_t>(usage);
    return index < std::size(kKeyUsageNames) ? kKeyUsageNames[index] : "";
}

[[noreturn]] void throwGenerationFailure() {
    throw std::runtime_error("Failed to generate a certificate: " +
                             std::to_string(ERR_get_error()));
}

// OpenSSL reports failure as a null pointer or a zero integer.
template <typename Result>
void mustSucceed(const Result& result) {
    if (!result) throwGenerationFailure();
}

std::string join(const std::set<std::string>& elements) {
    std::string joined;
    for (const std::string& element : elements) {
        if (!joined.empty()) joined += ',';
        joined += element;
    }
    return joined;
}

// Both usage extensions are critical. "critical" among the caller's names would otherwise end up
// in the middle of the list, where OpenSSL takes it for a usage name.
std::string combineUsages(const std::set<std::string>& defaults, std::set<std::string> additional) {
    if (additional.empty()) return "critical," + join(defaults);
    additional.insert(defaults.begin(), defaults.end());
    additional.erase("critical");
    return "critical," + join(additional);
}

template <typename Buffer>
Buffer readAll(BIO* bio) {
    const int pending = BIO_pending(bio);
    Buffer buffer(pending > 0 ? static_cast<std::size_t>(pending) : 0, '\0');
    if (pending > 0) BIO_read(bio, buffer.data(), pending);
    return buffer;
}

BIOUPtr newMemoryBIO() {
    BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
    mustSucceed(bio);
    return bio;
}

void addExtension(X509* certificate, int nid, const std::string& value) {
    X509V3_CTX context{};
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    auto extension = detail::wrap(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    mustSucceed(extension);
    X509_add_ext(certificate, extension.get(), -1);
}

void addNameEntry(X509_NAME* name, const char* field, int type, const std::string& value) {
    X509_NAME_add_entry_by_txt(name, field, type,
                               reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
}

}  // namespace

struct SelfSignedCertBuilder::Generated {
    EVP_PKEYUPtr key;
    X509Certificate certificate;
    std::string commonName;
};

SelfSignedCertBuilder::SelfSignedCertBuilder() = default;

SelfSignedCertBuilder& SelfSignedCertBuilder::withPrivateKeySize(RSAPrivateKeySize size) {
    privateKeySize = size;
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withPrivateKeyPassphrase(std::string passphrase) {
    privateKeyPassphrase = std::move(passphrase);
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withCommonName(std::string name) {
    commonName = std::move(name);
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withAdditionalSubjectAltNames(
    std::set<std::string> names) {
    additionalSubjectAltNames = std::move(names);
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withValidityPeriod(unsigned int days) {
    if (days < 1 || days > kMaximumValidityDays) {
        throw X509CertificateException(
            "Certificate validity period must be within the range of 1 and 397 days.");
    }
    validityPeriod = days;
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withValidityPeriodOffset(int days) {
    validityPeriodOffset = days;
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withSerialNumber(unsigned long long serial) {
    serialNumber = serial;
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withAdditionalKeyUsage(
    std::set<X509Certificate::KeyUsage> usages) {
    additionalKeyUsage = std::move(usages);
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::withAdditionalExtendedKeyUsage(
    std::set<std::string> usages) {
    additionalExtendedKeyUsage = std::move(usages);
    return *this;
}

SelfSignedCertBuilder& SelfSignedCertBuilder::resetToDefaults() {
    *this = SelfSignedCertBuilder();
    return *this;
}

ASN1_INTEGERUPtr SelfSignedCertBuilder::makeSerialNumber() const {
    ASN1_INTEGERUPtr integer(ASN1_INTEGER_new(), ASN1_INTEGER_free);
    mustSucceed(integer);
    if (serialNumber) {
        ASN1_INTEGER_set_uint64(integer.get(), *serialNumber);
        return integer;
    }
    BNUPtr random = makeBNUPtr(BN_new());
    mustSucceed(random);
    // Top bit not forced, so the whole range 0 to 2^64-1 is possible.
    mustSucceed(BN_rand(random.get(), 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY));
    BN_to_ASN1_INTEGER(random.get(), integer.get());
    return integer;
}

std::string SelfSignedCertBuilder::makeBasicConstraints() const { return "critical,CA:TRUE"; }

std::string SelfSignedCertBuilder::makeKeyUsage() const {
    std::set<std::string> names;
    if (additionalKeyUsage) {
        for (const X509Certificate::KeyUsage usage : *additionalKeyUsage) {
            names.insert(keyUsageName(usage));
        }
    }
    return combineUsages(kDefaultKeyUsages, std::move(names));
}

std::string SelfSignedCertBuilder::makeExtendedKeyUsage() const {
    return combineUsages(kDefaultExtendedKeyUsages,
                         additionalExtendedKeyUsage.value_or(std::set<std::string>()));
}

std::string SelfSignedCertBuilder::makeSubjectAlternativeName(const std::string& name) const {
    std::set<std::string> names{"DNS:" + name};
    if (name == kDefaultCommonName) {
        // Some clients match an address literal against DNS names, so the loopback addresses
        // go in both forms; the short IPv6 form is not an IP entry.
        names.insert({"DNS:127.0.0.1", "IP:127.0.0.1", "DNS:::1", "DNS:0:0:0:0:0:0:0:1",
                      "IP:0:0:0:0:0:0:0:1"});
    }
    if (additionalSubjectAltNames) {
        names.insert(additionalSubjectAltNames->begin(), additionalSubjectAltNames->end());
    }
    return join(names);
}

SelfSignedCertBuilder::Generated SelfSignedCertBuilder::generate() const {
    const std::size_t bits =
        static_cast<std::size_t>(privateKeySize.value_or(RSAPrivateKeySize::RSA2048));
    // The variadic argument of the RSA form is read as size_t.
    EVP_PKEYUPtr key = makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", bits));
    mustSucceed(key);

    X509UPtr certificate = makeX509UPtr(X509_new());
    mustSucceed(certificate);
    X509* x = certificate.get();
    X509_set_version(x, X509_VERSION_3);
    mustSucceed(X509_set_serialNumber(x, makeSerialNumber().get()));

    const long offset = static_cast<long>(validityPeriodOffset.value_or(0)) * kSecondsPerDay;
    const long length =
        static_cast<long>(validityPeriod.value_or(kDefaultValidityDays)) * kSecondsPerDay;
    X509_gmtime_adj(X509_getm_notBefore(x), offset);
    X509_gmtime_adj(X509_getm_notAfter(x), length + offset);

    X509_set_pubkey(x, key.get());

    const std::string name = commonName.value_or(kDefaultCommonName);
    X509_NAME* subject = X509_get_subject_name(x);
    addNameEntry(subject, "CN", MBSTRING_UTF8, name);
    addNameEntry(subject, "C", MBSTRING_ASC, "US");
    addNameEntry(subject, "ST", MBSTRING_ASC, "Kestria");
    addNameEntry(subject, "L", MBSTRING_ASC, "Dunmoor");
    addNameEntry(subject, "O", MBSTRING_ASC, kOrganization);
    addNameEntry(subject, "OU", MBSTRING_ASC, kOrganization);
    X509_set_issuer_name(x, subject);

    addExtension(x, NID_subject_alt_name, makeSubjectAlternativeName(name));
    addExtension(x, NID_basic_constraints, makeBasicConstraints());
    addExtension(x, NID_key_usage, makeKeyUsage());
    addExtension(x, NID_ext_key_usage, makeExtendedKeyUsage());

    mustSucceed(X509_sign(x, key.get(), EVP_sha512()));

    BIOUPtr pem = newMemoryBIO();
    PEM_write_bio_X509(pem.get(), x);
    return Generated{std::move(key), X509Certificate(readAll<std::string>(pem.get())), name};
}

std::pair<X509Certificate, std::string> SelfSignedCertBuilder::build() const {
    const detail::LoaderErrorQueueGuard errorQueue;
    Generated generated = generate();

    BIOUPtr bio = newMemoryBIO();
    if (privateKeyPassphrase) {
        // With no callback, OpenSSL takes the callback argument as the passphrase itself.
        mustSucceed(PEM_write_bio_PrivateKey(bio.get(), generated.key.get(), EVP_des_ede3_cbc(),
                                             nullptr, 0, nullptr,
                                             const_cast<char*>(privateKeyPassphrase->c_str())));
    } else {
        mustSucceed(PEM_write_bio_PrivateKey(bio.get(), generated.key.get(), nullptr, nullptr, 0,
                                             nullptr, nullptr));
    }
    static_cast<void>(BIO_flush(bio.get()));
    return {std::move(generated.certificate), readAll<std::string>(bio.get())};
}

std::pair<X509Certificate, ByteArray> SelfSignedCertBuilder::buildAndGetKeyBytesInPKCS12() const {
    const detail::LoaderErrorQueueGuard errorQueue;
    Generated generated = generate();

    const char* password = privateKeyPassphrase ? privateKeyPassphrase->c_str() : nullptr;
    auto pkcs12 = detail::wrap(PKCS12_create(password, generated.commonName.c_str(),
                                             generated.key.get(), nullptr, nullptr, 0, 0, 0, 0, 0));
    ByteArray bytes;
    if (pkcs12) {
        BIOUPtr bio = newMemoryBIO();
        i2d_PKCS12_bio(bio.get(), pkcs12.get());
        static_cast<void>(BIO_flush(bio.get()));
        bytes = readAll<ByteArray>(bio.get());
    }
    return {std::move(generated.certificate), std::move(bytes)};
}

}  // namespace foundation::certificates
