// The NIST PKITS path-validation suite in tests/data/pkits: its table of cases and their files,
// as DER bytes, as raw OpenSSL objects and as library objects.
#pragma once

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace testsupport::pkits {

// One line of cases.tsv.
struct Case {
    std::string id;    // the section, e.g. "4.1.1"
    std::string name;  // e.g. "valid_signatures_test1"
    std::string leaf;  // file names in certs/ and crls/
    std::vector<std::string> intermediates;
    std::vector<std::string> crls;  // the trust anchor's list first
    bool expectedValid = false;     // under the suite's default settings, with every list
    bool revocationCase = false;    // the verdict depends on the lists
};

// For test names and failure messages: "4.1.1 valid_signatures_test1".
void PrintTo(const Case& pkitsCase, std::ostream* out);

inline constexpr char kTrustAnchor[] = "TrustAnchorRootCertificate.crt";

// Every case, in the table's order. Throws std::runtime_error when the table cannot be read.
const std::vector<Case>& cases();

// A time inside every certificate's validity window except where a case tests validity, after
// every "not after" those cases test and every list's last update: 2012-01-01T00:00:00Z.
std::chrono::system_clock::time_point validationTime();

// A file's bytes; throws std::runtime_error when it cannot be read.
foundation::certificates::ByteArray certificateDER(const std::string& file);
foundation::certificates::ByteArray crlDER(const std::string& file);

// Raw OpenSSL objects for the same files, whatever their keys.
foundation::certificates::X509UPtr rawCertificate(const std::string& file);
foundation::certificates::X509CRLUPtr rawCRL(const std::string& file);

// A case as library objects. The library refuses some keys at load (DSA); then `unsupported`
// says why, and the certificates are left empty.
struct LoadedCase {
    std::string unsupported;  // empty when everything loaded
    std::optional<foundation::certificates::X509Certificate> leaf;
    foundation::certificates::X509CertificateChain intermediates;
    foundation::certificates::TrustStore trustAnchor;
};

LoadedCase load(const Case& pkitsCase);

}  // namespace testsupport::pkits
