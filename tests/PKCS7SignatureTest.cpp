// Verifying PKCS#7 signatures: the signature itself, the signer's path to the trust store, and
// what the chain argument and the thread's OpenSSL error queue do to the outcome.
#include "support/Stress.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestPKCS7.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/PKCS7Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <tuple>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PKCS7Certificate;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Status = fc::CertificateChainStatus;

namespace {

X509Certificate certificateOf(const X509* x509) {
    return X509Certificate(testsupport::toPEM(x509));
}

void expectOutcome(const fc::PKCS7CertificateValidationResults& results, bool signature,
                   Status status, const std::string& text) {
    EXPECT_EQ(results.getSignatureVerificationStatus(), signature);
    EXPECT_EQ(results.getCertificateChainStatus(), status);
    EXPECT_EQ(results.getValidationErrorString(), text);
    EXPECT_EQ(results.isValidSignature(), signature && status == Status::Valid);
}

class PKCS7SignatureTest : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const X509CertificateChain none;
    const X509CertificateChain withIntermediate =
        X509CertificateChain(testsupport::toPEM(pki.intermediate.get()));
    fc::TrustStore trustingRoot;
    const ByteArray content{'s', 'i', 'g', 'n', 'e', 'd', '\r', '\n', 0, 'e', 'n', 'd'};

    // With the intermediate inside, the signer's path is complete.
    PKCS7Certificate sign(const testsupport::Signer& signer, bool detached = false,
                          bool intermediateInside = false) const {
        std::vector<const X509*> inside;
        if (intermediateInside) inside.push_back(pki.intermediate.get());
        return PKCS7Certificate(testsupport::pkcs7ToDER(
            testsupport::makeSignature({&signer, inside, detached}, content).get()));
    }

    PKCS7SignatureTest() { trustingRoot.addCertificate(certificateOf(pki.root.get())); }
    void TearDown() override { ERR_clear_error(); }
};

// A correct signature by a signer without a path to the store stays true; the signer's own
// validation, with nothing tolerated, says why.
TEST_F(PKCS7SignatureTest, ReportsSignatureAndSignerPathApart) {
    const PKCS7Certificate attached = sign(testsupport::chainedSigner(), false, true);
    const PKCS7Certificate detached = sign(testsupport::chainedSigner(), true, true);
    const PKCS7Certificate pathless = sign(testsupport::chainedSigner());
    const PKCS7Certificate selfSigned = sign(testsupport::selfSignedSigner());
    const PKCS7Certificate expired = sign(testsupport::expiredSigner());
    const PKCS7Certificate expiredDetached = sign(testsupport::expiredSigner(), true);
    const PKCS7Certificate noSigner(
        testsupport::pkcs7ToDER(testsupport::makeCertificateBundle({pki.root.get()}).get()));
    // The chain's certificates are trusted for the call: callers pass only ones they trust.
    const X509CertificateChain pinned =
        X509CertificateChain(testsupport::toPEM(testsupport::selfSignedSigner().certificate.get()));
    const std::string noPath =
        "Errors present: Error code 20  at depth 0Certificate Subject Name=CN=Chained "
        "Signer,O=Foundation Test\n. \nMessage:unable to get local issuer certificate\n";
    const std::string hasExpired =
        "Errors present: Error code 10  at depth 0Certificate Subject Name=CN=Expired "
        "Signer,O=Foundation Test\n. \nMessage:certificate has expired\n";
    ByteArray altered = content;
    altered.back() ^= 0x01;
    const std::vector<std::string> storeBefore = trustingRoot.getPEMStrings();

    using S = Status;
    const std::tuple<const PKCS7Certificate&, const X509CertificateChain&, ByteArray, bool, S,
                     std::string>
        cases[] = {{attached, none, {}, true, S::Valid, ""},
                   {detached, none, content, true, S::Valid, ""},
                   {detached, none, altered, false, S::ValidationFailed, "digest failure"},
                   {detached, none, {}, false, S::ValidationFailed, "no content"},
                   {pathless, none, {}, true, S::InvalidChain, noPath},
                   {pathless, withIntermediate, {}, true, S::Valid, ""},
                   {selfSigned, pinned, {}, true, S::Valid, ""},
                   {selfSigned, none, {}, true, S::SelfSigned, ""},
                   {expired, withIntermediate, {}, true, S::Expired, hasExpired},
                   // The content is read a second time for the signer's own validation.
                   {expiredDetached, withIntermediate, content, true, S::Expired, hasExpired},
                   {noSigner, none, content, false, S::ValidationFailed, "no signatures on data"}};
    int row = 0;
    for (const auto& [pkcs7, chain, data, signature, status, text] : cases) {
        SCOPED_TRACE(++row);
        expectOutcome(pkcs7.verifySignature(chain, trustingRoot, data), signature, status, text);
        ERR_clear_error();
    }
    EXPECT_EQ(trustingRoot.getPEMStrings(), storeBefore);
}

