// The validation code's view of the options record, whose fields callers cannot read.
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>

namespace foundation::certificates::detail {

struct ValidationAccess {
    using Options = CertificateValidationOptions;

    static Options::AllowSelfSignedCertificate allowSelfSigned(const Options& o) {
        return o.allowSelfSigned;
    }
    static Options::AllowExpiredCertificate allowExpired(const Options& o) {
        return o.allowExpired;
    }
    static Options::AllowRevokedCertificate allowRevoked(const Options& o) {
        return o.allowRevoked;
    }
    static Options::CheckCRL checkCRL(const Options& o) { return o.checkCRL; }
    static Options::DownloadCRL downloadCRL(const Options& o) { return o.downloadCRL; }
    static const std::vector<CertificateRevocationList>& revocationLists(const Options& o) {
        return o.revocationLists;
    }
    static const std::optional<RevocationFetchSettings>& revocationFetch(const Options& o) {
        return o.revocationFetch;
    }

    static const std::optional<std::chrono::system_clock::time_point>& validationTime(
        const Options& o) {
        return o.validationTime;
    }
    // Empty when not required.
    static const std::string& hostName(const Options& o) { return o.hostName; }
    static const ByteArray& ipAddress(const Options& o) { return o.ipAddress; }
    static const std::string& emailAddress(const Options& o) { return o.emailAddress; }
    static CertificatePurpose purpose(const Options& o) { return o.purpose; }
    static ValidationProfile profile(const Options& o) { return o.profile; }

    // The profile's implied settings made explicit: the time fixed once, so that the verifier
    // and the profile judge the same second, and TLS server as the purpose unless one was set.
    static Options withProfileDefaults(Options o, std::chrono::system_clock::time_point now) {
        if (!o.validationTime) o.validationTime = now;
        if (o.purpose == CertificatePurpose::Any) o.purpose = CertificatePurpose::TLSServer;
        return o;
    }

    static const std::optional<CertificatePolicySettings>& policies(const Options& o) {
        return o.policies;
    }

    static void setValidPolicies(CertificateValidationResults& r, std::vector<std::string> p) {
        r.validPolicies = std::move(p);
    }
};

}  // namespace foundation::certificates::detail
