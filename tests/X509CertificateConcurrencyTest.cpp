// One certificate shared by several threads: reads, copies, assignments and comparisons.
#include "support/TestCertificates.hpp"

#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

namespace fc = foundation::certificates;
using fc::X509Certificate;

namespace {

TEST(X509CertificateConcurrency, SharedCertificateIsSafeToUseFromManyThreads) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate shared(testsupport::toPEM(pki.leaf.get()));
    const X509Certificate other(testsupport::toPEM(pki.root.get()));
    const std::string expectedFingerprint = shared.getSHA256Fingerprint();
    std::atomic<int> mismatches{0};

    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            X509Certificate assigned;
            for (int i = 0; i < 40; ++i) {
                X509Certificate copy(shared);
                assigned = shared;
                std::ostringstream printed;
                shared.print(printed);
                const bool ok = copy.getSHA256Fingerprint() == expectedFingerprint &&
                                assigned == shared && shared == shared &&
                                (t % 2 == 0 ? shared != other : other != shared) &&
                                !shared.getSubjectName().empty() &&
                                shared.getPublicKeyInfo().getKeySize() == 2048 &&
                                !shared.isCACertificate() && !shared.isValidForDigitalSigning() &&
                                shared.getAsBytes() == copy.clone().getAsBytes();
                if (!ok) ++mismatches;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, 0);
}

}  // namespace
