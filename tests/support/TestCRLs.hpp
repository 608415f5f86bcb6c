// Certificate revocation lists made at run time with the OpenSSL API.
#pragma once

#include <foundation/certificates/OpenSSLHandles.hpp>

#include <string>
#include <vector>

namespace testsupport {

// A v2 CRL by the issuer, signed with its key, valid from an hour ago for a week, revoking the
// given serial numbers (hex digits).
foundation::certificates::X509CRLUPtr makeCRL(
    X509* issuer, EVP_PKEY* issuerKey, const std::vector<std::string>& revokedSerialsHex = {});

}  // namespace testsupport
