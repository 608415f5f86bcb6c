#include <foundation/certificates/CrlCache.hpp>

#include "CrlCacheAccess.hpp"
#include "RevocationListAccess.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace foundation::certificates {

namespace {

using KeyRef = std::shared_ptr<EVP_PKEY>;

KeyRef keyRef(EVP_PKEY* key) {
    if (key == nullptr || EVP_PKEY_up_ref(key) != 1) return nullptr;
    return KeyRef(key, EVP_PKEY_free);
}

bool sameKey(const EVP_PKEY* known, const EVP_PKEY* key) {
    if (known == nullptr || key == nullptr) return false;
    if (known == key) return true;
    const bool equal = EVP_PKEY_eq(known, key) == 1;
    ERR_clear_error();
    return equal;
}

}  // namespace

struct CrlCache::State {
    struct Entry {
        CertificateRevocationList list;
        std::optional<TimePoint> nextUpdate;
        KeyRef verifiedWith;  // the last issuer key its signature verified with

        bool freshAt(TimePoint at) const { return nextUpdate && at < *nextUpdate; }
    };

    mutable std::mutex mutex;
    std::condition_variable downloaded;
    std::unordered_map<std::string, Entry> entries;
    std::unordered_set<std::string> downloading;

    void put(const std::string& url, CertificateRevocationList list, KeyRef key) {
        const std::optional<TimePoint> next = list.getNextUpdateTimePoint();
        const std::lock_guard<std::mutex> lock(mutex);
        entries.insert_or_assign(url, Entry{std::move(list), next, std::move(key)});
    }
};

CrlCache::CrlCache() : state(std::make_unique<State>()) {}

CrlCache::~CrlCache() = default;

std::optional<CertificateRevocationList> CrlCache::find(const std::string& url,
                                                        TimePoint at) const {
    const std::lock_guard<std::mutex> lock(state->mutex);
    const auto found = state->entries.find(url);
    if (found == state->entries.end()) return std::nullopt;
    if (!found->second.freshAt(at)) {
        state->entries.erase(found);
        return std::nullopt;
    }
    return found->second.list;
}

void CrlCache::insert(const std::string& url, CertificateRevocationList list) {
    if (list.empty()) {
        throw CertificateRevocationListException(
            "Error: CertificateRevocationList has no content.");
    }
    state->put(url, std::move(list), nullptr);
}

void CrlCache::invalidate(const std::string& url) {
    const std::lock_guard<std::mutex> lock(state->mutex);
    state->entries.erase(url);
}

void CrlCache::clear() {
    const std::lock_guard<std::mutex> lock(state->mutex);
    state->entries.clear();
}

std::size_t CrlCache::size() const {
    const std::lock_guard<std::mutex> lock(state->mutex);
    return state->entries.size();
}

namespace detail {

CrlCacheAccess::Claim::Claim(Claim&& other) noexcept
    : state_(std::exchange(other.state_, nullptr)), url_(std::move(other.url_)) {}

CrlCacheAccess::Claim::~Claim() {
    if (state_ == nullptr) return;
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->downloading.erase(url_);
    }
    state_->downloaded.notify_all();
}

CrlCacheAccess::Lookup CrlCacheAccess::lookup(
    CrlCache& cache, const std::string& url, EVP_PKEY* issuerKey, TimePoint at,
    std::optional<std::chrono::steady_clock::time_point> waitUntil) {
    CrlCache::State& state = *cache.state;
    std::unique_lock<std::mutex> lock(state.mutex);
    for (;;) {
        const auto found = state.entries.find(url);
        if (found != state.entries.end() && !found->second.freshAt(at)) {
            state.entries.erase(found);
        } else if (found != state.entries.end()) {
            CrlCache::State::Entry entry = found->second;
            if (sameKey(entry.verifiedWith.get(), issuerKey)) return {entry.list, {}};
            // A signature check takes long enough not to hold up every other lookup.
            lock.unlock();
            const bool verified =
                X509_CRL_verify(RevocationListAccess::shared(entry.list), issuerKey) == 1;
            ERR_clear_error();
            lock.lock();
            if (verified) {
                const auto again = state.entries.find(url);
                if (again != state.entries.end() &&
                    RevocationListAccess::same(again->second.list, entry.list)) {
                    again->second.verifiedWith = keyRef(issuerKey);
                }
                return {entry.list, {}};
            }
            // Not this issuer's list: download the right one.
        }
        if (state.downloading.insert(url).second) return {std::nullopt, Claim(&state, url)};
        if (!waitUntil) {
            state.downloaded.wait(lock);
        } else if (state.downloaded.wait_until(lock, *waitUntil) == std::cv_status::timeout) {
            return {std::nullopt, {}};
        }
    }
}

void CrlCacheAccess::store(CrlCache& cache, const std::string& url, CertificateRevocationList list,
                           EVP_PKEY* verifiedWith) {
    cache.state->put(url, std::move(list), keyRef(verifiedWith));
}

}  // namespace detail

}  // namespace foundation::certificates
