// Verifying PKCS#7 signatures: the signature itself, the signer's path to the trust store, and
// what the chain argument and the thread's OpenSSL error queue do to the outcome.
#include "support/TestCertificates.hpp"
#include "support/TestPKCS7.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <atomic>
#include <thread>

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

X509CertificateChain chainOf(const X509* certificate) {
    X509CertificateChain chain;
    chain.addCertificate(certificateOf(certificate));
    return chain;
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
    const X509CertificateChain withIntermediate = chainOf(pki.intermediate.get());
    fc::TrustStore trustingRoot;
    const ByteArray content{'s', 'i', 'g', 'n', 'e', 'd', '\r', '\n', 0, 'e', 'n', 'd'};

    // With the intermediate inside, the signer's path is complete.
    PKCS7Certificate sign(const testsupport::Signer& signer, bool detached = false,
                          bool intermediateInside = false) const {
        testsupport::SignatureRecipe recipe;
        recipe.signer = &signer;
        recipe.detached = detached;
        if (intermediateInside) recipe.extraCertificates = {pki.intermediate.get()};
        return PKCS7Certificate(
            testsupport::pkcs7ToDER(testsupport::makeSignature(recipe, content).get()));
    }

    void SetUp() override {
        trustingRoot.addCertificate(certificateOf(pki.root.get()));
        ERR_clear_error();
    }
    void TearDown() override { ERR_clear_error(); }
};

// A correct signature by a signer without a path to the store stays true; the signer's own
// validation, with nothing tolerated, says why.
TEST_F(PKCS7SignatureTest, ReportsSignatureAndSignerPathApart) {
    const PKCS7Certificate attached = sign(testsupport::chainedSigner(), false, true);
    const PKCS7Certificate detached = sign(testsupport::chainedSigner(), true, true);
    const PKCS7Certificate pathless = sign(testsupport::chainedSigner());
    const PKCS7Certificate selfSigned = sign(testsupport::selfSignedSigner());
    const std::string expiredText =
        "Errors present: Error code 10  at depth 0Certificate Subject Name=CN=Expired "
        "Signer,O=Foundation Test\n. \nMessage:certificate has expired\n";
    ByteArray altered = content;
    altered.back() ^= 0x01;
    const std::vector<std::string> storeBefore = trustingRoot.getPEMStrings();

    const struct {
        const char* name;
        PKCS7Certificate pkcs7;
        X509CertificateChain chain;
        ByteArray data;
        bool signature;
        Status status;
        std::string text;
    } cases[] = {
        {"attached", attached, none, {}, true, Status::Valid, ""},
        {"detached", detached, none, content, true, Status::Valid, ""},
        {"altered", detached, none, altered, false, Status::ValidationFailed, "digest failure"},
        {"no data", detached, none, {}, false, Status::ValidationFailed, "no content"},
        {"pathless",
         pathless,
         none,
         {},
         true,
         Status::InvalidChain,
         "Errors present: Error code 20  at depth 0Certificate Subject Name=CN=Chained "
         "Signer,O=Foundation Test\n. \nMessage:unable to get local issuer certificate\n"},
        {"chain completes path", pathless, withIntermediate, {}, true, Status::Valid, ""},
        // The chain's certificates are trusted for the call: callers pass only ones they trust.
        {"pinned by chain",
         selfSigned,
         chainOf(testsupport::selfSignedSigner().certificate.get()),
         {},
         true,
         Status::Valid,
         ""},
        {"self-signed", selfSigned, none, {}, true, Status::SelfSigned, ""},
        {"expired",
         sign(testsupport::expiredSigner()),
         withIntermediate,
         {},
         true,
         Status::Expired,
         expiredText},
        // The content is read a second time for the signer's own validation.
        {"expired, detached", sign(testsupport::expiredSigner(), true), withIntermediate, content,
         true, Status::Expired, expiredText},
        {"no signer",
         PKCS7Certificate(
             testsupport::pkcs7ToDER(testsupport::makeCertificateBundle({pki.root.get()}).get())),
         none, content, false, Status::ValidationFailed, "no signatures on data"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectOutcome(c.pkcs7.verifySignature(c.chain, trustingRoot, c.data), c.signature, c.status,
                      c.text);
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
            // Half the threads work on copies, half on the shared objects.
            const PKCS7Certificate own(t % 2 == 0 ? valid : expired);
            const PKCS7Certificate& pkcs7 = t < 2 ? own : (t % 2 == 0 ? valid : expired);
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

}  // namespace
