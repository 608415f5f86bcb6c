// Chains, and the certificate and trust store validated with them, used by many threads at once.
#include "support/Stress.hpp"
#include "support/TestCertificates.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>

#include <sstream>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Options = fc::CertificateValidationOptions;
using namespace std::chrono_literals;

namespace {

const Options kStrict(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                      Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                      Options::DownloadCRL::No);

struct Fixture {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const X509Certificate leaf{testsupport::toPEM(pki.leaf.get())};
    const X509Certificate intermediate{testsupport::toPEM(pki.intermediate.get())};
    fc::TrustStore trusted{nullptr};

    Fixture() { trusted.addCertificate(X509Certificate(pki.root.get())); }

    bool valid(const X509CertificateChain& chain, const fc::TrustStore& store) const {
        return leaf.validateCertificate(chain, kStrict, store).getCertificateChainStatus() ==
               fc::CertificateChainStatus::Valid;
    }
};

// A validation reads its certificate, then the chain and the store; adding reads the
// certificate into the chain or store. Both directions at once must not deadlock.
TEST(X509CertificateChainConcurrency, ValidationRacesAddingItsOwnCertificate) {
    const Fixture f;
    X509CertificateChain chain;
    chain.addCertificate(f.intermediate);
    fc::TrustStore store = f.trusted;

    const auto outcomes =
        testsupport::runStress({{"validation", [&] { return f.valid(chain, store); }},
                                {"validation", [&] { return f.valid(chain, store); }},
                                {"chain.addCertificate",
                                 [&] {
                                     chain.addCertificate(f.leaf);
                                     return chain.popLeafCertificate() == f.leaf;
                                 }},
                                {"store.addCertificate",
                                 [&] {
                                     store.addCertificate(f.leaf);
                                     return store.size() == 2;
                                 }}},
                               1500ms);
    testsupport::expectHealthy(outcomes);
}

TEST(X509CertificateChainConcurrency, AssignmentsReadsAndValidations) {
    const Fixture f;
    const X509CertificateChain shortChain(f.intermediate.getAsPEMString());
    const X509CertificateChain longChain(f.leaf.getAsPEMString() + f.intermediate.getAsPEMString());
    const std::string shortText = shortChain.getAsString(), longText = longChain.getAsString();
    X509CertificateChain shared = shortChain;

    // A copy holds one of the two lists, whole. (Reading the shared chain itself several times
    // may see both.)
    const auto isOneOfThem = [&](const X509CertificateChain& copy) {
        const auto certificates = copy.getCertificates();
        const std::string text = copy.getAsString();
        return (certificates.size() == 1 && text == shortText && copy == shortChain) ||
               (certificates.size() == 2 && text == longText && copy == longChain &&
                certificates.front() == f.leaf);
    };
    const auto outcomes = testsupport::runStress(
        {{"copies and accessors",
          [&] {
              const X509CertificateChain copy(shared);
              const std::size_t count = shared.getNumCertificates();
              std::ostringstream printed;
              shared.print(printed);
              return isOneOfThem(copy) && (count == 1 || count == 2) && !printed.str().empty();
          }},
         {"validation", [&] { return f.valid(shared, f.trusted); }},
         {"assignment",
          [&] {
              shared = longChain;
              X509CertificateChain taken = shortChain;
              shared = std::move(taken);  // exchanges
              return isOneOfThem(taken);
          }},
         {"swap",
          [&, mine = longChain]() mutable {
              mine.swap(shared);
              return isOneOfThem(mine);
          }}},
        1500ms);
    testsupport::expectHealthy(outcomes);
    EXPECT_TRUE(isOneOfThem(shared));
}

}  // namespace
