#include "X509CertificateImpl.hpp"

#include "Asn1Conversions.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <climits>
#include <istream>
#include <iterator>
#include <ostream>

namespace foundation::certificates {

namespace {

constexpr std::size_t kPemLineLength = 63;

// Lets threads that share one parsed certificate read it without racing on OpenSSL's lazily
// filled extension cache. A certificate whose extensions OpenSSL finds invalid (a repeated
// extension, say) still loads; the error OpenSSL queues for it must not reach a loader that
// judges its own success by the queue.
void cacheExtensions(X509* certificate) {
    const detail::ScopedErrorQueueMark discardOnly;
    X509_check_purpose(certificate, -1, 0);
}

ByteArray readStream(std::istream& input) {
    if (input.rdstate() != std::ios_base::goodbit) {
        throw InvalidArgument("The input certificate data stream is invalid.");
    }
    try {
        return ByteArray(std::istreambuf_iterator<char>(input.rdbuf()),
                         std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        throw InvalidArgument(std::string("The input certificate data stream is invalid. Reason:") +
                              e.what());
    }
}

ByteArray copyString(const std::string& data) {
    try {
        return ByteArray(data.begin(), data.end());
    } catch (const std::exception& e) {
        throw InvalidArgument(std::string("The input certificate data string is invalid. Reason:") +
                              e.what());
    }
}

}  // namespace

X509CertificateImpl::X509CertificateImpl() = default;

X509CertificateImpl::X509CertificateImpl(const X509* certificate)
    : certificate(makeX509SPtr(certificate != nullptr ? X509_dup(certificate) : nullptr)) {
    throwIfInvalidPublicKeyInfo();
    cacheExtensions(this->certificate.get());
}

X509CertificateImpl::X509CertificateImpl(X509SPtr certificate)
    : certificate(std::move(certificate)) {}

X509CertificateImpl::X509CertificateImpl(std::istream& input) { init(readStream(input)); }

X509CertificateImpl::X509CertificateImpl(const std::string& data) { init(copyString(data)); }

X509CertificateImpl::X509CertificateImpl(const ByteArray& data) { init(data); }

X509CertificateImpl::X509CertificateImpl(X509CertificateImpl&& other) noexcept
    : certificate(std::move(other.certificate)) {}

X509CertificateImpl& X509CertificateImpl::operator=(const X509CertificateImpl& other) {
    if (other.certificate) certificate = other.certificate;
    return *this;
}

X509CertificateImpl& X509CertificateImpl::operator=(X509CertificateImpl&& other) noexcept {
    certificate = std::move(other.certificate);
    other.certificate.reset();
    return *this;
}

X509CertificateImpl::~X509CertificateImpl() = default;

X509CertificateImpl X509CertificateImpl::fromParsed(X509SPtr certificate) {
    X509CertificateImpl impl(std::move(certificate));
    impl.throwIfInvalidPublicKeyInfo();
    cacheExtensions(impl.certificate.get());
    return impl;
}

Encoding X509CertificateImpl::autodetectEncoding(const ByteArray& data) const {
    const auto found = std::search(
        data.begin(), data.end(), pemHeader.begin(), pemHeader.end(),
        [](unsigned char byte, char c) { return byte == static_cast<unsigned char>(c); });
    return found != data.end() ? Encoding::PEM : Encoding::DER;
}

void X509CertificateImpl::init(const ByteArray& data) {
    if (data.empty()) throw InvalidArgument("The input certificate has no content.");
    const detail::LoaderErrorQueueGuard errorQueue;

    // A read-only view of the caller's bytes, ending like a memory BIO that was written to, so
    // OpenSSL reads (and fails on truncated data) exactly as with a copy.
    BIOUPtr bio = makeBIOUPtr(data.size() <= INT_MAX
                                  ? BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))
                                  : nullptr);
    if (!bio) {
        throw X509CertificateException(
            "Internal error: The given certificate data could not be written to a buffer.");
    }
    BIO_set_mem_eof_return(bio.get(), -1);

