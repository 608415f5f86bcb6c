// What an import of the platform's trusted certificates found, as data.
//
// Every certificate found in the sources is either imported or listed in `skipped` with its
// reason; a certificate found more than once counts once.
//
//   const TrustImportReport report = store.addSystemCertificatesWithReport(TrustStore::Usage::SSL);
//   for (const SkippedCertificate& skipped : report.skipped)
//       std::cerr << skipped.reason << ' ' << skipped.subject << ": " << skipped.detail << '\n';
#pragma once

#include <foundation/certificates/Export.hpp>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace foundation::certificates {

struct SkippedCertificate {
    enum class Reason : std::uint32_t {
        Expired = 0,
        UnsupportedKey = 1,
        NotValidForUsage = 2,
        Distrusted = 3,
        Unreadable = 4
    };
    std::string subject;            // RFC 2253 text; empty when unreadable
    std::string sha256Fingerprint;  // empty when unreadable
    Reason reason;
    std::string detail;  // e.g. the key refusal's message
};

struct TrustImportReport {
    std::vector<std::string> sources;         // the files and directories read
    std::size_t imported = 0;                 // certificates added for the usage
    std::vector<SkippedCertificate> skipped;  // every other certificate found in the sources
};

// The enumerator's name, e.g. "UnsupportedKey"; a number for other values.
FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        SkippedCertificate::Reason reason);

}  // namespace foundation::certificates
