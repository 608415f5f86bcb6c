#include "PKCS7CertificateImpl.hpp"

#include "FacadeAccess.hpp"
#include "OpenSSLErrors.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <climits>
#include <istream>
#include <iterator>
#include <ostream>

namespace foundation::certificates {

namespace {

ByteArray readStream(std::istream& input) {
    if (input.rdstate() != std::ios_base::goodbit) {
        throw InvalidArgument("The input PKCS7 certificate data stream is invalid.");
    }
    try {
        return ByteArray(std::istreambuf_iterator<char>(input.rdbuf()),
                         std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        throw InvalidArgument(
            std::string("The input PKCS7 certificate data stream is invalid. Reason:") + e.what());
    }
}

ByteArray copyString(const std::string& data) {
    try {
        return ByteArray(data.begin(), data.end());
    } catch (const std::exception& e) {
        throw InvalidArgument(
            std::string("The input PKCS7 certificate data string is invalid. Reason:") + e.what());
    }
}

detail::OpenSSLPtr<PKCS7> duplicate(const PKCS7* source) {
    return detail::wrap(source != nullptr ? PKCS7_dup(source) : nullptr);
}

// The certificate set of the two content types that carry one; null when there is none.
const STACK_OF(X509) * certificateSet(const PKCS7& pkcs7) {
    switch (OBJ_obj2nid(pkcs7.type)) {
        case NID_pkcs7_signed:
            return pkcs7.d.sign != nullptr ? pkcs7.d.sign->cert : nullptr;
        case NID_pkcs7_signedAndEnveloped:
            return pkcs7.d.signed_and_enveloped != nullptr ? pkcs7.d.signed_and_enveloped->cert
                                                           : nullptr;
        default:
            return nullptr;
    }
}

// The stack PKCS7_get0_signers returns owns none of its certificates.
struct ShallowX509StackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

// A certificate that only the library holds (it lives in one of our own structures) is shared
// without a second parse.
std::shared_ptr<const X509CertificateImpl> shareParsed(X509* certificate) {
    X509_up_ref(certificate);
    return std::make_shared<const X509CertificateImpl>(
        X509CertificateImpl::fromParsed(makeX509SPtr(certificate)));
}

}  // namespace

PKCS7CertificateImpl::PKCS7CertificateImpl() = default;

PKCS7CertificateImpl::PKCS7CertificateImpl(std::istream& input) { init(readStream(input)); }

PKCS7CertificateImpl::PKCS7CertificateImpl(const std::string& data) { init(copyString(data)); }

PKCS7CertificateImpl::PKCS7CertificateImpl(const ByteArray& data) { init(data); }

PKCS7CertificateImpl::PKCS7CertificateImpl(const PKCS7CertificateImpl& other) = default;

PKCS7CertificateImpl::~PKCS7CertificateImpl() = default;

Encoding PKCS7CertificateImpl::autodetectEncoding(const ByteArray& data) const {
    const auto found = std::search(
        data.begin(), data.end(), pemHeader.begin(), pemHeader.end(),
        [](unsigned char byte, char c) { return byte == static_cast<unsigned char>(c); });
    return found != data.end() ? Encoding::PEM : Encoding::DER;
}

void PKCS7CertificateImpl::init(const ByteArray& data) {
    if (data.empty()) throw InvalidArgument("The provided PKCS7 certificate has no content.");
    const detail::LoaderErrorQueueGuard errorQueue;

    // A read-only view of the caller's bytes, ending like a memory BIO that was written to, so
    // OpenSSL reads (and fails on truncated data) exactly as with a copy.
    const BIOUPtr bio = makeBIOUPtr(
        data.size() <= INT_MAX ? BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))
                               : nullptr);
    if (!bio) {
        throw PKCS7CertificateException(
            "Internal error: The given certificate data could not be written to a buffer.");
    }
    BIO_set_mem_eof_return(bio.get(), -1);

    detail::OpenSSLPtr<PKCS7> pkcs7;
    if (autodetectEncoding(data) == Encoding::PEM) {
        pkcs7 = detail::wrap(PEM_read_bio_PKCS7(bio.get(), nullptr, nullptr, nullptr));
        if (ERR_GET_REASON(ERR_peek_error()) == PEM_R_NO_START_LINE) {
            throw InvalidArgument(
                "Input certificate data was autodetected to be PEM-encoded, but is not in PEM "
                "encoding. Please verify the input data.");
        }
    } else {
        pkcs7 = detail::wrap(d2i_PKCS7_bio(bio.get(), nullptr));
        if (ERR_GET_REASON(ERR_peek_error()) == ASN1_R_WRONG_TAG) {
            throw InvalidArgument(
                "Input certificate data was autodetected to be DER-encoded, but is not in DER "
                "encoding. Please verify the input data.");
        }
    }
    if (!pkcs7 || ERR_peek_error() != 0) {
        throw PKCS7CertificateException("Error: Loading a certificate failed. Reason=" +
                                        detail::getOpenSSLErrorReason());
    }

