// The web PKI profile's rules, applied to a path OpenSSL has already accepted.
#pragma once

#include <openssl/x509.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

// What a path is judged with besides its certificates.
struct ProfileFacts {
    std::time_t time = 0;
    // Whether the options forgive an expired certificate; otherwise an accepted path is known
    // to be within every validity period.
    bool expiryForgivable = true;
    // The revocation lists OpenSSL had at hand, and the deepest depth it checked with them
    // (-1: revocation was not checked).
    std::vector<X509_CRL*> revocationLists;
    int revocationCheckedDepth = -1;
};

struct ProfileViolation {
    int rule = 0;
    int depth = 0;
    std::string text;  // names the rule and the depth
};

// The first violation, leaf to anchor; `chain` runs from the leaf (index 0) to the anchor.
std::optional<ProfileViolation> checkWebPkiProfile(const std::vector<X509*>& chain,
                                                   const ProfileFacts& facts);

// Whether OpenSSL's "expired" at this certificate is only its inclusive last second.
bool expiresExactlyAt(const X509* certificate, std::time_t time);

}  // namespace foundation::certificates::detail
