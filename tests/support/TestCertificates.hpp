// Certificates made at run time with the OpenSSL API, so nothing in the suite expires.
#pragma once

#include "support/TestKeys.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

constexpr long kDay = 86400;

// What to put into a certificate. Defaults give a one-year leaf valid since an hour ago.
struct CertificateRecipe {
    // Attributes in encoding order, e.g. {{"C", "US"}, {"O", "Example Org"}, {"CN", "Leaf"}}.
    // A type that OpenSSL does not know is given as a dotted object identifier.
    std::vector<std::pair<std::string, std::string>> subject{{"CN", "Test Certificate"}};

    EVP_PKEY* key = nullptr;  // the certificate's key (required)

    // Issuer certificate and its key; both null means self-signed with `key`.
    X509* issuer = nullptr;
    EVP_PKEY* issuerKey = nullptr;

    // Validity relative to now, or absolute times when set.
    long notBeforeOffset = -3600;
    long notAfterOffset = 365 * kDay;
    std::optional<std::time_t> notBefore;
    std::optional<std::time_t> notAfter;

    // Serial number as hex digits (a leading "-" for negative serials).
    std::string serialHex = "1000";

    // Adds basicConstraints critical,CA:TRUE plus keyUsage keyCertSign,cRLSign.
    bool ca = false;

    // An issued certificate names its issuer's key in authorityKeyIdentifier unless cleared.
    bool authorityKeyIdentifier = true;

    // More extensions as (NID, OpenSSL configuration value), e.g.
    // {NID_key_usage, "critical,digitalSignature"}, {NID_crl_distribution_points,
    // "URI:http://..."}.
    std::vector<std::pair<int, std::string>> extensions;

    const EVP_MD* digest = nullptr;  // default SHA-256; ignored for Ed25519/Ed448 keys
    int version = 2;                 // X509 version field: 2 is v3
};

foundation::certificates::X509UPtr makeCertificate(const CertificateRecipe& recipe);

std::string toPEM(const X509* certificate);
foundation::certificates::ByteArray toDER(const X509* certificate);

// A root, an intermediate and a leaf, each with its key, made once per process.
struct TestPKI {
    foundation::certificates::EVP_PKEYUPtr rootKey{nullptr, EVP_PKEY_free};
    foundation::certificates::EVP_PKEYUPtr intermediateKey{nullptr, EVP_PKEY_free};
    foundation::certificates::EVP_PKEYUPtr leafKey{nullptr, EVP_PKEY_free};
    foundation::certificates::X509UPtr root{nullptr, X509_free};
    foundation::certificates::X509UPtr intermediate{nullptr, X509_free};
    foundation::certificates::X509UPtr leaf{nullptr, X509_free};
};

// RSA-2048 keys throughout.
const TestPKI& rsaPKI();
// P-256 keys throughout.
const TestPKI& ecPKI();
// Keys of the kind throughout.
const TestPKI& pkiOf(KeyKind kind);

}  // namespace testsupport
