#include <foundation/certificates/CertificateValidation.hpp>

#include <ostream>

namespace foundation::certificates {

namespace {

const char* statusName(CertificateChainStatus status) {
    switch (status) {
        case CertificateChainStatus::Valid:
            return "Valid";
        case CertificateChainStatus::InvalidChain:
            return "InvalidChain";
        case CertificateChainStatus::SelfSigned:
            return "SelfSigned";
        case CertificateChainStatus::CRLError:
            return "CRLError";
        case CertificateChainStatus::Revoked:
            return "Revoked";
        case CertificateChainStatus::Expired:
            return "Expired";
        case CertificateChainStatus::InvalidSignature:
            return "InvalidSignature";
        case CertificateChainStatus::ValidationFailed:
            return "ValidationFailed";
        case CertificateChainStatus::NameMismatch:
            return "NameMismatch";
        case CertificateChainStatus::PurposeMismatch:
            return "PurposeMismatch";
        case CertificateChainStatus::PolicyMismatch:
            return "PolicyMismatch";
        case CertificateChainStatus::ProfileViolation:
            return "ProfileViolation";
    }
    return "Unknown";
}

// The download messages end in newlines meant for the exception's text.
std::string oneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (char& c : text) {
        if (c == '\n') c = ' ';
    }
    return text;
}

void printRevocation(std::ostream& os, const RevocationCheck& revocation) {
    os << "    revocation: ";
    if (!revocation.checked) {
        os << "not checked";
    } else {
        switch (revocation.status) {
            case RevocationCheck::Status::NotRevoked:
                os << "not revoked";
                break;
            case RevocationCheck::Status::Revoked:
                os << "REVOKED";
                break;
            case RevocationCheck::Status::Unknown:
                os << "unknown (no usable list)";
                break;
        }
    }
    switch (revocation.source) {
        case RevocationCheck::Source::None:
            break;
        case RevocationCheck::Source::SuppliedList:
            os << ", list supplied by the caller";
            break;
        case RevocationCheck::Source::Downloaded:
            os << ", list downloaded from " << revocation.url;
            break;
        case RevocationCheck::Source::Cache:
            os << ", cached list of " << revocation.url;
            break;
    }
    os << '\n';
}

void printReport(std::ostream& os, const std::vector<CertificateCheck>& checks,
                 const std::vector<RevocationFetch>& fetches) {
    for (const CertificateCheck& check : checks) {
        os << "[" << check.depth << "] "
           << (check.subject.empty() ? std::string("(no certificate)") : check.subject) << '\n';
        if (!check.subject.empty()) {
            os << "    issuer: " << check.issuer << '\n';
            os << "    sha256: " << check.sha256Fingerprint << '\n';
        }
        for (const VerificationError& error : check.errors) {
            os << "    error " << error.code << ": " << error.text
               << (error.forgiven ? " (forgiven)" : "") << '\n';
        }
        printRevocation(os, check.revocation);
    }
    for (const RevocationFetch& fetch : fetches) {
        os << "fetch " << (fetch.url.empty() ? std::string("(no URL)") : fetch.url) << ": "
           << oneLine(fetch.outcome);
        if (fetch.fromCache) {
            os << ", from cache";
        } else if (fetch.httpStatus != 0) {
            os << ", HTTP " << fetch.httpStatus;
        }
        os << ", " << fetch.bytes << " bytes, " << fetch.duration.count() << " ms\n";
    }
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const CertificateValidationResults& r) {
    const CertificateChainStatus status = r.getCertificateChainStatus();
    os << "Status: " << statusName(status) << " (" << static_cast<std::uint32_t>(status) << ")\n";
    printReport(os, r.getCertificateChecks(), r.getRevocationFetches());
    return os;
}

std::ostream& operator<<(std::ostream& os, const PKCS7CertificateValidationResults& r) {
    const CertificateChainStatus status = r.getCertificateChainStatus();
    os << "Signature: " << (r.getSignatureVerificationStatus() ? "verifies" : "does not verify")
       << "\nSigner status: " << statusName(status) << " (" << static_cast<std::uint32_t>(status)
       << ")\n";
    printReport(os, r.getCertificateChecks(), r.getRevocationFetches());
    return os;
}

}  // namespace foundation::certificates
