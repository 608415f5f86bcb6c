#include <foundation/certificates/CertificateRevocationList.hpp>

#include "Asn1Conversions.hpp"
#include "FacadeAccess.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "RevocationListAccess.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <istream>
#include <iterator>
#include <mutex>
#include <ostream>
#include <string_view>

namespace foundation::certificates {

struct CertificateRevocationList::Data {
    explicit Data(X509CRLUPtr parsed) : crl(std::move(parsed)) {}

    // OpenSSL sorts the entries in place on its first lookup. Doing it once, before anyone
    // reads them, keeps that write away from concurrent readers.
    X509_CRL* sorted() const {
        std::call_once(sortOnce, [this] {
            if (STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(crl.get())) {
                sk_X509_REVOKED_sort(entries);
            }
        });
        return crl.get();
    }

    // Computed on first use: digesting a large list costs as much as a good part of parsing it.
    const std::string& fingerprint() const {
        std::call_once(fingerprintOnce, [this] {
            ByteArray digest(EVP_MAX_MD_SIZE);
            unsigned int length = 0;
            if (X509_CRL_digest(crl.get(), EVP_sha256(), digest.data(), &length) != 1 ||
                length != 32) {
                ERR_clear_error();
                throw CertificateRevocationListException(
                    "Internal error: Unable to compute the SHA256 fingerprint.");
            }
            digest.resize(length);
            sha256 = hexEncode(digest);
        });
        return sha256;
    }