    const int type = OBJ_obj2nid(pkcs7->type);
    if (type != NID_pkcs7_signed && type != NID_pkcs7_signedAndEnveloped) {
        throw InvalidArgument(
            "Input PKCS7 certificate is corrupt. It doesn't have the right type field.");
    }

    const STACK_OF(X509)* set = certificateSet(*pkcs7);
    const int count = set != nullptr ? sk_X509_num(set) : 0;
    std::vector<std::shared_ptr<const X509CertificateImpl>> loaded;
    loaded.reserve(static_cast<std::size_t>(count));
    try {
        for (int i = 0; i < count; ++i) loaded.push_back(shareParsed(sk_X509_value(set, i)));
    } catch (const CertificateException& e) {
        throw PKCS7CertificateException(
            std::string("Error: Unable to parse X509 certificate(s) inside PKCS7 certificate.") +
            e.what());
    }
    structure = std::make_shared<Structure>();
    structure->pkcs7 = std::move(pkcs7);
    certificates = std::move(loaded);
}

void PKCS7CertificateImpl::addCertificate(std::shared_ptr<const X509CertificateImpl> certificate) {
    certificates.push_back(std::move(certificate));
}

std::vector<X509Certificate> PKCS7CertificateImpl::getCertificates() const {
    std::vector<X509Certificate> values;
    values.reserve(certificates.size());
    for (const auto& certificate : certificates) {
        values.push_back(detail::FacadeAccess::wrap<X509Certificate>(certificate));
    }
    return values;
}

void PKCS7CertificateImpl::throwIfEmpty() const {
    if (certificates.empty()) throw PKCS7CertificateException("PKCS7Certificate has no content.");
}

ByteArray PKCS7CertificateImpl::getAsBytes() const {
    if (certificates.empty()) return {};
    const BIOUPtr bio = makeBIOUPtr(structure ? BIO_new(BIO_s_mem()) : nullptr);
    if (!bio || !withStructure(
                    [&bio](PKCS7* pkcs7) { return PEM_write_bio_PKCS7(bio.get(), pkcs7) != 0; })) {
        throw PKCS7CertificateException("Unable to write out the PKCS7 data");
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    if (data == nullptr || length <= 0) return {};
    return ByteArray(data, data + length);
}

std::string PKCS7CertificateImpl::getAsString() const {
    const ByteArray bytes = getAsBytes();
    return std::string(bytes.begin(), bytes.end());
}

X509CertificateChain PKCS7CertificateImpl::getSignerCerts() const {
    // Signers are looked up only among the structure's own certificates, in a private duplicate:
    // the loaded structure shares its certificates with values callers hold, and is only read.
    const detail::OpenSSLPtr<PKCS7> copy =
        withStructure([](const PKCS7* pkcs7) { return duplicate(pkcs7); });
    const std::unique_ptr<STACK_OF(X509), ShallowX509StackFree> signers(
        PKCS7_get0_signers(copy.get(), nullptr, PKCS7_NO_DUAL_CONTENT));
    X509CertificateChain chain;
    const int count = signers ? sk_X509_num(signers.get()) : 0;
    for (int i = 0; i < count; ++i) {
        chain.addCertificate(detail::FacadeAccess::wrap<X509Certificate>(
            shareParsed(sk_X509_value(signers.get(), i))));
    }
    return chain;
}

ByteArray PKCS7CertificateImpl::getSignedData() const {
    const BIOUPtr output = makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (!output || !withStructure([&output](PKCS7* pkcs7) {
            return PKCS7_verify(pkcs7, nullptr, nullptr, nullptr, output.get(),
                                PKCS7_NOVERIFY | PKCS7_NO_DUAL_CONTENT) == 1;
        })) {
        return {};
    }
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(output.get(), &buffer);
    if (buffer == nullptr || buffer->length == 0) return {};
    const auto* bytes = reinterpret_cast<const unsigned char*>(buffer->data);
    return ByteArray(bytes, bytes + buffer->length);
}

void PKCS7CertificateImpl::print(std::ostream& os) const {
    os << "Printing PKCS7 certificate.\n";
    for (const auto& certificate : certificates) {
        certificate->print(os);
        os << '\n' << std::flush;
    }
}

}  // namespace foundation::certificates
