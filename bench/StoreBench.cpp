// Chains, trust stores, certificate validation and PKCS#7 signature verification, each beside
// the OpenSSL calls that do the same work.
#include "BenchSupport.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace bench {

namespace {

namespace fc = foundation::certificates;

std::vector<fc::X509Certificate> acceptedCertificates() {
    std::vector<fc::X509Certificate> certificates;
    for (const std::string& pem : inputs().bundle.acceptedPEM) certificates.emplace_back(pem);
    return certificates;
}

// The test root and the accepted bundle roots, once as a raw store and once as a TrustStore.
Owned<X509_STORE> rawStoreWith(const PKI& pki, unsigned long flags) {
    Owned<X509_STORE> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), pki.root.get());
    for (X509* root : inputs().bundle.accepted) X509_STORE_add_cert(store.get(), root);
    if (flags != 0) X509_STORE_set_flags(store.get(), flags);
    return store;
}

fc::TrustStore trustStoreWith(const PKI& pki) {
    fc::TrustStore store;
    store.addCertificate(fc::X509Certificate(toPEM(pki.root.get())));
    for (const fc::X509Certificate& root : acceptedCertificates()) store.addCertificate(root);
    return store;
}

int rawVerify(X509_STORE* store, X509* leaf, STACK_OF(X509) * untrusted,
              const std::function<void(X509_VERIFY_PARAM*)>& configure = nullptr) {
    Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store, leaf, untrusted);
    if (configure) configure(X509_STORE_CTX_get0_param(context.get()));
    const int verified = X509_verify_cert(context.get());
    return verified > 0 ? X509_V_OK : X509_STORE_CTX_get_error(context.get());
}

// The leaf's name, and a fixed time inside every test certificate's validity.
constexpr char kLeafHost[] = "leaf.bench.test";
const std::chrono::system_clock::time_point& validationTime() {
    static const auto time = std::chrono::system_clock::now() - std::chrono::minutes(1);
    return time;
}

void registerChainAndStore() {
    const Bundle& bundle = inputs().bundle;
    const std::string note = std::to_string(bundle.accepted.size()) + " of " +
                             std::to_string(bundle.all.size()) + " bundle certs";

    registerPair(
        {"X509CertificateChain_bundle",
         "X509CertificateChain from bundle text (vs PEM_X509_INFO_read_bio; " + note + ")", 1.2},
        [&bundle](benchmark::State& state) {
            const std::string& text = bundle.acceptedText;
            loop(state, [&text] {
                Owned<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
                STACK_OF(X509_INFO)* records =
                    PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr);
                benchmark::DoNotOptimize(records);
                sk_X509_INFO_pop_free(records, X509_INFO_free);
            });
        },
        [&bundle](benchmark::State& state) {
            const std::string& text = bundle.acceptedText;
            if (!require(
                    state,
                    fc::X509CertificateChain(text).getNumCertificates() == bundle.accepted.size(),
                    "the chain does not hold every certificate")) {
                return;
            }
            loop(state, [&text] {
                fc::X509CertificateChain chain(text);
                benchmark::DoNotOptimize(chain);
            });
        });

    registerPair(
        {"TrustStore_addCertificate_bundle",
         "TrustStore filled by addCertificate (vs X509_STORE_add_cert; " + note + ")", 1.5},
        [&bundle](benchmark::State& state) {
            loop(state, [&bundle] {
                Owned<X509_STORE> store(X509_STORE_new());
                for (X509* root : bundle.accepted) X509_STORE_add_cert(store.get(), root);
                benchmark::DoNotOptimize(store.get());
            });
        },
        [&bundle](benchmark::State& state) {
            const std::vector<fc::X509Certificate> roots = acceptedCertificates();
            {
                fc::TrustStore store;
                for (const fc::X509Certificate& root : roots) store.addCertificate(root);
                if (!require(state, store.size() == bundle.accepted.size(), "store size differs"))
                    return;
            }
            loop(state, [&roots] {
                fc::TrustStore store;
                for (const fc::X509Certificate& root : roots) store.addCertificate(root);
                benchmark::DoNotOptimize(store);
            });
        });
}

