// The other paths from a leaf to a trust anchor that a set of certificates offers.
#pragma once

#include <openssl/x509.h>

#include <functional>
#include <vector>

namespace foundation::certificates::detail {

struct PathSearchLimits {
    int candidatePaths = 64;  // complete paths handed to the attempt
    int pathLength = 8;       // certificates, leaf and anchor included
    int steps = 1024;         // issuers tried; bounds the dead ends no complete path counts
};

// Offers each path leaf..anchor (the anchor one of `trusted`) to `attempt`, depth first, until
// it returns true; false when none did within the limits. A path holds no certificate twice,
// nor two certificates with the same subject and key.
bool searchPaths(X509* leaf, const std::vector<X509*>& untrusted, const std::vector<X509*>& trusted,
                 const std::function<bool(const std::vector<X509*>&)>& attempt,
                 const PathSearchLimits& limits = {});

}  // namespace foundation::certificates::detail
