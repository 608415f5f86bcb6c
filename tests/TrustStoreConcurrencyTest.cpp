// One trust store filled, filtered, read and copied by several threads, while OpenSSL verifies
// through the live store it shares.
#include "support/TestCertificates.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <atomic>
#include <thread>
#include <vector>

namespace fc = foundation::certificates;
using fc::TrustStore;
using fc::X509Certificate;

namespace {

TEST(TrustStoreConcurrency, AddReadFilterAndCopyFromManyThreads) {
    constexpr int kPerWriter = 15;
    constexpr int kWriters = 2;
    std::vector<std::vector<X509Certificate>> toAdd(kWriters);
    for (int w = 0; w < kWriters; ++w) {
        for (int i = 0; i < kPerWriter; ++i) {
            const bool expired = i % 5 == 4;
            const fc::X509UPtr x = testsupport::makeQuickCertificate(
                "Concurrent " + std::to_string(w) + "/" + std::to_string(i), true, {},
                expired ? -30 * testsupport::kDay : -3600,
                expired ? -testsupport::kDay : 30 * testsupport::kDay);
            toAdd[w].emplace_back(testsupport::toPEM(x.get()));
        }
    }
    const auto& pki = testsupport::ecPKI();
    TrustStore store(nullptr);
    store.addCertificate(X509Certificate(testsupport::toPEM(pki.root.get())));
    const std::shared_ptr<X509_STORE> live = fc::getOpenSSLStore(store);

    constexpr int kRounds = 30;
    std::atomic<int> failures{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    const auto start = [&go] {
        while (!go) std::this_thread::yield();
    };
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            start();
            for (const X509Certificate& certificate : toAdd[w]) {
                store.addCertificate(certificate);
                if (store.empty()) ++failures;
            }
        });
    }
    threads.emplace_back([&] {  // filters under the store's list lock
        start();
        for (int i = 0; i < kRounds; ++i) store.addSystemCertificates(TrustStore::Usage::SSL, true);
    });
    threads.emplace_back([&] {
        start();
        for (int i = 0; i < kRounds; ++i) {
            for (const std::string& pem : store.getPEMStrings()) {
                if (X509Certificate(pem).empty()) ++failures;
            }
        }
    });
    for (int c = 0; c < 2; ++c) {
        threads.emplace_back([&] {
            start();
            for (int i = 0; i < kRounds; ++i) {
                const TrustStore copy(store);
                const auto raw = fc::copyOpenSSLStore(store);
                if (copy.empty() || raw == nullptr) ++failures;
            }
        });
    }
    threads.emplace_back([&] {  // OpenSSL lookups in the shared store during the edits
        start();
        for (int i = 0; i < kRounds; ++i) {
            std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(
                X509_STORE_CTX_new(), X509_STORE_CTX_free);
            if (!context ||
                X509_STORE_CTX_init(context.get(), live.get(), pki.intermediate.get(), nullptr) !=
                    1 ||
                X509_verify_cert(context.get()) != 1) {
                ++failures;
            }
        }
    });
    go = true;
    for (auto& thread : threads) thread.join();

    store.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(store.size(), 1u + kWriters * (kPerWriter - kPerWriter / 5));
    EXPECT_EQ(failures, 0);
}

}  // namespace