    X509CRLUPtr crl;
    mutable std::once_flag sortOnce;
    mutable std::once_flag fingerprintOnce;
    mutable std::string sha256;
};

namespace {

constexpr std::string_view kPemHeader = "-----BEGIN X509 CRL-----";

bool containsPemHeader(const unsigned char* data, std::size_t size) {
    // memmem rather than std::search: lists of a million entries are tens of megabytes.
    return memmem(data, size, kPemHeader.data(), kPemHeader.size()) != nullptr;
}

X509CRLUPtr parse(const unsigned char* data, std::size_t size) {
    if (size == 0) throw InvalidArgument("The input certificate revocation list has no content.");
    const detail::LoaderErrorQueueGuard errorQueue;
    X509CRLUPtr crl = makeX509CRLUPtr(nullptr);
    if (containsPemHeader(data, size)) {
        const BIOUPtr bio =
            makeBIOUPtr(size <= INT_MAX ? BIO_new_mem_buf(data, static_cast<int>(size)) : nullptr);
        if (!bio) {
            throw CertificateRevocationListException(
                "Internal error: The given certificate revocation list could not be written to a "
                "buffer.");
        }
        crl.reset(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
    } else if (size <= static_cast<std::size_t>(LONG_MAX)) {
        // In place, without the copy a BIO read would make.
        const unsigned char* cursor = data;
        crl.reset(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(size)));
    }
    if (!crl || ERR_peek_error() != 0) {
        throw CertificateRevocationListException(
            "Error: Loading a certificate revocation list failed. Reason=" +
            detail::getOpenSSLErrorReason());
    }
    return crl;
}

ByteArray readStream(std::istream& input) {
    if (input.rdstate() != std::ios_base::goodbit) {
        throw InvalidArgument("The input certificate revocation list data stream is invalid.");
    }
    try {
        return ByteArray(std::istreambuf_iterator<char>(input.rdbuf()),
                         std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        throw InvalidArgument(
            std::string("The input certificate revocation list data stream is invalid. Reason:") +
            e.what());
    }
}

std::optional<int> reasonCode(const X509_REVOKED* entry) {
    const detail::OpenSSLPtr<ASN1_STRING> reason(static_cast<ASN1_ENUMERATED*>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    if (!reason) {
        ERR_clear_error();
        return std::nullopt;
    }
    return static_cast<int>(ASN1_ENUMERATED_get(reason.get()));
}

}  // namespace

CertificateRevocationList::CertificateRevocationList() = default;

CertificateRevocationList::CertificateRevocationList(std::shared_ptr<const Data> parsed)
    : data(std::move(parsed)) {}

CertificateRevocationList::CertificateRevocationList(std::istream& input) {
    const ByteArray bytes = readStream(input);
    data = std::make_shared<const Data>(parse(bytes.data(), bytes.size()));
}

CertificateRevocationList::CertificateRevocationList(const std::string& text)
    : data(std::make_shared<const Data>(
          parse(reinterpret_cast<const unsigned char*>(text.data()), text.size()))) {}

CertificateRevocationList::CertificateRevocationList(const ByteArray& bytes)
    : data(std::make_shared<const Data>(parse(bytes.data(), bytes.size()))) {}

CertificateRevocationList::CertificateRevocationList(const CertificateRevocationList&) = default;
CertificateRevocationList& CertificateRevocationList::operator=(const CertificateRevocationList&) =
    default;
CertificateRevocationList::CertificateRevocationList(CertificateRevocationList&&) noexcept =
    default;
CertificateRevocationList& CertificateRevocationList::operator=(
    CertificateRevocationList&&) noexcept = default;
CertificateRevocationList::~CertificateRevocationList() = default;

bool CertificateRevocationList::empty() const noexcept { return !data; }

const CertificateRevocationList::Data& CertificateRevocationList::content() const {
    if (!data) {
        throw CertificateRevocationListException(
            "Error: CertificateRevocationList has no content.");
    }
    return *data;
}

std::string CertificateRevocationList::getIssuerName() const {
    return detail::nameToString(X509_CRL_get_issuer(content().crl.get()));
}

std::string CertificateRevocationList::getLastUpdate() const {
    return detail::asn1TimeToString(X509_CRL_get0_lastUpdate(content().crl.get()));
}

TimePoint CertificateRevocationList::getLastUpdateTimePoint() const {
    return detail::asn1TimeToTimePoint(X509_CRL_get0_lastUpdate(content().crl.get()));
}

std::optional<std::string> CertificateRevocationList::getNextUpdate() const {
    const ASN1_TIME* next = X509_CRL_get0_nextUpdate(content().crl.get());
    if (next == nullptr) return std::nullopt;
    return detail::asn1TimeToString(next);
}

std::optional<TimePoint> CertificateRevocationList::getNextUpdateTimePoint() const {
    const ASN1_TIME* next = X509_CRL_get0_nextUpdate(content().crl.get());
    if (next == nullptr) return std::nullopt;
    return detail::asn1TimeToTimePoint(next);
}

std::vector<RevokedCertificate> CertificateRevocationList::getRevokedCertificates() const {
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(content().sorted());
    std::vector<RevokedCertificate> revoked;
    revoked.reserve(static_cast<std::size_t>(std::max(sk_X509_REVOKED_num(entries), 0)));
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        const X509_REVOKED* entry = sk_X509_REVOKED_value(entries, i);
        const ASN1_TIME* date = X509_REVOKED_get0_revocationDate(entry);
        revoked.push_back(
            {detail::asn1IntegerToDecimalString(X509_REVOKED_get0_serialNumber(entry)),
             detail::asn1TimeToString(date), detail::asn1TimeToTimePoint(date), reasonCode(entry)});
    }
    return revoked;
}

bool CertificateRevocationList::isSignedBy(const X509Certificate& issuer) const {
    X509_CRL* crl = content().crl.get();
    const X509SPtr certificate =
        detail::FacadeAccess::read(issuer, [](const X509CertificateImpl& i) {
            i.throwIfEmpty();
            return i.shared();
        });
    const detail::LoaderErrorQueueGuard errorQueue;
    EVP_PKEY* key = X509_get0_pubkey(certificate.get());
    return key != nullptr && X509_CRL_verify(crl, key) == 1;
}

ByteArray CertificateRevocationList::getAsBytes() const {
    const detail::LoaderErrorQueueGuard errorQueue;
    unsigned char* der = nullptr;
    const int length = i2d_X509_CRL(content().crl.get(), &der);
    const detail::OpenSSLMemory<unsigned char> owner(der);
    if (length <= 0) {
        throw CertificateRevocationListException(
            "Internal error: Unable to encode the certificate revocation list.");
    }
    return ByteArray(der, der + length);
}

std::string CertificateRevocationList::getAsPEMString() const {
    const detail::LoaderErrorQueueGuard errorQueue;
    const BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509_CRL(bio.get(), content().crl.get()) != 1) {
        throw CertificateRevocationListException(
            "Internal error: Unable to encode the certificate revocation list.");
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

std::string CertificateRevocationList::getSHA256Fingerprint() const {
    return content().fingerprint();
}

bool CertificateRevocationList::operator==(const CertificateRevocationList& other) const {
    if (data == other.data) return true;
    if (!data || !other.data) return false;
    return data->fingerprint() == other.data->fingerprint();
}

bool CertificateRevocationList::operator!=(const CertificateRevocationList& other) const {
    return !(*this == other);
}

std::ostream& operator<<(std::ostream& os, const CertificateRevocationList& list) {
    if (list.empty()) return os << "Certificate Revocation List: (empty)\n";
    os << "Certificate Revocation List:\n"
       << "Issuer Name: " << list.getIssuerName() << ";\n"
       << "Last Update: " << list.getLastUpdate() << ";\n"
       << "Next Update: " << list.getNextUpdate().value_or("(none)") << ";\n"
       << "Revoked Certificates: "
       << sk_X509_REVOKED_num(X509_CRL_get_REVOKED(detail::RevocationListAccess::shared(list)))
       << ";\n"
       << "SHA256 Fingerprint: " << list.getSHA256Fingerprint() << ";\n";
    return os;
}

namespace detail {

X509_CRL* RevocationListAccess::shared(const CertificateRevocationList& list) {
    return list.content().sorted();
}

CertificateRevocationList RevocationListAccess::adopt(X509CRLUPtr crl) {
    return CertificateRevocationList(
        std::make_shared<const CertificateRevocationList::Data>(std::move(crl)));
}

}  // namespace detail

}  // namespace foundation::certificates