void registerValidation() {
    for (const PKI* pki : {&inputs().rsa, &inputs().ec}) {
        const std::string key = pki == &inputs().rsa ? "rsa" : "p256";
        const std::string storeSize = std::to_string(inputs().bundle.accepted.size() + 1);

        registerPair(
            {"validateCertificate_store_" + key,
             "validateCertificate, store of test root + bundle (" + pki->name + ", " + storeSize +
                 " roots)",
             1.5},
            [pki](benchmark::State& state) {
                const Owned<X509_STORE> store = rawStoreWith(*pki, kVerifyFlags);
                const X509Stack untrusted = makeStack({pki->intermediate.get()});
                if (!require(state,
                             rawVerify(store.get(), pki->leaf.get(), untrusted.get()) == X509_V_OK,
                             "raw verification fails")) {
                    return;
                }
                loop(state, [&store, pki, &untrusted] {
                    benchmark::DoNotOptimize(
                        rawVerify(store.get(), pki->leaf.get(), untrusted.get()));
                });
            },
            [pki](benchmark::State& state) {
                const fc::TrustStore store = trustStoreWith(*pki);
                const fc::X509Certificate leaf(toPEM(pki->leaf.get()));
                fc::X509CertificateChain chain;
                chain.addCertificate(fc::X509Certificate(toPEM(pki->intermediate.get())));
                const auto first = leaf.validateCertificate(chain, strictOptions(), store);
                if (!require(state,
                             first.getCertificateChainStatus() == fc::CertificateChainStatus::Valid,
                             "library validation fails: " + first.getValidationErrorString())) {
                    return;
                }
                loop(state, [&] {
                    benchmark::DoNotOptimize(
                        leaf.validateCertificate(chain, strictOptions(), store));
                });
            });

        registerPair(
            {"validateCertificate_platform_" + key,
             "validateCertificate, empty store = platform roots, 2nd+ call (" + pki->name + ")",
             3.0},
            [pki](benchmark::State& state) {
                // The same roots the library reads: SSL_CERT_FILE, loaded once.
                Owned<X509_STORE> store(X509_STORE_new());
                if (!require(
                        state,
                        X509_STORE_load_file(store.get(), inputs().combinedBundlePath.c_str()) == 1,
                        "cannot load " + inputs().combinedBundlePath)) {
                    return;
                }
                X509_STORE_set_flags(store.get(), kVerifyFlags);
                const X509Stack untrusted = makeStack({pki->intermediate.get()});
                if (!require(state,
                             rawVerify(store.get(), pki->leaf.get(), untrusted.get()) == X509_V_OK,
                             "raw verification fails")) {
                    return;
                }
                loop(state, [&store, pki, &untrusted] {
                    benchmark::DoNotOptimize(
                        rawVerify(store.get(), pki->leaf.get(), untrusted.get()));
                });
            },
            [pki](benchmark::State& state) {
                const fc::TrustStore empty;
                const fc::X509Certificate leaf(toPEM(pki->leaf.get()));
                fc::X509CertificateChain chain;
                chain.addCertificate(fc::X509Certificate(toPEM(pki->intermediate.get())));
                // The first call of the process may read the bundle; later calls are measured.
                const auto first = leaf.validateCertificate(chain, strictOptions(), empty);
                if (!require(state,
                             first.getCertificateChainStatus() == fc::CertificateChainStatus::Valid,
                             "library validation fails: " + first.getValidationErrorString())) {
                    return;
                }
                loop(state, [&] {
                    benchmark::DoNotOptimize(
                        leaf.validateCertificate(chain, strictOptions(), empty));
                });
            });
    }

    // A server's objects, used by several threads at once: one certificate, chain and store
    // shared by all (or a copy of the certificate per thread), beside raw verifications sharing
    // one X509_STORE, each with its own context. Timed by the wall clock. The signature cache is
    // off: with it on, the library skips the work these rows compare and would hide any waiting.
    struct Shared {
        const PKI& pki = inputs().rsa;
        fc::TrustStore store = trustStoreWith(pki);
        fc::X509Certificate leaf{toPEM(pki.leaf.get())};
        fc::X509CertificateChain chain{toPEM(pki.intermediate.get())};
        Owned<X509_STORE> rawStore = rawStoreWith(pki, kVerifyFlags);
        X509Stack untrusted = makeStack({pki.intermediate.get()});
    };
    const auto shared = std::make_shared<const Shared>();
    for (const int threads : {1, 2, 4}) {
        for (const bool copies : {false, true}) {
            const std::string count = std::to_string(threads);
            registerPair(
                {std::string("validateCertificate_") + (copies ? "copies" : "shared") + "_threads" +
                     count,
                 "validateCertificate on " + count + " thread(s), " +
                     (copies ? "a copy of the certificate each" : "one shared certificate") +
                     " (RSA-2048, signature cache off, vs one shared X509_STORE)",
                 1.0 / 0.9},
                [shared](benchmark::State& state) {
                    X509* leaf = shared->pki.leaf.get();
                    if (!require(state,
                                 rawVerify(shared->rawStore.get(), leaf, shared->untrusted.get()) ==
                                     X509_V_OK,
                                 "raw verification fails")) {
                        return;
                    }
                    loop(state, [&] {
                        benchmark::DoNotOptimize(
                            rawVerify(shared->rawStore.get(), leaf, shared->untrusted.get()));
                    });
                },
                [shared, copies](benchmark::State& state) {
                    // Every thread sets the same value; the first restores it once all have
                    // left the loop.
                    fc::setSignatureCacheCapacity(0);
                    const fc::X509Certificate copy(shared->leaf);
                    const fc::X509Certificate& leaf = copies ? copy : shared->leaf;
                    const auto first =
                        leaf.validateCertificate(shared->chain, strictOptions(), shared->store);
                    if (require(
                            state,
                            first.getCertificateChainStatus() == fc::CertificateChainStatus::Valid,
                            "library validation fails")) {
                        loop(state, [&] {
                            benchmark::DoNotOptimize(leaf.validateCertificate(
                                shared->chain, strictOptions(), shared->store));
                        });
                    }
                    if (state.thread_index() == 0) {
                        fc::setSignatureCacheCapacity(kSignatureCacheDefaultCapacity);
                    }
                },
                {0, threads});
        }
    }
}

