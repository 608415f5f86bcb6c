// Verifying PKCS#7 signatures: the signature itself, the signer's path to the trust store, and
// what the chain argument and the thread's OpenSSL error queue do to the outcome.
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestPKCS7.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <unistd.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::CertificateChainStatus;
using fc::PKCS7Certificate;
using fc::PKCS7CertificateValidationResults;
using fc::TrustStore;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Options = fc::CertificateValidationOptions;

namespace {

X509Certificate certificateOf(const X509* x509) {
    return X509Certificate(testsupport::toPEM(x509));
}
X509Certificate certificateOf(const testsupport::Signer& signer) {
    return certificateOf(signer.certificate.get());
}

X509CertificateChain chainOf(const std::vector<X509Certificate>& certificates) {
    X509CertificateChain chain;
    for (const X509Certificate& certificate : certificates) chain.addCertificate(certificate);
    return chain;
}

TrustStore trusting(const std::vector<X509Certificate>& certificates) {
    TrustStore store;
    for (const X509Certificate& certificate : certificates) store.addCertificate(certificate);
    return store;
}

const Options& nothingTolerated() {
    static const Options options(
        Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
    return options;
}

void expectOutcome(const PKCS7CertificateValidationResults& results, bool signature,
                   CertificateChainStatus status, const std::string& text) {
    EXPECT_EQ(results.getSignatureVerificationStatus(), signature);
    EXPECT_EQ(results.getCertificateChainStatus(), status);
    EXPECT_EQ(results.getValidationErrorString(), text);
}

class PKCS7SignatureTest : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const X509Certificate root = certificateOf(pki.root.get());
    const X509Certificate intermediate = certificateOf(pki.intermediate.get());
    const TrustStore trustingRoot = trusting({root});
    const ByteArray content{'s', 'i', 'g', 'n', 'e', 'd', '\r', '\n', 0, 'e', 'n', 'd'};

    static testsupport::SignatureRecipe by(const testsupport::Signer& signer) {
        testsupport::SignatureRecipe recipe;
        recipe.signer = &signer;
        return recipe;
    }
    static testsupport::SignatureRecipe detachedBy(const testsupport::Signer& signer) {
        testsupport::SignatureRecipe recipe = by(signer);
        recipe.detached = true;
        return recipe;
    }
    // The signer's intermediate travels inside the structure.
    static testsupport::SignatureRecipe withIntermediate(testsupport::SignatureRecipe recipe) {
        recipe.extraCertificates = {testsupport::rsaPKI().intermediate.get()};
        return recipe;
    }

    PKCS7Certificate sign(const testsupport::SignatureRecipe& recipe) const {
        return PKCS7Certificate(
            testsupport::pkcs7ToDER(testsupport::makeSignature(recipe, content).get()));
    }

    void SetUp() override { ERR_clear_error(); }
    void TearDown() override { ERR_clear_error(); }
};

TEST_F(PKCS7SignatureTest, SignerWithAPathToTheStoreGivesAValidSignature) {
    const PKCS7Certificate attached = sign(withIntermediate(by(testsupport::chainedSigner())));
    const PKCS7Certificate direct = sign(by(testsupport::directSigner()));
    for (const PKCS7Certificate* pkcs7 : {&attached, &direct}) {
        const PKCS7CertificateValidationResults results =
            pkcs7->verifySignature(X509CertificateChain(), trustingRoot, {});
        expectOutcome(results, true, CertificateChainStatus::Valid, "");
        EXPECT_TRUE(results.isValidSignature());
    }
    expectOutcome(sign(withIntermediate(detachedBy(testsupport::chainedSigner())))
                      .verifySignature(X509CertificateChain(), trustingRoot, content),
                  true, CertificateChainStatus::Valid, "");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7SignatureTest, ContentThatDoesNotMatchFailsTheSignature) {
    const PKCS7Certificate detached =
        sign(withIntermediate(detachedBy(testsupport::chainedSigner())));
    ByteArray altered = content;
    altered.back() ^= 0x01;
    expectOutcome(detached.verifySignature(X509CertificateChain(), trustingRoot, altered), false,
                  CertificateChainStatus::ValidationFailed, "digest failure");
    ERR_clear_error();
    expectOutcome(detached.verifySignature(X509CertificateChain(), trustingRoot, {}), false,
                  CertificateChainStatus::ValidationFailed, "no content");
    ERR_clear_error();

    testsupport::SignatureRecipe alteredInside = withIntermediate(by(testsupport::chainedSigner()));
    alteredInside.alterContent = true;
    expectOutcome(sign(alteredInside).verifySignature(X509CertificateChain(), trustingRoot, {}),
                  false, CertificateChainStatus::ValidationFailed, "digest failure");
}

TEST_F(PKCS7SignatureTest, WithoutASignedStructureNothingVerifies) {
    expectOutcome(PKCS7Certificate().verifySignature(X509CertificateChain(), trustingRoot, {}),
                  false, CertificateChainStatus::ValidationFailed, "invalid null pointer");
    ERR_clear_error();
    const PKCS7Certificate bundle(
        testsupport::pkcs7ToDER(testsupport::makeCertificateBundle({pki.root.get()}).get()));
    expectOutcome(bundle.verifySignature(X509CertificateChain(), trustingRoot, content), false,
                  CertificateChainStatus::ValidationFailed, "no signatures on data");
}

// A correct signature whose signer does not chain to the store: the signature status stays
// true and the signer's own validation, with nothing tolerated, tells why.
struct UntrustedSigner {
    const char* name;
    const testsupport::Signer& (*signer)();
    bool intermediateInChain;
    CertificateChainStatus status;
};

class UntrustedSignerTest : public PKCS7SignatureTest,
                            public ::testing::WithParamInterface<UntrustedSigner> {};

TEST_P(UntrustedSignerTest, SignatureHoldsAndTheSignersValidationExplains) {
    const testsupport::Signer& signer = GetParam().signer();
    const X509CertificateChain chain =
        GetParam().intermediateInChain ? chainOf({intermediate}) : X509CertificateChain();
    const fc::CertificateValidationResults validation =
        certificateOf(signer).validateCertificate(chain, nothingTolerated(), trustingRoot);
    ASSERT_EQ(validation.getCertificateChainStatus(), GetParam().status);

    const PKCS7CertificateValidationResults results =
        sign(by(signer)).verifySignature(chain, trustingRoot, {});
    const std::string expectedText = GetParam().status == CertificateChainStatus::Valid
                                         ? "certificate verify error"
                                         : validation.getValidationErrorString();
    expectOutcome(results, true, GetParam().status, expectedText);
    EXPECT_EQ(results.isValidSignature(), GetParam().status == CertificateChainStatus::Valid);

    // The same over detached content: the content is read twice.
    expectOutcome(sign(detachedBy(signer)).verifySignature(chain, trustingRoot, content), true,
                  GetParam().status, expectedText);
}

INSTANTIATE_TEST_SUITE_P(
    Signers, UntrustedSignerTest,
    ::testing::Values(
        UntrustedSigner{"Expired", testsupport::expiredSigner, true,
                        CertificateChainStatus::Expired},
        UntrustedSigner{"SelfSigned", testsupport::selfSignedSigner, false,
                        CertificateChainStatus::SelfSigned},
        UntrustedSigner{"IntermediateMissing", testsupport::chainedSigner, false,
                        CertificateChainStatus::InvalidChain},
        // Refused only by OpenSSL's S/MIME purpose check, which validation does not make.
        UntrustedSigner{"TLSServerOnly", testsupport::tlsServerSigner, true,
                        CertificateChainStatus::Valid}),
    [](const ::testing::TestParamInfo<UntrustedSigner>& info) { return info.param.name; });

TEST_F(PKCS7SignatureTest, ExpiredSignerReportsTheVerificationText) {
    const PKCS7CertificateValidationResults results =
        sign(by(testsupport::expiredSigner()))
            .verifySignature(chainOf({intermediate}), trustingRoot, {});
    EXPECT_EQ(results.getValidationErrorString(),
              "Errors present: Error code 10  at depth 0Certificate Subject Name=CN=Expired "
              "Signer,O=Foundation Test\n. \nMessage:certificate has expired\n");
}

TEST_F(PKCS7SignatureTest, ChainArgumentCompletesThePath) {
    const PKCS7Certificate pkcs7 = sign(by(testsupport::chainedSigner()));
    EXPECT_EQ(
        pkcs7.verifySignature(X509CertificateChain(), trustingRoot, {}).getCertificateChainStatus(),
        CertificateChainStatus::InvalidChain);
    expectOutcome(pkcs7.verifySignature(chainOf({intermediate}), trustingRoot, {}), true,
                  CertificateChainStatus::Valid, "");
}

TEST_F(PKCS7SignatureTest, SignerCertificateMayComeFromTheChainArgumentOnly) {
    testsupport::SignatureRecipe noCertificates = by(testsupport::chainedSigner());
    noCertificates.withCertificates = false;
    const PKCS7Certificate pkcs7 = sign(noCertificates);
    const X509CertificateChain chain =
        chainOf({certificateOf(testsupport::chainedSigner()), intermediate});
    expectOutcome(pkcs7.verifySignature(chain, trustingRoot, {}), true,
                  CertificateChainStatus::Valid, "");
    // No path, and no signer inside to validate on its own.
    expectOutcome(pkcs7.verifySignature(chain, trusting({certificateOf(pki.leaf.get())}), {}),
                  false, CertificateChainStatus::ValidationFailed, "certificate verify error");
}

// The chain's certificates are trusted for the call: callers must pass only certificates they
// trust there.
TEST_F(PKCS7SignatureTest, ChainArgumentCertificatesActAsTrusted) {
    const X509Certificate selfSigned = certificateOf(testsupport::selfSignedSigner());
    const PKCS7Certificate pkcs7 = sign(by(testsupport::selfSignedSigner()));
    const X509CertificateChain chain = chainOf({selfSigned});
    const TrustStore store = trusting({root});
    const std::vector<std::string> storeBefore = store.getPEMStrings();

    const PKCS7CertificateValidationResults results = pkcs7.verifySignature(chain, store, {});
    expectOutcome(results, true, CertificateChainStatus::Valid, "");
    EXPECT_TRUE(results.isValidSignature());

    // Neither argument changed: without the chain the signer is untrusted again.
    EXPECT_EQ(store.getPEMStrings(), storeBefore);
    EXPECT_EQ(chain.getCertificates(), std::vector<X509Certificate>{selfSigned});
    EXPECT_EQ(pkcs7.verifySignature(X509CertificateChain(), store, {}).getCertificateChainStatus(),
              CertificateChainStatus::SelfSigned);
}

TEST_F(PKCS7SignatureTest, ErrorTheCallerLeftQueuedBecomesTheReason) {
    const PKCS7Certificate valid = sign(by(testsupport::directSigner()));
    const PKCS7Certificate pathFails = sign(by(testsupport::expiredSigner()));
    const auto queueCallersError = [] {
        ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    };

    queueCallersError();
    expectOutcome(valid.verifySignature(X509CertificateChain(), trustingRoot, {}), true,
                  CertificateChainStatus::Valid, "");
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), X509_R_CERT_ALREADY_IN_HASH_TABLE);
    ERR_clear_error();

    // The caller's error hides the path failure; only it is consumed.
    queueCallersError();
    expectOutcome(pathFails.verifySignature(chainOf({intermediate}), trustingRoot, {}), false,
                  CertificateChainStatus::ValidationFailed, "cert already in hash table");
    EXPECT_NE(ERR_peek_error(), 0u);
}

