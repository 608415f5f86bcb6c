#include "SignatureCache.hpp"

#include <cstring>
#include <new>

namespace foundation::certificates {

namespace detail {

std::size_t SignatureCache::DigestHash::operator()(const SignatureDigest& digest) const noexcept {
    // The digest is uniformly distributed already; its first bytes pick the shard, the next ones
    // the bucket.
    std::size_t value = 0;
    std::memcpy(&value, digest.data() + 8, sizeof value);
    return value;
}

SignatureCache::SignatureCache(std::size_t capacity) : capacity_(0) { setCapacity(capacity); }

SignatureCache::Shard& SignatureCache::shardFor(const SignatureDigest& digest) noexcept {
    return shards_[digest[0] % kShardCount];
}

// Spread as evenly as the shards allow: a capacity below the shard count leaves some shards
// without room, and what falls there is simply not remembered.
std::size_t SignatureCache::shardCapacity(std::size_t total, std::size_t index) noexcept {
    return total / kShardCount + (index < total % kShardCount ? 1 : 0);
}

bool SignatureCache::contains(const SignatureDigest& digest) noexcept {
    if (!enabled()) return false;
    Shard& shard = shardFor(digest);
    {
        const std::shared_lock<std::shared_mutex> lock(shard.mutex);
        const auto found = shard.entries.find(digest);
        if (found != shard.entries.end()) {
            // Written only when it changes, so steady hits on one entry leave its line shared.
            if (!found->second.load(std::memory_order_relaxed)) {
                found->second.store(true, std::memory_order_relaxed);
            }
            shard.hits.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    shard.misses.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void SignatureCache::Shard::evictOne() {
    // Every pass over a marked entry clears its mark, so this ends within one round.
    while (clock[hand]->second.exchange(false, std::memory_order_relaxed)) {
        hand = (hand + 1) % clock.size();
    }
    Entries::value_type* victim = clock[hand];
    clock[hand] = clock.back();
    clock.pop_back();
    if (hand >= clock.size()) hand = 0;
    entries.erase(victim->first);
}

void SignatureCache::insert(const SignatureDigest& digest) noexcept {
    if (!enabled()) return;
    Shard& shard = shardFor(digest);
    const std::unique_lock<std::shared_mutex> lock(shard.mutex);
    if (shard.capacity == 0 || shard.entries.count(digest) != 0) return;
    try {
        // Room in the clock first, so that a failure leaves the shard as it was.
        shard.clock.reserve(shard.clock.size() + 1);
        if (shard.entries.size() >= shard.capacity) shard.evictOne();
        auto inserted = shard.entries.try_emplace(digest, false).first;
        shard.clock.push_back(&*inserted);
    } catch (const std::bad_alloc&) {
        // Nothing is lost but the time the next verification of this signature takes.
    }
}

void SignatureCache::setCapacity(std::size_t entries) {
    const std::lock_guard<std::mutex> resizing(resizing_);
    capacity_.store(entries, std::memory_order_relaxed);
    for (std::size_t index = 0; index < kShardCount; ++index) {
        Shard& shard = shards_[index];
        const std::unique_lock<std::shared_mutex> lock(shard.mutex);
        shard.capacity = shardCapacity(entries, index);
        if (shard.capacity == 0) {
            // Off means the memory is given back too.
            Entries().swap(shard.entries);
            std::vector<Entries::value_type*>().swap(shard.clock);
            shard.hand = 0;
            continue;
        }
        while (shard.entries.size() > shard.capacity) shard.evictOne();
    }
}

SignatureCacheStatistics SignatureCache::statistics() const {
    SignatureCacheStatistics statistics;
    for (const Shard& shard : shards_) {
        statistics.hits += shard.hits.load(std::memory_order_relaxed);
        statistics.misses += shard.misses.load(std::memory_order_relaxed);
        const std::shared_lock<std::shared_mutex> lock(shard.mutex);
        statistics.entries += shard.entries.size();
    }
    statistics.capacity = capacity_.load(std::memory_order_relaxed);
    return statistics;
}

SignatureCache& signatureCache() {
    // Never destroyed: validations on other threads may still run while the process exits.
    static SignatureCache* const cache = new SignatureCache();
    return *cache;
}

}  // namespace detail

void setSignatureCacheCapacity(std::size_t entries) {
    detail::signatureCache().setCapacity(entries);
}

SignatureCacheStatistics getSignatureCacheStatistics() {
    return detail::signatureCache().statistics();
}

}  // namespace foundation::certificates
