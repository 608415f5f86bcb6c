// CrlCache: revocation lists kept between validations, by distribution point URL.
//
// Share one cache between validations and threads through RevocationFetchSettings::cache. A list
// stays until its next update, judged at the time of the validation that looks it up; a list
// without a next update is never handed out. Lists are shared, never copied. A cached list is
// used only for an issuer whose key verifies its signature, so a list preloaded or cached for
// one issuer never vouches for another.
//
//   auto cache = std::make_shared<foundation::certificates::CrlCache>();
//   cache->insert("http://crl.example.test/ca.crl", listFetchedByOurOwnJob);
#pragma once

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/Types.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace foundation::certificates {

namespace detail {
struct CrlCacheAccess;
}

class FOUNDATION_CERTIFICATES_EXPORT CrlCache {
  public:
    CrlCache();
    ~CrlCache();
    CrlCache(const CrlCache&) = delete;
    CrlCache& operator=(const CrlCache&) = delete;

    // The list cached for the URL when its next update lies after `at`. A list whose next
    // update has passed is dropped.
    std::optional<CertificateRevocationList> find(const std::string& url, TimePoint at) const;

    // Adds or replaces the URL's list (a preload). Throws CertificateRevocationListException
    // "Error: CertificateRevocationList has no content." for an empty list.
    void insert(const std::string& url, CertificateRevocationList list);

    // The next validation that needs the URL's list downloads it again.
    void invalidate(const std::string& url);
    void clear();

    std::size_t size() const;

  private:
    friend struct detail::CrlCacheAccess;
    struct State;

    std::unique_ptr<State> state;
};

}  // namespace foundation::certificates
