#include "Commands.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;
using Options = fc::CertificateValidationOptions;

namespace {

std::optional<Options::CheckCRL> checkFrom(const std::string& text) {
    if (text == "none") return Options::CheckCRL::None;
    if (text == "leaf") return Options::CheckCRL::LeafOnly;
    if (text == "chain") return Options::CheckCRL::FullChain;
    return std::nullopt;
}

// --crl names a level or, for anything else, a list file ("./leaf" for a file named leaf).
struct RevocationArguments {
    std::optional<Options::CheckCRL> check;
    std::vector<fc::CertificateRevocationList> lists;
};

RevocationArguments revocationFrom(const Arguments& args) {
    RevocationArguments revocation;
    for (const std::string& value : args.values("crl")) {
        if (const auto check = checkFrom(value)) {
            revocation.check = check;
        } else {
            revocation.lists.emplace_back(readInput(value));
        }
    }
    return revocation;
}

std::optional<fc::RevocationFetchSettings> fetchSettingsFrom(const Arguments& args) {
    const auto connect = numberOption<unsigned long>(args, "connect-timeout");
    const auto exchange = numberOption<unsigned long>(args, "exchange-timeout");
    const auto maxBytes = numberOption<std::size_t>(args, "max-crl-bytes");
    if (!connect && !exchange && !maxBytes && !args.flag("every-cdp")) return std::nullopt;
    fc::RevocationFetchSettings settings;
    if (connect) settings.connectTimeout = std::chrono::milliseconds(*connect);
    if (exchange) settings.exchangeTimeout = std::chrono::milliseconds(*exchange);
    if (maxBytes) settings.maxResponseBytes = *maxBytes;
    settings.tryEveryDistributionPoint = args.flag("every-cdp");
    return settings;
}

Options::DownloadCRL downloadFrom(const std::string& text) {
    if (text == "no") return Options::DownloadCRL::No;
    if (text == "ignore-errors") return Options::DownloadCRL::IgnoreErrors;
    if (text == "throw") return Options::DownloadCRL::ThrowOnError;
    throw UsageError("--download takes no, ignore-errors or throw");
}

fc::CertificatePurpose purposeFrom(const std::string& text) {
    if (text == "any") return fc::CertificatePurpose::Any;
    if (text == "tls-server") return fc::CertificatePurpose::TLSServer;
    if (text == "tls-client") return fc::CertificatePurpose::TLSClient;
    if (text == "code-signing") return fc::CertificatePurpose::CodeSigning;
    if (text == "email-protection") return fc::CertificatePurpose::EmailProtection;
    if (text == "time-stamping") return fc::CertificatePurpose::TimeStamping;
    throw UsageError(
        "--purpose takes any, tls-server, tls-client, code-signing, email-protection or "
        "time-stamping");
}

fc::ValidationProfile profileFrom(const std::string& text) {
    if (text == "rfc5280") return fc::ValidationProfile::RFC5280;
    if (text == "webpki") return fc::ValidationProfile::WebPKI;
    throw UsageError("--profile takes rfc5280 or webpki");
}

// 2024-05-01, 2024-05-01T12:00:00 (UTC), 2024-05-01T12:00:00Z or with an offset such as +02:00.
std::chrono::system_clock::time_point timeFrom(const std::string& text) {
    std::tm utc{};
    int offsetHours = 0, offsetMinutes = 0, consumed = 0;
    char sign = 0;
    const char* s = text.c_str();
    bool parsed = false;
    if (std::sscanf(s, "%4d-%2d-%2d%n", &utc.tm_year, &utc.tm_mon, &utc.tm_mday, &consumed) == 3 &&
        consumed == 10) {
        parsed = text.size() == 10;
        if (!parsed && text[10] == 'T' &&
            std::sscanf(s + 11, "%2d:%2d:%2d%n", &utc.tm_hour, &utc.tm_min, &utc.tm_sec,
                        &consumed) == 3 &&
            consumed == 8) {
            const std::string zone = text.substr(19);
            parsed = zone.empty() || zone == "Z" ||
                     (zone.size() == 6 &&
                      std::sscanf(zone.c_str(), "%c%2d:%2d%n", &sign, &offsetHours, &offsetMinutes,
                                  &consumed) == 3 &&
                      consumed == 6 && (sign == '+' || sign == '-'));
        }
    }
    const int year = utc.tm_year, month = utc.tm_mon, day = utc.tm_mday;
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    const std::time_t seconds = parsed ? timegm(&utc) : -1;
    // timegm normalises 2024-02-30 into March; a date that moved was not a date.
    if (!parsed || utc.tm_year != year - 1900 || utc.tm_mon != month - 1 || utc.tm_mday != day ||
        utc.tm_hour > 23 || utc.tm_min > 59 || utc.tm_sec > 60 || offsetHours > 23 ||
        offsetMinutes > 59) {
        throw UsageError("--at takes an ISO 8601 time such as 2024-05-01 or 2024-05-01T12:00:00Z");
    }
    const long offset = (sign == '-' ? -1 : 1) * (offsetHours * 3600L + offsetMinutes * 60L);
    return std::chrono::system_clock::from_time_t(seconds - offset);
}

// The requirements of the command line added to the options; a malformed name or address is a
// usage mistake.
void addRequirements(const Arguments& args, Options& options) {
    try {
        if (const auto at = args.value("at")) options.withValidationTime(timeFrom(*at));
        if (const auto host = args.value("host")) options.withHostName(*host);
        if (const auto ip = args.value("ip")) options.withIPAddress(*ip);
        if (const auto email = args.value("email")) options.withEmailAddress(*email);
        if (const auto purpose = args.value("purpose")) options.withPurpose(purposeFrom(*purpose));
        if (const auto profile = args.value("profile")) {
            const fc::ValidationProfile chosen = profileFrom(*profile);
            if (chosen == fc::ValidationProfile::WebPKI && !args.value("host") &&
                !args.value("ip")) {
                throw UsageError("--profile webpki needs --host or --ip");
            }
            options.withProfile(chosen);
        }
        const std::vector<std::string> policies = args.values("policy");
        if (!policies.empty() || args.flag("require-explicit-policy") ||
            args.flag("inhibit-policy-mapping") || args.flag("inhibit-any-policy")) {
            options.withPolicyCheck({policies, args.flag("require-explicit-policy"),
                                     args.flag("inhibit-policy-mapping"),
                                     args.flag("inhibit-any-policy")});
        }
    } catch (const fc::InvalidArgument& e) {
        throw UsageError(e.what());
    }
}

}  // namespace

