// One trust store filled, filtered, read and copied by several threads, while OpenSSL verifies
// through the live store it shares.
#include "support/Stress.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace fc = foundation::certificates;
using fc::TrustStore;
using fc::X509Certificate;
using Options = fc::CertificateValidationOptions;
using namespace std::chrono_literals;

namespace {

TEST(TrustStoreConcurrency, AddReadFilterAndCopyFromManyThreads) {
    constexpr int kCertificates = 30;  // every fifth one expired, shared by two writers
    constexpr int kRounds = 30;
    std::vector<X509Certificate> toAdd[2];
    for (int i = 0; i < kCertificates; ++i) {
        const long shift = i % 5 == 4 ? -31 * testsupport::kDay : 0;
        toAdd[i % 2].emplace_back(
            testsupport::makeQuickCertificate("Concurrent " + std::to_string(i), true, {},
                                              shift - 3600, shift + 30 * testsupport::kDay)
                .get());
    }
    const auto& pki = testsupport::ecPKI();
    TrustStore store(nullptr);
    store.addCertificate(X509Certificate(pki.root.get()));
    const std::shared_ptr<X509_STORE> live = fc::getOpenSSLStore(store);

    std::atomic<int> failures{0};
    std::vector<std::function<void()>> jobs;
    for (const auto& certificates : toAdd) {
        jobs.emplace_back([&] {
            for (const X509Certificate& certificate : certificates) {
                store.addCertificate(certificate);
                failures += store.empty();
            }
        });
    }
    jobs.emplace_back([&] {  // filters under the store's list lock
        for (int i = 0; i < kRounds; ++i) store.addSystemCertificates(TrustStore::Usage::SSL, true);
    });
    jobs.emplace_back([&] {
        for (int i = 0; i < kRounds; ++i) {
            for (const std::string& pem : store.getPEMStrings())
                failures += X509Certificate(pem).empty();
        }
    });
    for (int c = 0; c < 2; ++c) {
        jobs.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                failures += TrustStore(store).empty() || !fc::copyOpenSSLStore(store);
            }
        });
    }
    jobs.emplace_back([&] {  // OpenSSL lookups in the shared store during the edits
        for (int i = 0; i < kRounds; ++i) {
            const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(
                X509_STORE_CTX_new(), X509_STORE_CTX_free);
            X509_STORE_CTX_init(context.get(), live.get(), pki.intermediate.get(), nullptr);
            failures += X509_verify_cert(context.get()) != 1;
        }
    });
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (const auto& job : jobs) {
        threads.emplace_back([&go, &job] {
            while (!go) std::this_thread::yield();
            job();
        });
    }
    go = true;
    for (auto& thread : threads) thread.join();

    store.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(store.size(), 1u + kCertificates - kCertificates / 5);
    EXPECT_EQ(failures, 0);
}

// Validations against a store that other threads import into, copy, reassign and swap: a
// validation sees the store from before or after each change, and both trust the root.
TEST(TrustStoreConcurrency, ValidationsDuringImportsAndAssignments) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate root(pki.root.get()), leaf(pki.leaf.get());
    const fc::X509CertificateChain chain(testsupport::toPEM(pki.intermediate.get()));
    const Options strict(Options::AllowSelfSignedCertificate::No,
                         Options::AllowExpiredCertificate::No, Options::AllowRevokedCertificate::No,
                         Options::CheckCRL::None, Options::DownloadCRL::No);
    TrustStore small(nullptr), large(nullptr);
    small.addCertificate(root);
    large.addCertificate(root);
    large.addCertificate(X509Certificate(pki.intermediate.get()));
    TrustStore shared = small;

    const auto outcomes = testsupport::runStress(
        {{"validation",
          [&] {
              return leaf.validateCertificate(chain, strict, shared).getCertificateChainStatus() ==
                     fc::CertificateChainStatus::Valid;
          }},
         {"reads",
          [&] {
              const TrustStore copy(shared);
              const std::size_t size = copy.size();
              return (size == 1 || size == 2) && copy.getPEMStrings().size() == size &&
                     fc::copyOpenSSLStore(shared) != nullptr;
          }},
         {"import",
          [&] {
              shared.addSystemCertificates(TrustStore::Usage::SSL, true);  // filters only
              shared.addCertificate(root);
              return !shared.empty();
          }},
         {"assignment",
          [&] {
              shared = large;
              TrustStore taken = small;
              shared = std::move(taken);  // exchanges
              return taken.size() == 1 || taken.size() == 2;
          }},
         {"swap",
          [&, mine = large]() mutable {
              mine.swap(shared);
              return mine.size() == 1 || mine.size() == 2;
          }}},
        1500ms);
    testsupport::expectHealthy(outcomes);
}

}  // namespace
