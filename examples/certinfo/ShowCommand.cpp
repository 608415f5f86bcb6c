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

}  // namespace

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
    describeCertificate(fc::X509Certificate(fc::ByteArray(data.begin(), data.end())), out);
    return kExitOk;
}

}  // namespace certinfo