const char* chainStatusName(fc::CertificateChainStatus status) {
    switch (status) {
        case fc::CertificateChainStatus::Valid:
            return "Valid";
        case fc::CertificateChainStatus::InvalidChain:
            return "InvalidChain";
        case fc::CertificateChainStatus::SelfSigned:
            return "SelfSigned";
        case fc::CertificateChainStatus::CRLError:
            return "CRLError";
        case fc::CertificateChainStatus::Revoked:
            return "Revoked";
        case fc::CertificateChainStatus::Expired:
            return "Expired";
        case fc::CertificateChainStatus::InvalidSignature:
            return "InvalidSignature";
        case fc::CertificateChainStatus::ValidationFailed:
            return "ValidationFailed";
        case fc::CertificateChainStatus::NameMismatch:
            return "NameMismatch";
        case fc::CertificateChainStatus::PurposeMismatch:
            return "PurposeMismatch";
        case fc::CertificateChainStatus::PolicyMismatch:
            return "PolicyMismatch";
        case fc::CertificateChainStatus::ProfileViolation:
            return "ProfileViolation";
    }
    return "?";
}

fc::TrustStore trustStoreFrom(const std::optional<std::string>& path, std::ostream& out) {
    // An empty store stands for the system's trusted certificates.
    fc::TrustStore trustStore;
    if (!path) {
        out << "Trusting the system's certificates\n";
        return trustStore;
    }
    std::size_t refused = 0;
    for (const fc::X509Certificate& trusted : loadableCertificates(readInput(*path), &refused)) {
        trustStore.addCertificate(trusted);
    }
    out << "Trusting " << trustStore.size() << " certificates from " << *path;
    if (refused != 0) out << " (" << refused << " with keys the library does not support left out)";
    out << '\n';
    return trustStore;
}

std::vector<fc::X509Certificate> loadableCertificates(const std::string& pemText,
                                                      std::size_t* refused) {
    static const std::string begin = "-----BEGIN CERTIFICATE-----";
    static const std::string end = "-----END CERTIFICATE-----";
    std::vector<fc::X509Certificate> certificates;
    std::size_t position = 0;
    while ((position = pemText.find(begin, position)) != std::string::npos) {
        const std::size_t stop = pemText.find(end, position);
        if (stop == std::string::npos) break;
        try {
            certificates.emplace_back(pemText.substr(position, stop + end.size() - position));
        } catch (const fc::CertificateException&) {
            if (refused != nullptr) ++*refused;
        }
        position = stop + end.size();
    }
    return certificates;
}