TEST_F(PKCS7SignatureTest, MovedFromObjectIsUninitialised) {
    PKCS7Certificate source = sign(by(testsupport::directSigner()));
    const PKCS7Certificate target(std::move(source));
    EXPECT_THROW_MSG(source.verifySignature(X509CertificateChain(), trustingRoot, {}),
                     fc::PKCS7CertificateException, "Error: PKCS7Certificate is uninitialized.");
    EXPECT_TRUE(
        target.verifySignature(X509CertificateChain(), trustingRoot, {}).isValidSignature());
}

// An empty trust store stands for the platform's certificates, read from the bundle that
// SSL_CERT_FILE names.
class PKCS7PlatformTrust : public PKCS7SignatureTest {
  protected:
    void useBundle(const std::string& contents) { bundle_.write(contents); }

    testsupport::ScopedTrustBundle bundle_;
};

TEST_F(PKCS7PlatformTrust, EmptyTrustStoreUsesThePlatformsCertificates) {
    const PKCS7Certificate pkcs7 = sign(withIntermediate(by(testsupport::chainedSigner())));
    const TrustStore empty;
    useBundle(root.getAsPEMString());
    expectOutcome(pkcs7.verifySignature(X509CertificateChain(), empty, {}), true,
                  CertificateChainStatus::Valid, "");
    useBundle(certificateOf(pki.leaf.get()).getAsPEMString());
    EXPECT_EQ(pkcs7.verifySignature(X509CertificateChain(), empty, {}).getCertificateChainStatus(),
              CertificateChainStatus::InvalidChain);
    EXPECT_TRUE(empty.empty());
}

// Verifications share the caller's store and chain, and through them certificates.
using PKCS7SignatureConcurrency = PKCS7SignatureTest;

TEST_F(PKCS7SignatureConcurrency, VerificationsShareAStoreAndAChain) {
    const PKCS7Certificate valid = sign(by(testsupport::chainedSigner()));
    const PKCS7Certificate expired = sign(by(testsupport::expiredSigner()));
    const X509CertificateChain chain = chainOf({intermediate});
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            // Half the threads work on copies, half on the shared objects.
            const PKCS7Certificate own(t % 2 == 0 ? valid : expired);
            const PKCS7Certificate& pkcs7 = t < 2 ? own : (t % 2 == 0 ? valid : expired);
            const auto expected =
                t % 2 == 0 ? CertificateChainStatus::Valid : CertificateChainStatus::Expired;
            for (int i = 0; i < 10; ++i) {
                const PKCS7CertificateValidationResults results =
                    pkcs7.verifySignature(chain, trustingRoot, {});
                if (!results.getSignatureVerificationStatus() ||
                    results.getCertificateChainStatus() != expected) {
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
