// Validation with the signature cache beside raw OpenSSL verifying the same chain with the same
// flags: warm (every signature remembered), with a new leaf each time, and from an empty cache,
// on two chains shaped like the web's, and on several threads sharing one chain.
#include "BenchSupport.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <memory>
#include <string>
#include <vector>

namespace bench {

namespace {

namespace fc = foundation::certificates;

constexpr int kLeafPool = 256;

// A P-384 key needs the extended key acceptance, to load and to validate (the anchor handed
// back is checked like a loaded certificate); set only while a library side runs.
class ExtendedKeys {
  public:
    ExtendedKeys() : previous(fc::getKeyAcceptance()) {
        fc::setKeyAcceptance(fc::KeyAcceptance::Extended);
    }
    ~ExtendedKeys() { fc::setKeyAcceptance(previous); }
    ExtendedKeys(const ExtendedKeys&) = delete;
    ExtendedKeys& operator=(const ExtendedKeys&) = delete;

  private:
    fc::KeyAcceptance previous;
};

// One chain, its leaves for cold runs, and both sides' objects, made on first use: the RSA-4096
// key takes seconds, which other benchmarks should not pay for.
struct Chain {
    explicit Chain(PKI made) : pki(std::move(made)) {
        for (long serial = 100; serial < 100 + kLeafPool + 1; ++serial) {
            leaves.push_back(makeLeaf(pki, serial));
        }
        X509_STORE_add_cert(rawStore.get(), pki.root.get());
        X509_STORE_set_flags(rawStore.get(), kVerifyFlags);
        const ExtendedKeys extended;
        trust.addCertificate(fc::X509Certificate(toPEM(pki.root.get())));
        chain.addCertificate(fc::X509Certificate(toPEM(pki.intermediate.get())));
        leaf = std::make_unique<fc::X509Certificate>(toPEM(pki.leaf.get()));
        for (const Owned<X509>& each : leaves) libraryLeaves.emplace_back(toPEM(each.get()));
    }

    PKI pki;
    std::vector<Owned<X509>> leaves;  // the last one warms the chain up and is never timed
    Owned<X509_STORE> rawStore{X509_STORE_new()};
    X509Stack untrusted = makeStack({pki.intermediate.get()});
    fc::TrustStore trust;
    fc::X509CertificateChain chain;
    std::unique_ptr<fc::X509Certificate> leaf;
    std::vector<fc::X509Certificate> libraryLeaves;
};

const Chain& p384Chain() {
    static const Chain chain(makePKI("P-256 under P-384", "P-384", "P-256", "P-256"));
    return chain;
}

const Chain& rsa4096Chain() {
    static const Chain chain(
        makePKI("RSA-2048 under RSA-4096", "RSA-4096", "RSA-2048", "RSA-2048"));
    return chain;
}

int rawVerify(const Chain& c, X509* leaf) {
    Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), c.rawStore.get(), leaf, c.untrusted.get());
    return X509_verify_cert(context.get()) > 0 ? X509_V_OK
                                               : X509_STORE_CTX_get_error(context.get());
}

bool libraryValid(const fc::X509Certificate& leaf, const Chain& c) {
    return leaf.validateCertificate(c.chain, strictOptions(), c.trust)
               .getCertificateChainStatus() == fc::CertificateChainStatus::Valid;
}

// How the cache stands before each timed validation.
enum class Start { Warm, NewLeaf, Empty };

