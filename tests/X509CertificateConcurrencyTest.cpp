// One certificate object used by many threads at once: readers, validators and writers.
#include "support/Stress.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <chrono>
#include <future>
#include <sstream>
#include <thread>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using Options = fc::CertificateValidationOptions;
using namespace std::chrono_literals;

namespace {

// Two leaves of the same intermediate, so a shared object validates the same whichever of the
// two it holds at the moment.
struct TwoLeaves {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    X509Certificate first{testsupport::toPEM(pki.leaf.get())};
    X509Certificate second{issue("Second Leaf", "")};
    fc::X509CertificateChain chain{testsupport::toPEM(pki.intermediate.get())};
    fc::TrustStore trusted{nullptr};

    TwoLeaves() { trusted.addCertificate(X509Certificate(pki.root.get())); }

    fc::ByteArray issue(const std::string& name, const std::string& crlURL) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"CN", name}};
        recipe.key = testsupport::sharedKey(testsupport::KeyKind::P256);
        recipe.issuer = pki.intermediate.get();
        recipe.issuerKey = pki.intermediateKey.get();
        recipe.serialHex = "2001";
        if (!crlURL.empty()) recipe.extensions = {{NID_crl_distribution_points, "URI:" + crlURL}};
        return testsupport::toDER(testsupport::makeCertificate(recipe).get());
    }

    // A copy of a shared object that holds either leaf is the whole of one of them. (Reading the
    // shared object itself several times may see both.)
    bool isOneOfThem(const X509Certificate& seen) const {
        const std::string fingerprint = seen.getSHA256Fingerprint();
        const X509Certificate& which = fingerprint == first.getSHA256Fingerprint() ? first : second;
        return fingerprint == which.getSHA256Fingerprint() &&
               seen.getSubjectName() == which.getSubjectName() &&
               seen.getAsBytes() == which.getAsBytes();
    }

    std::string printed(const X509Certificate& certificate) const {
        std::ostringstream out;
        certificate.print(out);
        return out.str();
    }
};

const Options kStrict(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                      Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                      Options::DownloadCRL::No);

TEST(X509CertificateConcurrency, ReadersValidatorsAndWritersShareOneObject) {
    const TwoLeaves leaves;
    X509Certificate shared = leaves.first;
    const std::string printedFirst = leaves.printed(leaves.first);
    const std::string printedSecond = leaves.printed(leaves.second);

    const auto outcomes = testsupport::runStress(
        {{"accessors and copies",
          [&] {
              const X509Certificate copy(shared);
              const std::string printed = leaves.printed(shared);
              const std::string subject = shared.getSubjectName();
              return leaves.isOneOfThem(copy) &&
                     (printed == printedFirst || printed == printedSecond) &&
                     (subject == leaves.first.getSubjectName() ||
                      subject == leaves.second.getSubjectName()) &&
                     copy.clone() == copy && !shared.isCACertificate() &&
                     shared.getPublicKeyInfo().getKeySize() > 0;
          }},
         {"comparisons",
          [&] {
              const X509Certificate copy(shared);
              return (copy == leaves.first) != (copy == leaves.second) && copy == copy;
          }},
         {"validation",
          [&] {
              return shared.validateCertificate(leaves.chain, kStrict, leaves.trusted)
                         .getCertificateChainStatus() == fc::CertificateChainStatus::Valid;
          }},
         {"copy and move assignment",
          [&] {
              shared = leaves.second;
              X509Certificate taken(leaves.first);
              shared = std::move(taken);  // exchanges: taken holds what shared held
              return leaves.isOneOfThem(taken);
          }},
         {"swap",
          [&, mine = X509Certificate(leaves.second)]() mutable {
              mine.swap(shared);
              return leaves.isOneOfThem(mine);
          }}},
        1500ms);
    testsupport::expectHealthy(outcomes);
    EXPECT_TRUE(leaves.isOneOfThem(shared));
}

// While one thread's validation waits for a revocation list from a server that never answers,
// the certificate it validates serves every other thread at once.
TEST(X509CertificateConcurrency, ReadersDoNotWaitForAValidationsDownload) {
    const TwoLeaves leaves;
    auto server = std::make_unique<testsupport::ScriptedHttpServer>(
        "127.0.0.60", "", testsupport::ScriptedHttpServer::Mode::NeverAnswer);
    if (!server->running()) GTEST_SKIP() << server->failure();
    const X509Certificate shared(leaves.issue("Waiting Leaf", server->url("leaf.crl")));
    const X509Certificate expectedCopy(shared);

    std::atomic<bool> validated{false};
    std::thread validation([&] {
        const Options downloading(Options::AllowSelfSignedCertificate::No,
                                  Options::AllowExpiredCertificate::No,
                                  Options::AllowRevokedCertificate::No, Options::CheckCRL::LeafOnly,
                                  Options::DownloadCRL::IgnoreErrors);
        shared.validateCertificate(leaves.chain, downloading, leaves.trusted);
        validated = true;
    });
    const auto askedAt = std::chrono::steady_clock::now();
    while (server->requests().empty() && std::chrono::steady_clock::now() - askedAt < 20s) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_FALSE(server->requests().empty()) << "the validation never asked for its list";

    // On another thread, so that reads stuck behind the validation fail the test, not hang it.
    auto reads = std::async(std::launch::async, [&] {
        const X509Certificate copy(shared);
        return shared.getSubjectName() == "CN=Waiting Leaf" &&
               shared.getSHA256Fingerprint() == expectedCopy.getSHA256Fingerprint() &&
               copy == shared && shared != leaves.first;
    });
    EXPECT_EQ(reads.wait_for(500ms), std::future_status::ready) << "reads waited";
    EXPECT_FALSE(validated) << "the validation did not wait for the server";

    server.reset();  // closes the held connection: the download fails and validation returns
    validation.join();
    EXPECT_TRUE(reads.get());
}

}  // namespace
