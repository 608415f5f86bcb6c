#include "Commands.hpp"

#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/TrustImportReport.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <map>
#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

std::string subjectOf(X509* certificate) {
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::string expiryOf(const X509* certificate) {
    std::tm expiry{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &expiry) != 1) return "?";
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &expiry);
    return text;
}

// Roots are read with OpenSSL directly: X509Certificate refuses key types (P-384, for one) that
// trust bundles hold.
fc::X509UPtr parse(const std::string& pem) {
    const fc::BIOUPtr bio =
        fc::makeBIOUPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return fc::makeX509UPtr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

}  // namespace

int runRoots(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {"count", "extended-keys"});
    if (args.flag("extended-keys")) fc::setKeyAcceptance(fc::KeyAcceptance::Extended);
    const bool countOnly = args.flag("count");
    args.expectPositionalCount(0, 1);
    const std::string usageName = args.positional().empty() ? "ssl" : args.positional(0, "usage");
    fc::TrustStore::Usage usage;
    if (usageName == "ssl") {
        usage = fc::TrustStore::Usage::SSL;
    } else if (usageName == "signing") {
        usage = fc::TrustStore::Usage::Signing;
    } else {
        throw UsageError("unknown usage '" + usageName + "' (expected ssl or signing)");
    }

    fc::TrustStore store;
    const fc::TrustImportReport report = store.addSystemCertificatesWithReport(usage);
    const std::vector<std::string> pems = store.getPEMStrings();

    std::string sources;
    for (const std::string& source : report.sources)
        sources += (sources.empty() ? "" : ", ") + source;
    std::map<std::string, int> byKeyType;
    int selfSigned = 0;
    if (!countOnly) {
        out << "Roots trusted for " << usageName << " (from "
            << (sources.empty() ? "no trust source" : sources) << "):\n";
    }
    for (const std::string& pem : pems) {
        const fc::X509UPtr certificate = parse(pem);
        if (!certificate) continue;
        const EVP_PKEY* key = X509_get0_pubkey(certificate.get());
        const char* keyType = key != nullptr ? EVP_PKEY_get0_type_name(key) : nullptr;
        ++byKeyType[keyType != nullptr ? keyType : "unknown"];
        if (X509_check_issued(certificate.get(), certificate.get()) == X509_V_OK) ++selfSigned;
        if (!countOnly) {
            out << "  " << subjectOf(certificate.get()) << "  (until "
                << expiryOf(certificate.get()) << ")\n";
        }
    }

    std::map<fc::SkippedCertificate::Reason, int> byReason;
    if (!countOnly && !report.skipped.empty()) out << "Skipped:\n";
    for (const fc::SkippedCertificate& skipped : report.skipped) {
        ++byReason[skipped.reason];
        if (countOnly) continue;
        out << "  " << skipped.reason << "  "
            << (skipped.subject.empty() ? "(unreadable)" : skipped.subject) << '\n';
        if (!skipped.sha256Fingerprint.empty()) {
            out << "      sha256 " << skipped.sha256Fingerprint << '\n';
        }
        out << "      " << skipped.detail << '\n';
    }

    out << report.imported + report.skipped.size() << " certificates found: " << report.imported
        << " imported, " << report.skipped.size() << " skipped";
    const char* separator = " (";
    for (const auto& [reason, count] : byReason) {
        out << separator << count << ' ' << reason;
        separator = ", ";
    }
    out << (byReason.empty() ? "" : ")") << '\n';

    out << pems.size() << " certificates trusted for " << usageName << ": ";
    separator = "";
    for (const auto& [keyType, count] : byKeyType) {
        out << separator << count << ' ' << keyType;
        separator = ", ";
    }
    out << (byKeyType.empty() ? "" : "; ") << selfSigned << " self-signed\n";
    return pems.empty() ? kExitNegative : kExitOk;
}

}  // namespace certinfo