// Host name and time set on both sides: what the library adds to a verification that checks a
// name at a chosen time.
void registerValidationWithRequirements() {
    for (const PKI* pki : {&inputs().rsa, &inputs().ec}) {
        const std::string key = pki == &inputs().rsa ? "rsa" : "p256";
        registerPair(
            {"validateCertificate_host_time_" + key,
             "validateCertificate with host name and time, store of test root (" + pki->name + ")",
             1.1},
            [pki](benchmark::State& state) {
                Owned<X509_STORE> store(X509_STORE_new());
                X509_STORE_add_cert(store.get(), pki->root.get());
                X509_STORE_set_flags(store.get(), kVerifyFlags);
                const X509Stack untrusted = makeStack({pki->intermediate.get()});
                const time_t seconds = std::chrono::system_clock::to_time_t(validationTime());
                const auto requirements = [seconds](X509_VERIFY_PARAM* param) {
                    X509_VERIFY_PARAM_set_time(param, seconds);
                    X509_VERIFY_PARAM_set_hostflags(
                        param,
                        X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
                    X509_VERIFY_PARAM_set1_host(param, kLeafHost, 0);
                };
                if (!require(state,
                             rawVerify(store.get(), pki->leaf.get(), untrusted.get(),
                                       requirements) == X509_V_OK,
                             "raw verification fails")) {
                    return;
                }
                loop(state, [&] {
                    benchmark::DoNotOptimize(
                        rawVerify(store.get(), pki->leaf.get(), untrusted.get(), requirements));
                });
            },
            [pki](benchmark::State& state) {
                fc::TrustStore store;
                store.addCertificate(fc::X509Certificate(toPEM(pki->root.get())));
                const fc::X509Certificate leaf(toPEM(pki->leaf.get()));
                fc::X509CertificateChain chain;
                chain.addCertificate(fc::X509Certificate(toPEM(pki->intermediate.get())));
                auto options = strictOptions();
                options.withHostName(kLeafHost).withValidationTime(validationTime());
                timeValidations(state, leaf, chain, options, store);
            });
    }
}

// The web PKI profile against the same validation without it: both sides are the library, same
// chain, host and time, so the ratio is the profile's own cost.
void registerProfileValidation() {
    for (const PKI* pki : {&inputs().rsa, &inputs().ec}) {
        const std::string key = pki == &inputs().rsa ? "rsa" : "p256";
        const auto validation = [pki](fc::ValidationProfile profile) {
            return [pki, profile](benchmark::State& state) {
                fc::TrustStore store;
                store.addCertificate(fc::X509Certificate(toPEM(pki->root.get())));
                const fc::X509Certificate leaf(toPEM(pki->leaf.get()));
                fc::X509CertificateChain chain;
                chain.addCertificate(fc::X509Certificate(toPEM(pki->intermediate.get())));
                auto options = strictOptions();
                options.withHostName(kLeafHost)
                    .withValidationTime(validationTime())
                    .withPurpose(fc::CertificatePurpose::TLSServer)
                    .withProfile(profile);
                timeValidations(state, leaf, chain, options, store);
            };
        };
        // "raw" here is the library without the profile.
        registerPair({"validateCertificate_webpki_" + key,
                      "validateCertificate, WebPKI profile vs RFC5280, host, time, TLS server (" +
                          pki->name + ")",
                      1.15},
                     validation(fc::ValidationProfile::RFC5280),
                     validation(fc::ValidationProfile::WebPKI));
    }
}

// verifySignature is newer than this suite; the row runs once the header declares it.
template <typename PKCS7Type, typename = void>
struct HasVerifySignature : std::false_type {};
template <typename PKCS7Type>
struct HasVerifySignature<
    PKCS7Type, std::void_t<decltype(std::declval<const PKCS7Type&>().verifySignature(
                   std::declval<const fc::X509CertificateChain&>(),
                   std::declval<const fc::TrustStore&>(), std::declval<const ByteArray&>()))>>
    : std::true_type {};

template <typename PKCS7Type>
void libraryVerifySignature(benchmark::State& state, const ByteArray& der) {
    if constexpr (HasVerifySignature<PKCS7Type>::value) {
        const fc::TrustStore store = trustStoreWith(inputs().rsa);
        const PKCS7Type pkcs7(der);
        const fc::X509CertificateChain noChain;
        const ByteArray attached;
        const auto first = pkcs7.verifySignature(noChain, store, attached);
        if (!require(state, first.isValidSignature(),
                     "library verification fails: " + first.getValidationErrorString())) {
            return;
        }
        loop(state,
             [&] { benchmark::DoNotOptimize(pkcs7.verifySignature(noChain, store, attached)); });
    } else {
        static_cast<void>(der);
        state.SkipWithError("PKCS7Certificate::verifySignature is not declared in this build");
    }
}

void registerSignatureVerification() {
    const PKI& pki = inputs().rsa;
    const ByteArray der = makeSignedPKCS7(pki, 1024);
    const std::string storeSize = std::to_string(inputs().bundle.accepted.size() + 1);
    registerPair(
        {"PKCS7_verifySignature",
         "PKCS7Certificate::verifySignature, 1 KiB attached (" + pki.name + ", " + storeSize +
             " roots)",
         1.5},
        [der, &pki](benchmark::State& state) {
            // No store flags: the library verifies with a copy of the store's certificates only.
            const Owned<X509_STORE> store = rawStoreWith(pki, 0);
            const unsigned char* cursor = der.data();
            const Owned<PKCS7> pkcs7(d2i_PKCS7(nullptr, &cursor, static_cast<long>(der.size())));
            const auto verify = [&store, &pkcs7] {
                return PKCS7_verify(pkcs7.get(), nullptr, store.get(), nullptr, nullptr,
                                    PKCS7_NO_DUAL_CONTENT);
            };
            if (!require(state, pkcs7 && verify() == 1, "raw verification fails")) return;
            loop(state, [&verify] { benchmark::DoNotOptimize(verify()); });
        },
        [der](benchmark::State& state) {
            libraryVerifySignature<fc::PKCS7Certificate>(state, der);
        });
}

}  // namespace

void registerStoreBenchmarks() {
    registerChainAndStore();
    registerValidation();
    registerValidationWithRequirements();
    registerProfileValidation();
    registerSignatureVerification();
}

}  // namespace bench
