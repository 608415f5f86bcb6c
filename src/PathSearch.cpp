#include "PathSearch.hpp"

#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <map>

namespace foundation::certificates::detail {

namespace {

struct Candidate {
    X509* certificate;
    bool trusted;
};

class Search {
  public:
    Search(const std::vector<X509*>& untrusted, const std::vector<X509*>& trusted,
           const std::function<bool(const std::vector<X509*>&)>& attempt,
           const PathSearchLimits& limits)
        : attempt(attempt), limits(limits) {
        // Anchors first: a path should end as soon as it can. A given certificate that is
        // also trusted is the anchor, wherever the caller put it.
        for (X509* certificate : trusted) pool.push_back({certificate, true});
        for (X509* certificate : untrusted) {
            const bool known = std::any_of(pool.begin(), pool.end(), [&](const Candidate& c) {
                return c.certificate == certificate || X509_cmp(c.certificate, certificate) == 0;
            });
            if (!known) pool.push_back({certificate, false});
        }
    }

    bool extend(std::vector<X509*>& path) {
        for (const Candidate& issuer : issuersOf(path.back())) {
            if (offered >= limits.candidatePaths) return false;
            if (repeats(path, issuer.certificate)) continue;
            if (++steps > limits.steps) return false;
            path.push_back(issuer.certificate);
            bool found = false;
            if (issuer.trusted) {
                ++offered;
                found = attempt(path);
            } else if (static_cast<int>(path.size()) < limits.pathLength) {
                found = extend(path);
            }
            path.pop_back();
            if (found) return true;
        }
        return false;
    }

  private:
    const std::vector<Candidate>& issuersOf(X509* subject) {
        auto [entry, inserted] = issuers.try_emplace(subject);
        if (inserted) {
            for (const Candidate& candidate : pool) {
                // Name, key identifiers and the issuer's key usage, as OpenSSL matches them.
                if (X509_check_issued(candidate.certificate, subject) == X509_V_OK) {
                    entry->second.push_back(candidate);
                }
            }
        }
        return entry->second;
    }

    // The same certificate, or the same subject and key under another certificate, would
    // only lead round a loop.
    static bool repeats(const std::vector<X509*>& path, X509* next) {
        return std::any_of(path.begin(), path.end(), [next](X509* earlier) {
            return earlier == next || X509_cmp(earlier, next) == 0 ||
                   (X509_NAME_cmp(X509_get_subject_name(earlier), X509_get_subject_name(next)) ==
                        0 &&
                    EVP_PKEY_eq(X509_get0_pubkey(earlier), X509_get0_pubkey(next)) == 1);
        });
    }

    const std::function<bool(const std::vector<X509*>&)>& attempt;
    const PathSearchLimits& limits;
    std::vector<Candidate> pool;
    std::map<X509*, std::vector<Candidate>> issuers;
    int steps = 0;
    int offered = 0;
};

}  // namespace

bool searchPaths(X509* leaf, const std::vector<X509*>& untrusted, const std::vector<X509*>& trusted,
                 const std::function<bool(const std::vector<X509*>&)>& attempt,
                 const PathSearchLimits& limits) {
    Search search(untrusted, trusted, attempt, limits);
    std::vector<X509*> path{leaf};
    return search.extend(path);
}

}  // namespace foundation::certificates::detail