    if (autodetectEncoding(data) == Encoding::DER) {
        certificate = makeX509SPtr(d2i_X509_bio(bio.get(), nullptr));
        if (ERR_GET_REASON(ERR_peek_error()) == ASN1_R_WRONG_TAG) {
            throw InvalidArgument(
                "Input certificate data was autodetected to be DER-encoded, but is not in DER "
                "encoding. Please verify the input data.");
        }
    } else {
        certificate = makeX509SPtr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
        if (ERR_GET_REASON(ERR_peek_error()) == PEM_R_NO_START_LINE) {
            throw InvalidArgument(
                "Input certificate data was autodetected to be PEM-encoded, but is not in PEM "
                "encoding. Please verify the input data.");
        }
    }
    if (!certificate || ERR_peek_error() != 0) {
        throw X509CertificateException("Error: Loading a certificate failed. Reason=" +
                                       detail::getOpenSSLErrorReason());
    }
    throwIfInvalidPublicKeyInfo();
    cacheExtensions(certificate.get());
}

void X509CertificateImpl::throwIfEmpty() const {
    if (!certificate) throw X509CertificateException("Error: X509Certificate has no content.");
}

X509CertificateImpl X509CertificateImpl::clone() const {
    return X509CertificateImpl(static_cast<const X509*>(certificate.get()));
}

X509* X509CertificateImpl::getOpenSSLCertificate() const {
    throwIfEmpty();
    return X509_dup(certificate.get());
}

ByteArray X509CertificateImpl::getAsBytes() const {
    throwIfEmpty();
    // Serialised straight into the result: the encoding is the same as through a memory BIO.
    const int length = i2d_X509(certificate.get(), nullptr);
    if (length < 1) {
        throw X509CertificateException("Internal error: Could not serialize the X509 certificate.");
    }
    ByteArray bytes(static_cast<std::size_t>(length));
    unsigned char* out = bytes.data();
    if (i2d_X509(certificate.get(), &out) != length) {
        throw X509CertificateException("Internal error: Could not serialize the X509 certificate.");
    }
    if (bytes.empty()) {
        throw X509CertificateException(
            "Internal error: The DER serialized X509 data came up empty.");
    }
    return bytes;
}

std::string X509CertificateImpl::getAsString() const { return base64Encode(getAsBytes()); }

std::string X509CertificateImpl::getAsPEMString() const {
    const std::string body = base64Encode(getAsBytes());
    std::string pem;
    pem.reserve(pemHeader.size() + pemFooter.size() + body.size() + body.size() / kPemLineLength +
                4);
    pem.append(pemHeader).push_back('\n');
    for (std::size_t offset = 0; offset < body.size(); offset += kPemLineLength) {
        pem.append(body, offset, kPemLineLength).push_back('\n');
    }
    pem.append(pemFooter).push_back('\n');
    return pem;
}

std::string X509CertificateImpl::getSubjectName() const {
    throwIfEmpty();
    return detail::nameToString(X509_get_subject_name(certificate.get()));
}

std::string X509CertificateImpl::getIssuerName() const {
    throwIfEmpty();
    return detail::nameToString(X509_get_issuer_name(certificate.get()));
}

std::unordered_map<std::string, std::string> X509CertificateImpl::getSubjectNameAsRDNs() const {
    throwIfEmpty();
    return detail::getNameAsRDNs(X509_get_subject_name(certificate.get()));
}

std::unordered_map<std::string, std::string> X509CertificateImpl::getIssuerNameAsRDNs() const {
    throwIfEmpty();
    return detail::getNameAsRDNs(X509_get_issuer_name(certificate.get()));
}

std::string X509CertificateImpl::getSubjectCommonName() const {
    const auto attributes = getSubjectNameAsRDNs();
    const auto cn = attributes.find("CN");
    if (cn == attributes.end()) throw InvalidArgument("Subject name has no CN.");
    return cn->second;
}

std::string X509CertificateImpl::getIssuerCommonName() const {
    const auto attributes = getIssuerNameAsRDNs();
    const auto cn = attributes.find("CN");
    if (cn == attributes.end()) throw InvalidArgument("Issuer name has no CN.");
    return cn->second;
}

