#include "TrustImportRecorder.hpp"

#include "Asn1Conversions.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <climits>
#include <ostream>

namespace foundation::certificates {

std::ostream& operator<<(std::ostream& os, SkippedCertificate::Reason reason) {
    switch (reason) {
        case SkippedCertificate::Reason::Expired:
            return os << "Expired";
        case SkippedCertificate::Reason::UnsupportedKey:
            return os << "UnsupportedKey";
        case SkippedCertificate::Reason::NotValidForUsage:
            return os << "NotValidForUsage";
        case SkippedCertificate::Reason::Distrusted:
            return os << "Distrusted";
        case SkippedCertificate::Reason::Unreadable:
            return os << "Unreadable";
    }
    return os << static_cast<std::uint32_t>(reason);
}

namespace detail {

namespace {

using Reason = SkippedCertificate::Reason;

thread_local TrustImportRecorder* activeRecorder = nullptr;

bool hasExpired(const X509* certificate) {
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return days < 0 || seconds < 0;
}

std::string refusalDetail(const X509* certificate, Reason reason, TrustStore::Usage usage) {
    if (reason == Reason::Expired) {
        try {
            return "Expired on " + asn1TimeToString(X509_get0_notAfter(certificate));
        } catch (const CertificateException&) {
            return "Expired";
        }
    }
    switch (usage) {
        case TrustStore::Usage::SSL:
            return "Not valid for TLS server authentication";
        case TrustStore::Usage::Signing:
            return "Not valid for signing";
    }
    return "No certificate is valid for usage " + std::to_string(static_cast<std::uint32_t>(usage));
}

X509SPtr parse(const ByteArray& der) {
    const unsigned char* cursor = der.data();
    return makeX509SPtr(der.size() <= LONG_MAX
                            ? d2i_X509(nullptr, &cursor, static_cast<long>(der.size()))
                            : nullptr);
}

}  // namespace

std::optional<Reason> usageRefusal(X509* certificate, TrustStore::Usage usage) {
    if (hasExpired(certificate)) return Reason::Expired;
    if (!isValidFor(certificate, usage)) return Reason::NotValidForUsage;
    return std::nullopt;
}

TrustImportRecorder::TrustImportRecorder(const TrustStoreImpl& store, TrustStore::Usage usage)
    : store_(store), usage_(usage), previous_(activeRecorder) {
    activeRecorder = this;
}

TrustImportRecorder::~TrustImportRecorder() { activeRecorder = previous_; }

TrustImportRecorder* TrustImportRecorder::activeFor(const TrustStoreImpl& store) noexcept {
    // An adder may fill another store while it runs; only this store's import is recorded.
    for (TrustImportRecorder* recorder = activeRecorder; recorder != nullptr;
         recorder = recorder->previous_) {
        if (&recorder->store_ == &store) return recorder;
    }
    return nullptr;
}

void TrustImportRecorder::addSource(const std::string& source) {
    if (source.empty()) return;
    for (const std::string& known : report_.sources) {
        if (known == source) return;
    }
    report_.sources.push_back(source);
}

void TrustImportRecorder::offer(TrustStoreImpl& store, const ByteArray& der) {
    const X509SPtr certificate = parse(der);
    if (!certificate) {
        // Each damaged block counts: there is nothing to tell two of them apart by.
        skip(nullptr, {}, Reason::Unreadable, "Failed to parse DER data to X509 certificate.");
        return;
    }
    std::string fingerprint = sha256Fingerprint(certificate.get());
    if (!seen_.insert(fingerprint).second) return;
    if (const std::optional<Reason> refusal = usageRefusal(certificate.get(), usage_)) {
        skip(certificate.get(), std::move(fingerprint), *refusal,
             refusalDetail(certificate.get(), *refusal, usage_));
        return;
    }
    try {
        // The key check every certificate the library loads goes through.
        X509CertificateImpl::fromParsed(certificate);
    } catch (const CertificateException& refused) {
        skip(certificate.get(), std::move(fingerprint), Reason::UnsupportedKey, refused.what());
        return;
    }
    store.addCertificateX509(certificate.get());
    ++report_.imported;
}

void TrustImportRecorder::keptOut(const ByteArray& der, Reason reason, const std::string& detail) {
    const X509SPtr certificate = parse(der);
    if (!certificate) {
        skip(nullptr, {}, reason, detail);
        return;
    }
    std::string fingerprint = sha256Fingerprint(certificate.get());
    if (!seen_.insert(fingerprint).second) return;
    skip(certificate.get(), std::move(fingerprint), reason, detail);
}

TrustImportReport TrustImportRecorder::takeReport() { return std::move(report_); }

void TrustImportRecorder::skip(const X509* certificate, std::string fingerprint, Reason reason,
                               std::string detail) {
    SkippedCertificate skipped;
    if (certificate != nullptr) skipped.subject = nameToString(X509_get_subject_name(certificate));
    skipped.sha256Fingerprint = std::move(fingerprint);
    skipped.reason = reason;
    skipped.detail = std::move(detail);
    report_.skipped.push_back(std::move(skipped));
}

}  // namespace detail
}  // namespace foundation::certificates
