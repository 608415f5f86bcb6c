#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <chrono>
#include <ctime>
#include <iomanip>
#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

std::string isoDate(fc::TimePoint time) {
    const std::time_t seconds =
        std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string daysFromNow(fc::TimePoint time) {
    const auto now =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    const auto days = std::chrono::duration_cast<std::chrono::hours>(time - now).count() / 24;
    if (days >= 0) return "in " + std::to_string(days) + " days";
    return std::to_string(-days) + " days ago";
}

void describePublicKey(const fc::PublicKeyInfo& key, std::ostream& out) {
    if (key.getType() == fc::KeyType::RSA) {
        out << "RSA, " << key.getKeySize() << " bits, exponent 0x"
            << fc::hexEncode(key.getRSAPublicExponent()) << '\n';
    } else {
        out << curveName(key.getECCCurve()) << ", " << key.getKeySize() << " bits, public point "
            << key.getECCPublicPoint().size() << " bytes\n";
    }
}

std::string joined(const std::vector<std::string>& items) {
    if (items.empty()) return "(none)";
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
    return text;
}

std::string hexOrNone(const fc::ByteArray& bytes) {
    return bytes.empty() ? "(none)" : fc::hexEncode(bytes);
}

// One line; an extension the library cannot decode shows its error instead.
template <typename Describe>
void line(std::ostream& out, const char* label, Describe describe) {
    out << label;
    try {
        out << describe() << '\n';
    } catch (const fc::CertificateException& e) {
        out << e.what() << '\n';
    }
}

}  // namespace

void describeExtensions(const fc::X509Certificate& certificate, std::ostream& out) {
    line(out, "Subject alt names:   ", [&] {
        const auto names = certificate.getSubjectAlternativeNames();
        std::vector<std::string> all;
        for (const auto& [prefix, list] :
             {std::pair{"DNS:", &names.dnsNames}, std::pair{"IP:", &names.ipAddresses},
              std::pair{"email:", &names.emailAddresses}, std::pair{"URI:", &names.uris}}) {
            for (const std::string& name : *list) all.push_back(prefix + name);
        }
        return joined(all);
    });
    line(out, "Key usage:           ", [&] {
        std::vector<std::string> names;
        for (const auto usage : certificate.getKeyUsage()) names.emplace_back(keyUsageName(usage));
        return joined(names);
    });
    line(out, "Extended key usage:  ", [&] { return joined(certificate.getExtendedKeyUsage()); });
    line(out, "Path length limit:   ", [&] {
        const auto length = certificate.getPathLengthConstraint();
        return length ? std::to_string(*length) : std::string("(none)");
    });
    line(out,
         "CRL distribution:    ", [&] { return joined(certificate.getCRLDistributionPoints()); });
    line(out, "OCSP responders:     ", [&] { return joined(certificate.getOCSPResponders()); });
    line(out, "CA issuers:          ", [&] { return joined(certificate.getCAIssuers()); });
    line(out,
         "Policies:            ", [&] { return joined(certificate.getCertificatePolicies()); });
    line(out,
         "Subject key id:      ", [&] { return hexOrNone(certificate.getSubjectKeyIdentifier()); });
    line(out, "Authority key id:    ", [&] {
        return hexOrNone(certificate.getAuthorityKeyIdentifier());
    });
    line(out, "Key pin (SHA-256):   ", [&] { return certificate.getSubjectPublicKeyInfoSHA256(); });
}

void describeCertificate(const fc::X509Certificate& certificate, std::ostream& out) {
    out << certificate;
    out << "Serial number:       " << certificate.getSerialNumber() << '\n'
        << "Signature algorithm: " << certificate.getSignatureAlgorithm() << '\n'
        << "Valid from:          " << certificate.getValidNotBefore() << "  ("
        << isoDate(certificate.getValidNotBeforeTimePoint()) << ")\n"
        << "Valid until:         " << certificate.getValidNotAfter() << "  ("
        << isoDate(certificate.getValidNotAfterTimePoint()) << ", "
        << daysFromNow(certificate.getValidNotAfterTimePoint()) << ")\n"
        << "Public key:          ";
    try {
        describePublicKey(certificate.getPublicKeyInfo(), out);
    } catch (const fc::CertificateException& e) {
        out << e.what() << '\n';
    }
    out << "Digital signing:     " << (certificate.isValidForDigitalSigning() ? "yes" : "no")
        << '\n';
}

int runShow(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {"extended-keys"});
    args.expectPositionalCount(1, 1);
    applyKeyAcceptance(args);
    const std::string data = readInput(args.positional(0, "certificate file"));
    const fc::X509Certificate certificate(fc::ByteArray(data.begin(), data.end()));
    describeCertificate(certificate, out);
    describeExtensions(certificate, out);
    return kExitOk;
}

}  // namespace certinfo
