// Quickly made certificates for trust store tests.
#pragma once

#include "support/TestCertificates.hpp"

namespace testsupport {

// The store's message for the DER bytes {0x01, 0x02}.
inline constexpr char kBadDERMessage[] =
    "Failed to parse DER data to X509 certificate. Cert size = 2\nCert Bytes =  0x01 0x02 \n";

// A self-signed P-256 certificate, a CA when `ca` is true.
foundation::certificates::X509UPtr makeQuickCertificate(
    const std::string& commonName, bool ca,
    std::vector<std::pair<int, std::string>> extensions = {}, long notBeforeOffset = -3600,
    long notAfterOffset = 365 * kDay);

}  // namespace testsupport