std::string X509CertificateImpl::getSerialNumber() const {
    throwIfEmpty();
    return detail::asn1IntegerToDecimalString(X509_get0_serialNumber(certificate.get()));
}

std::string X509CertificateImpl::getSignatureAlgorithm() const {
    throwIfEmpty();
    const char* name = OBJ_nid2sn(X509_get_signature_nid(certificate.get()));
    if (name == nullptr) {
        throw X509CertificateException("Internal error: Unable to fetch the signature algorithm");
    }
    return name;
}

namespace {

const ASN1_TIME* notBefore(X509* certificate) {
    const ASN1_TIME* time = X509_getm_notBefore(certificate);
    if (time == nullptr) {
        throw X509CertificateException(
            "Error: Certificate does not have validNotBefore field correctly set.");
    }
    return time;
}

const ASN1_TIME* notAfter(X509* certificate) {
    const ASN1_TIME* time = X509_getm_notAfter(certificate);
    if (time == nullptr) {
        throw X509CertificateException(
            "Error: Certificate does not have validNotAfter field correctly set.");
    }
    return time;
}

}  // namespace

std::string X509CertificateImpl::getValidNotBefore() const {
    throwIfEmpty();
    return detail::asn1TimeToString(notBefore(certificate.get()));
}

std::string X509CertificateImpl::getValidNotAfter() const {
    throwIfEmpty();
    return detail::asn1TimeToString(notAfter(certificate.get()));
}

TimePoint X509CertificateImpl::getValidNotBeforeTimePoint() const {
    throwIfEmpty();
    return detail::asn1TimeToTimePoint(notBefore(certificate.get()));
}

TimePoint X509CertificateImpl::getValidNotAfterTimePoint() const {
    throwIfEmpty();
    return detail::asn1TimeToTimePoint(notAfter(certificate.get()));
}

std::string X509CertificateImpl::getSHA256Fingerprint() const {
    throwIfEmpty();
    return detail::sha256Fingerprint(certificate.get());
}

bool X509CertificateImpl::isSelfSigned() const { return getIssuerName() == getSubjectName(); }

bool X509CertificateImpl::isCACertificate() const {
    throwIfEmpty();
    return X509_check_ca(certificate.get()) > 0;
}

bool X509CertificateImpl::isValidForDigitalSigning() const {
    throwIfEmpty();
    const detail::OpenSSLPtr<ASN1_STRING> usage(static_cast<ASN1_BIT_STRING*>(
        X509_get_ext_d2i(certificate.get(), NID_key_usage, nullptr, nullptr)));
    if (!usage || ASN1_BIT_STRING_get_bit(usage.get(), 0) == 0) return false;

    EXTENDED_KEY_USAGE* extended = static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(certificate.get(), NID_ext_key_usage, nullptr, nullptr));
    if (extended == nullptr) return true;
    bool codeSigning = false;
    for (int i = 0; i < sk_ASN1_OBJECT_num(extended); ++i) {
        codeSigning =
            codeSigning || OBJ_obj2nid(sk_ASN1_OBJECT_value(extended, i)) == NID_code_sign;
    }
    sk_ASN1_OBJECT_pop_free(extended, ASN1_OBJECT_free);
    return codeSigning;
}

EVP_PKEYUPtr X509CertificateImpl::publicKey() const {
    throwIfEmpty();
    return makeEVP_PKEYUPtr(X509_get_pubkey(certificate.get()));
}

std::uint64_t X509CertificateImpl::getKeySize() const {
    const EVP_PKEYUPtr key = publicKey();
    return static_cast<std::uint64_t>(EVP_PKEY_get_bits(key.get()));
}

ByteArray X509CertificateImpl::getRSAParameter(const char* name, const char* typeMessage,
                                               const char* readMessage) const {
    const EVP_PKEYUPtr key = publicKey();
    if (getKeyType(key.get()) != KeyType::RSA) throw NotRSAKey(typeMessage);
    BNUPtr number = makeBNUPtr(BN_new());
    BIGNUM* raw = number.get();
    const int read = EVP_PKEY_get_bn_param(key.get(), name, &raw);
    if (raw != number.get()) number.reset(raw);  // OpenSSL allocated one itself
    if (read == 0 || !number) throw X509CertificateException(readMessage);
    return bnToByteArray(number.get());
}

