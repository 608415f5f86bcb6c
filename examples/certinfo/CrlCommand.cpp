#include "Commands.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

// RFC 5280's CRLReason names; 7 is unused.
const char* reasonName(int code) {
    static const char* const names[] = {
        "unspecified",   "keyCompromise",        "cACompromise",    "affiliationChanged",
        "superseded",    "cessationOfOperation", "certificateHold", nullptr,
        "removeFromCRL", "privilegeWithdrawn",   "aACompromise"};
    if (code < 0 || code >= static_cast<int>(sizeof names / sizeof names[0])) return nullptr;
    return names[code];
}

}  // namespace

int runCrl(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {"issuer"}, {});
    args.expectPositionalCount(1, 1);
    const fc::CertificateRevocationList list(readInput(args.positional(0, "list file")));
    out << list;
    for (const fc::RevokedCertificate& entry : list.getRevokedCertificates()) {
        out << "  serial " << entry.serialNumber << " revoked " << entry.revocationDate;
        if (entry.reason) {
            const char* name = reasonName(*entry.reason);
            out << ", reason " << (name != nullptr ? name : std::to_string(*entry.reason));
        }
        out << '\n';
    }
    if (const auto path = args.value("issuer")) {
        const std::string data = readInput(*path);
        const fc::X509Certificate issuer(fc::ByteArray(data.begin(), data.end()));
        const bool signedBy = list.isSignedBy(issuer);
        out << "Signed by " << issuer.getSubjectName() << ": " << (signedBy ? "yes" : "no") << '\n';
        if (!signedBy) return kExitNegative;
    }
    return kExitOk;
}

}  // namespace certinfo
