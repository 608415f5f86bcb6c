// Revocation: validation with every level's list at hand (from a warm cache) beside OpenSSL with
// the same lists in its store, and loading a very large list beside d2i_X509_CRL.
#include "BenchSupport.hpp"
#include "LargeList.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/CrlCache.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <memory>

namespace bench {

namespace {

namespace fc = foundation::certificates;
using Options = fc::CertificateValidationOptions;

constexpr unsigned long kFullChainFlags = 0xC06C;  // the usual flags plus CRL_CHECK(_ALL)
constexpr std::size_t kLargeListEntries = 1000000;

fc::CertificateRevocationList libraryList(const X509_CRL* list) {
    return fc::CertificateRevocationList(toDER(list));
}

void registerWarmCacheValidation() {
    for (const PKI* pki : {&inputs().rsa, &inputs().ec}) {
        const std::string key = pki == &inputs().rsa ? "rsa" : "p256";
        registerPair(
            {"validateCertificate_FullChain_cache_" + key,
             "validateCertificate FullChain, lists from a warm cache (vs lists in the store; " +
                 pki->name + ")",
             1.2},
            [pki](benchmark::State& state) {
                Owned<X509_STORE> store(X509_STORE_new());
                X509_STORE_add_cert(store.get(), pki->root.get());
                X509_STORE_add_crl(store.get(), pki->leafList.get());
                X509_STORE_add_crl(store.get(), pki->intermediateList.get());
                X509_STORE_set_flags(store.get(), kFullChainFlags);
                const X509Stack untrusted = makeStack({pki->intermediate.get()});
                const auto verify = [&] {
                    Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
                    X509_STORE_CTX_init(context.get(), store.get(), pki->leaf.get(),
                                        untrusted.get());
                    return X509_verify_cert(context.get());
                };
                if (!require(state, verify() == 1, "raw verification fails")) return;
                loop(state, [&] { benchmark::DoNotOptimize(verify()); });
            },
            [pki](benchmark::State& state) {
                fc::TrustStore store;
                store.addCertificate(fc::X509Certificate(toPEM(pki->root.get())));
                const fc::X509Certificate leaf(toPEM(pki->leaf.get()));
                fc::X509CertificateChain chain;
                chain.addCertificate(fc::X509Certificate(toPEM(pki->intermediate.get())));
                fc::RevocationFetchSettings settings;
                settings.cache = std::make_shared<fc::CrlCache>();
                settings.cache->insert(pki->leafListUrl, libraryList(pki->leafList.get()));
                settings.cache->insert(pki->intermediateListUrl,
                                       libraryList(pki->intermediateList.get()));
                Options options(Options::AllowSelfSignedCertificate::No,
                                Options::AllowExpiredCertificate::No,
                                Options::AllowRevokedCertificate::No, Options::CheckCRL::FullChain,
                                Options::DownloadCRL::ThrowOnError);
                options.withRevocationFetch(settings);
                timeValidations(state, leaf, chain, options, store);
            });
    }
}

const ByteArray& largeList() {
    static const ByteArray list = makeLargeList(kLargeListEntries);
    return list;
}

void registerLargeListLoading() {
    registerPair(
        {"CertificateRevocationList_DER_1M",
         "CertificateRevocationList from DER, 1,000,000 entries (vs d2i_X509_CRL)", 1.1},
        [](benchmark::State& state) {
            const ByteArray& der = largeList();
            loop(state, [&der] {
                const unsigned char* cursor = der.data();
                Owned<X509_CRL> list(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size())));
                benchmark::DoNotOptimize(list.get());
            });
        },
        [](benchmark::State& state) {
            const ByteArray& der = largeList();
            loop(state, [&der] {
                fc::CertificateRevocationList list(der);
                benchmark::DoNotOptimize(list);
            });
        },
        PairOptions{3});
}

}  // namespace

void registerRevocationBenchmarks() {
    registerWarmCacheValidation();
    registerLargeListLoading();
}

}  // namespace bench