ByteArray X509CertificateImpl::getRSAPublicExponent() const {
    return getRSAParameter(OSSL_PKEY_PARAM_RSA_E,
                           "Cannot get public exponent because the certificate does not contain "
                           "an RSA key",
                           "Failed to get the public exponent for the public key");
}

ByteArray X509CertificateImpl::getRSAModulus() const {
    return getRSAParameter(OSSL_PKEY_PARAM_RSA_N,
                           "Cannot get modulus because the certificate does not contain an RSA key",
                           "Failed to get the modulus for the public key");
}

ByteArray X509CertificateImpl::getECCPublicPoint() const {
    const EVP_PKEYUPtr key = publicKey();
    OSSL_PARAM* raw = nullptr;
    if (EVP_PKEY_todata(key.get(), EVP_PKEY_PUBLIC_KEY, &raw) != 1) {
        throw CertificateException("Failed to extract public point from public EVP_PKEY");
    }
    const OSSL_PARAMUPtr params = makeOSSL_PARAMUPtr(raw);
    const OSSL_PARAM* point = OSSL_PARAM_locate(params.get(), OSSL_PKEY_PARAM_PUB_KEY);
    if (point == nullptr) {
        throw CertificateException("Could not find 'pub' in parameter list from EVP_PKEY_todata");
    }
    const auto* data = static_cast<const unsigned char*>(point->data);
    return ByteArray(data, data + point->data_size);
}

EllipticCurve X509CertificateImpl::getECCCurve() const {
    const EVP_PKEYUPtr key = publicKey();
    return getEllipticCurve(key.get());
}

PublicKeyInfo X509CertificateImpl::getPublicKeyInfo() const {
    const EVP_PKEYUPtr key = publicKey();
    if (getKeyType(key.get()) == KeyType::RSA) {
        const auto keySize = static_cast<unsigned long>(getKeySize());
        const ByteArray exponent = getRSAPublicExponent();
        return PublicKeyInfo(keySize, exponent, getRSAModulus());
    }
    const auto keySize = static_cast<unsigned long>(getKeySize());
    const ByteArray point = getECCPublicPoint();
    return PublicKeyInfo(keySize, point, getECCCurve());
}

void X509CertificateImpl::throwIfInvalidPublicKeyInfo() const {
    // Decides what building the whole PublicKeyInfo would decide, without exporting the key's
    // numbers: the kind of key, its size, and for elliptic curves the group's name.
    throwIfEmpty();
    const EVP_PKEY* key = X509_get0_pubkey(certificate.get());
    if (getKeyType(key) == KeyType::RSA) {
        if (EVP_PKEY_get_bits(key) <= 1023) {
            throw X509CertificateException(
                "RSA key size does not meet minimum cryptographic requirements");
        }
        return;
    }
    char group[32] = {};
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
        EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                       nullptr) == 1 &&
        std::string_view(group) == "prime256v1") {
        return;
    }
    getEllipticCurve(key);  // Ed25519, or the exact refusal of any other curve
}

void X509CertificateImpl::print(std::ostream& os) const {
    throwIfEmpty();
    os << "Certificate Details:\n"
       << "--------------------\n";
    os << "Subject Name: " << getSubjectName() << ";\n";
    os << "Issuer Name: " << getIssuerName() << ";\n";
    os << "SHA256 Fingerprint: " << getSHA256Fingerprint() << ";\n";
    os << "isSelfSigned: " << std::to_string(static_cast<int>(isSelfSigned())) << ";\n";
    os << "isCA: " << std::to_string(static_cast<int>(X509_check_ca(certificate.get()) > 0))
       << ";\n";
    os << std::endl;
}

namespace detail {

std::string sha256Fingerprint(const X509* certificate) {
    ByteArray digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1 || length != 32) {
        throw X509CertificateException("Internal error: Unable to compute the SHA256 fingerprint.");
    }
    digest.resize(length);
    return hexEncode(digest);
}

}  // namespace detail

}  // namespace foundation::certificates
