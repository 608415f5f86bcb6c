// Certificate revocation lists made at run time.
#pragma once

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

struct RevokedEntry {
    std::string serialHex;
    std::time_t revocationDate;
    std::optional<int> reason = std::nullopt;  // CRLReason code
};

struct CRLRecipe {
    X509* issuer = nullptr;          // the issuer's name goes into the list
    EVP_PKEY* signingKey = nullptr;  // normally the issuer's key
    std::vector<RevokedEntry> revoked;
    long lastUpdateOffset = -3600;
    std::optional<long> nextUpdateOffset = 7L * 86400;  // none: the list has no next update
};

foundation::certificates::X509CRLUPtr makeCRL(const CRLRecipe& recipe);
// The same with a cRLNumber extension.
foundation::certificates::X509CRLUPtr makeNumberedCRL(const CRLRecipe& recipe, long crlNumber);

// A list by the issuer, signed with its key, valid from an hour ago for a week, revoking the
// given serial numbers (hex digits) as of now.
foundation::certificates::X509CRLUPtr makeCRL(
    X509* issuer, EVP_PKEY* issuerKey, const std::vector<std::string>& revokedSerialsHex = {});

foundation::certificates::ByteArray crlToDER(const X509_CRL* crl);
std::string crlToPEM(const X509_CRL* crl);

}  // namespace testsupport
