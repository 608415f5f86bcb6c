// One opened container shared by several threads: reads, copies, comparisons and assignments.
#include "support/Stress.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS12.hpp"

#include <foundation/certificates/PKCS12Certificate.hpp>

#include <gtest/gtest.h>

#include <sstream>

namespace fc = foundation::certificates;
using fc::PKCS12Certificate;
using testsupport::KeyKind;
using namespace std::chrono_literals;

namespace {

PKCS12Certificate openFor(KeyKind kind, const std::vector<X509*>& caChain) {
    EVP_PKEY* key = testsupport::sharedKey(kind);
    const fc::X509UPtr certificate = testsupport::selfSignedFor(key);
    return PKCS12Certificate(testsupport::makePKCS12({key, certificate.get(), caChain}),
                             testsupport::kPKCS12Passphrase);
}

TEST(PKCS12Concurrency, ReadsCopiesComparisonsAndAssignments) {
    const auto& pki = testsupport::rsaPKI();
    const PKCS12Certificate rsa = openFor(KeyKind::RSA2048, {pki.root.get()});
    const PKCS12Certificate ec = openFor(KeyKind::P256, {});
    PKCS12Certificate shared = rsa;

    // A copy holds one of the two containers, whole.
    const auto isOneOfThem = [&](const PKCS12Certificate& copy) {
        const PKCS12Certificate& which = copy.getCAChain().empty() ? ec : rsa;
        return copy == which && copy != (&which == &rsa ? ec : rsa) &&
               copy.getCertificate() == which.getCertificate() &&
               copy.getPrivateKeyInfo() == which.getPrivateKeyInfo() &&
               copy.getAsBytes().size() == which.getAsBytes().size();
    };
    const auto outcomes = testsupport::runStress(
        {{"copies and reads",
          [&] {
              std::ostringstream printed;
              shared.print(printed);
              return isOneOfThem(PKCS12Certificate(shared)) && !printed.str().empty() &&
                     !shared.getCertificate().empty();
          }},
         {"comparisons",
          [&] {
              const PKCS12Certificate copy(shared);
              return (copy == rsa) != (copy == ec) && !shared.empty();
          }},
         {"assignment",
          [&] {
              shared = ec;
              PKCS12Certificate taken = rsa;
              shared = std::move(taken);  // exchanges
              return isOneOfThem(taken);
          }},
         {"swap",
          [&, mine = ec]() mutable {
              mine.swap(shared);
              return isOneOfThem(mine);
          }}},
        1500ms);
    testsupport::expectHealthy(outcomes);
}

}  // namespace