bool describeValidation(const fc::CertificateValidationResults& results, std::ostream& out) {
    const fc::CertificateChainStatus status = results.getCertificateChainStatus();
    out << "Chain status: " << chainStatusName(status) << " (" << static_cast<std::uint32_t>(status)
        << ")\n";
    if (!results.getValidationErrorString().empty()) {
        out << "Error text:\n" << results.getValidationErrorString();
    }
    const fc::CertificateRevocationResults revocation = results.getCertificateRevocationResults();
    if (revocation.getRevocationStatus() ==
        fc::CertificateRevocationResults::RevocationStatus::Revoked) {
        out << "Revoked on " << revocation.getRevocationDateString() << ", serial number "
            << revocation.getRevokedSerialNumberString() << '\n';
    } else {
        out << "Revocation: not revoked (or not checked)\n";
    }
    const std::vector<std::string> policies = results.getValidPolicies();
    if (!policies.empty()) {
        out << "Valid policies:";
        for (const std::string& policy : policies) out << ' ' << policy;
        out << '\n';
    }
    return status == fc::CertificateChainStatus::Valid;
}

int runVerify(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(
        words,
        {"chain", "trust", "crl", "download", "connect-timeout", "exchange-timeout",
         "max-crl-bytes", "host", "ip", "email", "at", "purpose", "repeat", "signature-cache",
         "policy", "profile"},
        {"allow-self-signed", "allow-expired", "allow-revoked", "every-cdp", "extended-keys",
         "require-explicit-policy", "inhibit-policy-mapping", "inhibit-any-policy", "explain"});
    args.expectPositionalCount(1, 1);
    applyKeyAcceptance(args);  // before anything is loaded: it decides what loads
    const std::string data = readInput(args.positional(0, "certificate file"));
    const fc::X509Certificate certificate(fc::ByteArray(data.begin(), data.end()));

    fc::X509CertificateChain chain;
    if (const auto path = args.value("chain")) chain = fc::X509CertificateChain(readInput(*path));

    const fc::TrustStore trustStore = trustStoreFrom(args.value("trust"), out);

    RevocationArguments revocation = revocationFrom(args);
    const bool files = !revocation.lists.empty();
    const Options::CheckCRL check =
        revocation.check.value_or(files ? Options::CheckCRL::LeafOnly : Options::CheckCRL::None);
    const std::string defaultDownload = !files && revocation.check ? "ignore-errors" : "no";
    Options options(args.flag("allow-self-signed") ? Options::AllowSelfSignedCertificate::Yes
                                                   : Options::AllowSelfSignedCertificate::No,
                    args.flag("allow-expired") ? Options::AllowExpiredCertificate::Yes
                                               : Options::AllowExpiredCertificate::No,
                    args.flag("allow-revoked") ? Options::AllowRevokedCertificate::Yes
                                               : Options::AllowRevokedCertificate::No,
                    check, downloadFrom(args.value("download").value_or(defaultDownload)));
    if (files) {
        out << "Revocation lists given: " << revocation.lists.size() << '\n';
        options.withRevocationLists(std::move(revocation.lists));
    }
    if (auto settings = fetchSettingsFrom(args)) options.withRevocationFetch(std::move(*settings));
    addRequirements(args, options);

    if (const auto entries = args.number<std::size_t>("signature-cache")) {
        fc::setSignatureCacheCapacity(*entries);
    }
    const unsigned int repeat = args.number<unsigned int>("repeat").value_or(1);
    if (repeat == 0) throw UsageError("--repeat needs at least 1");

    out << "Certificate: " << certificate.getSubjectName() << '\n';
    const auto start = std::chrono::steady_clock::now();
    const fc::CertificateValidationResults results =
        certificate.validateCertificate(chain, options, trustStore);
    for (unsigned int i = 1; i < repeat; ++i) {
        certificate.validateCertificate(chain, options, trustStore);
    }
    const std::chrono::duration<double, std::micro> elapsed =
        std::chrono::steady_clock::now() - start;
    const bool valid = describeValidation(results, out);
    if (repeat > 1 || args.value("signature-cache")) {
        const fc::SignatureCacheStatistics cache = fc::getSignatureCacheStatistics();
        out << "Validated " << repeat << " time(s), " << elapsed.count() / repeat
            << " us each\nSignature cache: " << cache.hits << " hits, " << cache.misses
            << " misses, " << cache.entries << " of " << cache.capacity << " entries\n";
    }
    if (args.flag("explain")) out << "\nHow it was decided:\n" << results;
    return valid ? kExitOk : kExitNegative;
}

}  // namespace certinfo
