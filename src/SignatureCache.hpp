// The process-wide memory of signatures that verified.
//
// A certificate's signature under a given key verifies today exactly as it did yesterday, so a
// success is remembered by a digest of what was verified and never checked again. Failures are
// not remembered: a bad signature is verified, and reported, every time.
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace foundation::certificates::detail {

// SHA-256 over the signed certificate's DER and the issuer's SubjectPublicKeyInfo DER.
using SignatureDigest = std::array<unsigned char, 32>;

// Split into shards, each with its own reader-writer lock, so that concurrent hits share a lock
// only when they look up the same shard, and then only as readers. Each shard evicts by the clock
// (second chance): a hit marks its entry, the sweep spares marked entries once.
class SignatureCache {
  public:
    static constexpr std::size_t kDefaultCapacity = 16384;
    static constexpr std::size_t kShardCount = 16;

    explicit SignatureCache(std::size_t capacity = kDefaultCapacity);
    SignatureCache(const SignatureCache&) = delete;
    SignatureCache& operator=(const SignatureCache&) = delete;

    bool enabled() const noexcept { return capacity_.load(std::memory_order_relaxed) != 0; }

    // Whether the digest is remembered; counts a hit or a miss. Always false when disabled.
    bool contains(const SignatureDigest& digest) noexcept;
    // Remembers a verified signature. Never throws: an entry that cannot be stored is forgotten.
    void insert(const SignatureDigest& digest) noexcept;

    // Evicts down to the new capacity at once; 0 empties the cache and disables it.
    void setCapacity(std::size_t entries);
    SignatureCacheStatistics statistics() const;

  private:
    struct DigestHash {
        std::size_t operator()(const SignatureDigest& digest) const noexcept;
    };
    using Entries = std::unordered_map<SignatureDigest, std::atomic<bool>, DigestHash>;

    struct alignas(64) Shard {
        mutable std::shared_mutex mutex;
        Entries entries;                          // digest -> referenced since the last sweep
        std::vector<Entries::value_type*> clock;  // every entry once, in sweep order
        std::size_t hand = 0;
        std::size_t capacity = 0;
        std::atomic<std::uint64_t> hits{0};
        std::atomic<std::uint64_t> misses{0};

        void evictOne();
    };

    Shard& shardFor(const SignatureDigest& digest) noexcept;
    static std::size_t shardCapacity(std::size_t total, std::size_t index) noexcept;

    std::mutex resizing_;  // one capacity change at a time, so every shard gets the same one
    std::atomic<std::size_t> capacity_;
    std::array<Shard, kShardCount> shards_;
};

// The cache every validation of the process shares.
SignatureCache& signatureCache();

}  // namespace foundation::certificates::detail