void registerChain(const std::string& key, const Chain& (*chain)()) {
    const std::string chainName = key == "p384" ? "P-256 leaf+intermediate, P-384 root"
                                                : "RSA-2048 leaf+intermediate, RSA-4096 root";
    const struct {
        Start start;
        const char* id;
        const char* what;
        double target;
    } shapes[] = {
        {Start::Warm, "warm", "warm cache", 0.5},
        {Start::NewLeaf, "newleaf", "a new leaf each time, chain remembered", 1.1},
        {Start::Empty, "empty", "emptied cache before each", 1.1},
    };
    for (const auto& shape : shapes) {
        const Start start = shape.start;
        registerPair(
            {std::string("signatureCache_") + shape.id + "_" + key,
             std::string("validateCertificate, ") + shape.what + " (" + chainName + ")",
             shape.target},
            [chain, start](benchmark::State& state) {
                const Chain& c = chain();
                if (!require(state, rawVerify(c, c.pki.leaf.get()) == X509_V_OK,
                             "raw verification fails")) {
                    return;
                }
                std::size_t next = 0;
                loop(state, [&] {
                    X509* leaf = c.pki.leaf.get();
                    if (start == Start::NewLeaf) {
                        // Paused on both sides alike.
                        state.PauseTiming();
                        leaf = c.leaves[next++ % kLeafPool].get();
                        state.ResumeTiming();
                    } else if (start == Start::Empty) {
                        state.PauseTiming();
                        state.ResumeTiming();
                    }
                    benchmark::DoNotOptimize(rawVerify(c, leaf));
                });
            },
            [chain, start](benchmark::State& state) {
                const Chain& c = chain();
                const ExtendedKeys extended;
                fc::setSignatureCacheCapacity(0);
                fc::setSignatureCacheCapacity(kSignatureCacheDefaultCapacity);
                if (!require(state, libraryValid(*c.leaf, c), "library validation fails")) return;
                std::size_t next = 0;
                loop(state, [&] {
                    const fc::X509Certificate* leaf = c.leaf.get();
                    if (start == Start::NewLeaf) {
                        state.PauseTiming();
                        if (next % kLeafPool == 0) {
                            // Forget the pool's leaves, keep the chain.
                            fc::setSignatureCacheCapacity(0);
                            fc::setSignatureCacheCapacity(kSignatureCacheDefaultCapacity);
                            libraryValid(c.libraryLeaves.back(), c);
                        }
                        leaf = &c.libraryLeaves[next++ % kLeafPool];
                        state.ResumeTiming();
                    } else if (start == Start::Empty) {
                        state.PauseTiming();
                        fc::setSignatureCacheCapacity(0);
                        fc::setSignatureCacheCapacity(kSignatureCacheDefaultCapacity);
                        state.ResumeTiming();
                    }
                    benchmark::DoNotOptimize(
                        leaf->validateCertificate(c.chain, strictOptions(), c.trust));
                });
                const fc::SignatureCacheStatistics statistics = fc::getSignatureCacheStatistics();
                state.counters["cache_hits"] = static_cast<double>(statistics.hits);
                state.counters["cache_misses"] = static_cast<double>(statistics.misses);
            });
    }

    // Warm validations of one shared chain on several threads at once.
    for (const int threads : {1, 2, 4}) {
        const std::string count = std::to_string(threads);
        registerPair(
            {"signatureCache_warm_" + key + "_threads" + count,
             "validateCertificate, warm cache, " + count + " thread(s) sharing one chain (" +
                 chainName + ")",
             0.5},
            [chain](benchmark::State& state) {
                const Chain& c = chain();
                loop(state, [&] { benchmark::DoNotOptimize(rawVerify(c, c.pki.leaf.get())); });
            },
            [chain](benchmark::State& state) {
                const Chain& c = chain();
                // The anchor handed back is checked like a loaded certificate. Every thread
                // sets the same value; the first restores it once all have left the loop.
                fc::setKeyAcceptance(fc::KeyAcceptance::Extended);
                if (!require(state, libraryValid(*c.leaf, c), "library validation fails")) return;
                loop(state, [&] {
                    benchmark::DoNotOptimize(
                        c.leaf->validateCertificate(c.chain, strictOptions(), c.trust));
                });
                if (state.thread_index() == 0) fc::setKeyAcceptance(fc::KeyAcceptance::Standard);
            },
            {0, threads});
    }
}

}  // namespace

void registerSignatureCacheBenchmarks() {
    registerChain("p384", p384Chain);
    registerChain("rsa4096", rsa4096Chain);
}

}  // namespace bench
