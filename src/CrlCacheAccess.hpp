// How validation uses a CrlCache: lookups that check the issuer's key, and one download at a
// time per URL.
#pragma once

#include <foundation/certificates/CrlCache.hpp>

#include <openssl/evp.h>

#include <chrono>
#include <optional>
#include <string>

namespace foundation::certificates::detail {

struct CrlCacheAccess {
    // Held by the one caller that downloads a URL's list; the others wait for it instead of
    // downloading the same list. Releasing it wakes them.
    class Claim {
      public:
        Claim() = default;
        Claim(CrlCache::State* state, std::string url) : state_(state), url_(std::move(url)) {}
        Claim(Claim&& other) noexcept;
        Claim& operator=(Claim&& other) = delete;
        ~Claim();

      private:
        CrlCache::State* state_ = nullptr;
        std::string url_;
    };

    struct Lookup {
        std::optional<CertificateRevocationList> list;  // fresh at `at` and signed by the key
        Claim claim;                                    // otherwise: the caller downloads
    };

    // Waits while another caller downloads the URL's list, at most until `waitUntil` (none:
    // as long as that takes); after that the caller downloads it too.
    static Lookup lookup(CrlCache& cache, const std::string& url, EVP_PKEY* issuerKey, TimePoint at,
                         std::optional<std::chrono::steady_clock::time_point> waitUntil);

    // Keeps a downloaded list that the key verified.
    static void store(CrlCache& cache, const std::string& url, CertificateRevocationList list,
                      EVP_PKEY* verifiedWith);
};

}  // namespace foundation::certificates::detail