TEST_F(PKCS7SignatureTest, ErrorTheCallerLeftQueuedBecomesTheReason) {
    const PKCS7Certificate valid = sign(testsupport::chainedSigner(), false, true);
    const PKCS7Certificate expired = sign(testsupport::expiredSigner());
    ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    expectOutcome(valid.verifySignature(none, trustingRoot, {}), true, Status::Valid, "");
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), X509_R_CERT_ALREADY_IN_HASH_TABLE);
    // The caller's error hides the path failure; only it is consumed.
    expectOutcome(expired.verifySignature(withIntermediate, trustingRoot, {}), false,
                  Status::ValidationFailed, "cert already in hash table");
    EXPECT_NE(ERR_peek_error(), 0u);
}

// When the signer's own validation runs, its report comes with the results.
TEST_F(PKCS7SignatureTest, CarriesTheSignerValidationReport) {
    const fc::PKCS7CertificateValidationResults expired =
        sign(testsupport::expiredSigner()).verifySignature(withIntermediate, trustingRoot, {});
    const std::vector<fc::CertificateCheck> checks = expired.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_EQ(checks[0].subject, "CN=Expired Signer,O=Foundation Test");
    ASSERT_EQ(checks[0].errors.size(), 1u);
    EXPECT_EQ(checks[0].errors[0].code, X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_FALSE(checks[0].errors[0].forgiven);
    std::ostringstream printed;
    printed << expired;
    EXPECT_EQ(printed.str().rfind("Signature: verifies\nSigner status: Expired (5)\n[0] CN=", 0),
              0u)
        << printed.str();
}

TEST_F(PKCS7SignatureTest, EmptyTrustStoreUsesThePlatformBundle) {
    testsupport::ScopedTrustBundle bundle;
    const PKCS7Certificate pkcs7 = sign(testsupport::chainedSigner(), false, true);
    const fc::TrustStore empty;
    bundle.write(testsupport::toPEM(pki.root.get()));
    expectOutcome(pkcs7.verifySignature(none, empty, {}), true, Status::Valid, "");
    bundle.write(testsupport::toPEM(pki.leaf.get()));
    EXPECT_EQ(pkcs7.verifySignature(none, empty, {}).getCertificateChainStatus(),
              Status::InvalidChain);
    EXPECT_TRUE(empty.empty());
}

// Verifications share the caller's store and chain, and the structure shares its certificates
// with the values it handed out.
using PKCS7Concurrency = PKCS7SignatureTest;

TEST_F(PKCS7Concurrency, VerificationsAndReadsShareCertificates) {
    const PKCS7Certificate valid = sign(testsupport::chainedSigner(), false, true);
    const PKCS7Certificate expired = sign(testsupport::expiredSigner());
    const std::vector<X509Certificate> handedOut = valid.getCertificates();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const PKCS7Certificate& pkcs7 = t % 2 == 0 ? valid : expired;
            const Status expected = t % 2 == 0 ? Status::Valid : Status::Expired;
            for (int i = 0; i < 10; ++i) {
                const auto results = pkcs7.verifySignature(withIntermediate, trustingRoot, {});
                if (!results.getSignatureVerificationStatus() ||
                    results.getCertificateChainStatus() != expected ||
                    valid.getSignedData() != content ||
                    valid.getSignerCerts().getCertificates().front() != handedOut[0] ||
                    handedOut[static_cast<std::size_t>(t % 2)].isCACertificate() != (t % 2 == 1)) {
                    ++wrong;
                }
                ERR_clear_error();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// One object verified, read, extended and reassigned by several threads at once; a copy always
// holds one of the two signatures, whole.
TEST_F(PKCS7Concurrency, VerificationsReadsAdditionsAndAssignments) {
    const PKCS7Certificate valid = sign(testsupport::chainedSigner(), false, true);
    const PKCS7Certificate expired = sign(testsupport::expiredSigner());
    const X509Certificate validSigner = valid.getCertificates().front();
    const ByteArray validBytes = valid.getAsBytes(), expiredBytes = expired.getAsBytes();
    const X509Certificate extra = certificateOf(pki.root.get());
    PKCS7Certificate shared = valid;

    const auto isValidOne = [&](const PKCS7Certificate& copy) {
        return copy.getCertificates().front() == validSigner;
    };
    const auto outcomes = testsupport::runStress(
        {{"verification",
          [&] {
              const PKCS7Certificate copy(shared);
              const auto results = copy.verifySignature(withIntermediate, trustingRoot, {});
              ERR_clear_error();
              return results.getSignatureVerificationStatus() &&
                     results.getCertificateChainStatus() ==
                         (isValidOne(copy) ? Status::Valid : Status::Expired);
          }},
         {"reads",
          [&] {
              const PKCS7Certificate copy(shared);
              const bool ok =
                  copy.getSignedData() == content &&
                  copy.getAsBytes() == (isValidOne(copy) ? validBytes : expiredBytes) &&
                  copy.getSignerCerts().getCertificates().front() == copy.getCertificates().front();
              ERR_clear_error();
              return ok;
          }},
         {"additions",
          [&] {
              shared.addCertificate(extra);
              return !shared.empty();
          }},
         {"assignment",
          [&] {
              shared = expired;
              PKCS7Certificate taken = valid;
              shared = std::move(taken);  // exchanges
              return taken.getNumCertificates() >= 1;
          }},
         {"swap",
          [&, mine = expired]() mutable {
              mine.swap(shared);
              return mine.getNumCertificates() >= 1;
          }}},
        std::chrono::milliseconds(1500));
    testsupport::expectHealthy(outcomes);
}

}  // namespace
