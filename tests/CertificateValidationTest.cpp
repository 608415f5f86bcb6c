// Validating certificates against chains and trust stores, with and without revocation lists
// fetched from a real server on a loopback address.
#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"
#include "support/TestKeys.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <fstream>
#include <thread>

namespace fc = foundation::certificates;
using fc::CertificateChainStatus;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Options = fc::CertificateValidationOptions;
using Check = Options::CheckCRL;
using Download = Options::DownloadCRL;
using Revocation = fc::CertificateRevocationResults::RevocationStatus;

namespace {

constexpr char kServer[] = "127.0.0.31";
constexpr std::time_t kRevokedAt = 1700000000;  // Nov 14 22:13:20 2023 GMT

Options options(bool selfSigned = false, bool expired = false, bool revoked = false,
                Check check = Check::None, Download download = Download::No) {
    return Options(
        selfSigned ? Options::AllowSelfSignedCertificate::Yes
                   : Options::AllowSelfSignedCertificate::No,
        expired ? Options::AllowExpiredCertificate::Yes : Options::AllowExpiredCertificate::No,
        revoked ? Options::AllowRevokedCertificate::Yes : Options::AllowRevokedCertificate::No,
        check, download);
}

Options crlOptions(Check check, Download download) {
    return options(false, false, false, check, download);
}

std::string errorText(int code, int depth, const std::string& subject, const std::string& message) {
    return "Errors present: Error code " + std::to_string(code) + "  at depth " +
           std::to_string(depth) + "Certificate Subject Name=" + subject +
           "\n. \nMessage:" + message + "\n";
}

// A root, intermediates with revocation-list distribution points, and leaves of every kind,
// made once for the whole suite from the shared test keys.
struct ValidationPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    X509Certificate root{testsupport::toPEM(base.root.get())};
    fc::X509UPtr intermediateX509 =
        issue("Intermediate", base.root.get(), base.rootKey.get(), base.intermediateKey.get(), "02",
              "intermediate.crl", true);
    // Same name and key, but its own list cannot be fetched.
    fc::X509UPtr unfetchableX509 = issue("Intermediate", base.root.get(), base.rootKey.get(),
                                         base.intermediateKey.get(), "12", "missing.crl", true);
    X509Certificate intermediate{testsupport::toPEM(intermediateX509.get())};
    X509Certificate unfetchable{testsupport::toPEM(unfetchableX509.get())};
    X509Certificate leaf = leafCertificate("good.example.test", "1001", "leaf.crl");
    X509Certificate revoked = leafCertificate("revoked.example.test", "1002", "leaf.crl");
    X509Certificate staleListLeaf = leafCertificate("stale.example.test", "1003", "stale.crl");
    X509Certificate forgedListLeaf = leafCertificate("forged.example.test", "1004", "forged.crl");
    X509Certificate expired = leafCertificate("expired.example.test", "1005", "leaf.crl",
                                              -10 * testsupport::kDay, -testsupport::kDay);
    X509Certificate notYetValid = leafCertificate("future.example.test", "1006", "leaf.crl",
                                                  testsupport::kDay, 10 * testsupport::kDay);
    X509Certificate badSignature = signedByRoot("bad-signature.example.test");
    X509Certificate selfSigned = selfSignedLeaf();

    fc::X509UPtr issue(const std::string& cn, X509* issuer, EVP_PKEY* issuerKey, EVP_PKEY* key,
                       const std::string& serial, const std::string& list, bool ca,
                       long notBefore = -3600, long notAfter = 365 * testsupport::kDay) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"}, {"CN", cn}};
        recipe.key = key;
        recipe.issuer = issuer;
        recipe.issuerKey = issuerKey;
        recipe.serialHex = serial;
        recipe.ca = ca;
        recipe.notBeforeOffset = notBefore;
        recipe.notAfterOffset = notAfter;
        recipe.extensions = {
            {NID_crl_distribution_points, "URI:http://" + std::string(kServer) + "/" + list}};
        return testsupport::makeCertificate(recipe);
    }

    X509Certificate leafCertificate(const std::string& cn, const std::string& serial,
                                    const std::string& list, long notBefore = -3600,
                                    long notAfter = 365 * testsupport::kDay) const {
        return X509Certificate(
            testsupport::toPEM(issue(cn, intermediateX509.get(), base.intermediateKey.get(),
                                     base.leafKey.get(), serial, list, false, notBefore, notAfter)
                                   .get()));
    }

    // Names the intermediate as issuer, but the signature is the root's.
    X509Certificate signedByRoot(const std::string& cn) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"}, {"CN", cn}};
        recipe.key = base.leafKey.get();
        recipe.issuer = intermediateX509.get();
        recipe.issuerKey = base.rootKey.get();
        return X509Certificate(testsupport::toPEM(testsupport::makeCertificate(recipe).get()));
    }

    X509Certificate selfSignedLeaf() const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"CN", "self.example.test"}};
        recipe.key = testsupport::sharedKey(testsupport::KeyKind::P256);
        return X509Certificate(testsupport::toPEM(testsupport::makeCertificate(recipe).get()));
    }

    fc::ByteArray list(EVP_PKEY* signer, X509* issuer,
                       std::vector<testsupport::RevokedEntry> entries,
                       long nextUpdate = 7 * testsupport::kDay) const {
        testsupport::CRLRecipe recipe;
        recipe.issuer = issuer;
        recipe.signingKey = signer;
        recipe.revoked = std::move(entries);
        recipe.nextUpdateOffset = nextUpdate;
        return testsupport::crlToDER(testsupport::makeCRL(recipe).get());
    }

    fc::TrustStore trustingRoot() const {
        fc::TrustStore store;
        store.addCertificate(root);
        return store;
    }

    X509CertificateChain chainOf(std::initializer_list<X509Certificate> certificates) const {
        X509CertificateChain chain;
        for (const X509Certificate& certificate : certificates) chain.addCertificate(certificate);
        return chain;
    }
};

const ValidationPKI& pki() {
    static const ValidationPKI instance;
    return instance;
}

// ---------------------------------------------------------------------------------------------
// Offline outcomes.
// ---------------------------------------------------------------------------------------------

struct OfflineCase {
    const char* name;
    X509Certificate ValidationPKI::*certificate;
    bool withIntermediate;
    Options options;
    CertificateChainStatus status;
    std::string text;
};

class OfflineValidation : public ::testing::TestWithParam<OfflineCase> {};

TEST_P(OfflineValidation, GivesTheStatusAndText) {
    const ValidationPKI& p = pki();
    const X509CertificateChain chain =
        GetParam().withIntermediate ? p.chainOf({p.intermediate}) : X509CertificateChain();
    const auto results = (p.*GetParam().certificate)
                             .validateCertificate(chain, GetParam().options, p.trustingRoot());
    EXPECT_EQ(results.getCertificateChainStatus(), GetParam().status);
    EXPECT_EQ(results.getValidationErrorString(), GetParam().text);
    EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
              Revocation::NotRevoked);
}

const std::string kLeafSubject = "CN=good.example.test,O=Foundation Test";

INSTANTIATE_TEST_SUITE_P(
    Validation, OfflineValidation,
    ::testing::Values(OfflineCase{"ValidChain", &ValidationPKI::leaf, true, options(),
                                  CertificateChainStatus::Valid, ""},
                      OfflineCase{
                          "MissingIntermediate", &ValidationPKI::leaf, false, options(),
                          CertificateChainStatus::InvalidChain,
                          errorText(20, 0, kLeafSubject, "unable to get local issuer certificate")},
                      OfflineCase{"SelfSigned", &ValidationPKI::selfSigned, false, options(),
                                  CertificateChainStatus::SelfSigned, ""},
                      OfflineCase{"SelfSignedAllowed", &ValidationPKI::selfSigned, false,
                                  options(true), CertificateChainStatus::Valid, ""},
                      OfflineCase{"Expired", &ValidationPKI::expired, true, options(),
                                  CertificateChainStatus::Expired,
                                  errorText(10, 0, "CN=expired.example.test,O=Foundation Test",
                                            "certificate has expired")},
                      OfflineCase{"ExpiredAllowed", &ValidationPKI::expired, true,
                                  options(false, true), CertificateChainStatus::Valid, ""},
                      OfflineCase{"NotYetValid", &ValidationPKI::notYetValid, true,
                                  options(false, true), CertificateChainStatus::ValidationFailed,
                                  "Validation Failed. Return code=9." +
                                      errorText(9, 0, "CN=future.example.test,O=Foundation Test",
                                                "certificate is not yet valid")},
                      OfflineCase{"BadSignature", &ValidationPKI::badSignature, true, options(),
                                  CertificateChainStatus::InvalidSignature,
                                  errorText(7, 0, "CN=bad-signature.example.test,O=Foundation Test",
                                            "certificate signature failure")}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Validation, ChainStartingWithTheCertificateItselfGivesTheSameResult) {
    const ValidationPKI& p = pki();
    const auto results = p.leaf.validateCertificate(p.chainOf({p.leaf, p.intermediate}), options(),
                                                    p.trustingRoot());
    EXPECT_EQ(results.getCertificateChainStatus(), CertificateChainStatus::Valid);
}

TEST(Validation, UninitialisedAndEmptyCertificatesThrow) {
    const ValidationPKI& p = pki();
    X509Certificate moved(p.leaf);
    const X509Certificate target(std::move(moved));
    EXPECT_THROW_MSG(moved.validateCertificate(X509CertificateChain(), options(), p.trustingRoot()),
                     fc::X509CertificateException, "Error: X509Certificate is uninitialized.");
    EXPECT_THROW_MSG(
        X509Certificate().validateCertificate(X509CertificateChain(), options(), p.trustingRoot()),
        fc::X509CertificateException, "Error: X509Certificate has no content.");
}

TEST(RootCACertificate, IsTheTrustAnchorOfTheVerifiedChain) {
    const ValidationPKI& p = pki();
    EXPECT_EQ(p.leaf.getRootCACertificate(p.chainOf({p.intermediate}), p.trustingRoot()), p.root);
    // Expired and self-signed chains are forgiven while looking for the anchor.
    EXPECT_EQ(p.expired.getRootCACertificate(p.chainOf({p.intermediate}), p.trustingRoot()),
              p.root);
    EXPECT_EQ(p.selfSigned.getRootCACertificate(X509CertificateChain(), p.trustingRoot()),
              p.selfSigned);
    EXPECT_THROW_MSG(p.leaf.getRootCACertificate(X509CertificateChain(), p.trustingRoot()),
                     fc::X509CertificateException,
                     "Error: Root CA X509Certificate has no content.");
}

// An empty trust store stands for the platform's trusted certificates: the bundle named by
// SSL_CERT_FILE here.
class PlatformTrust : public ::testing::Test {
  protected:
    void useBundle(const std::string& contents) { bundle_.write(contents); }

    testsupport::ScopedTrustBundle bundle_;
};

TEST_F(PlatformTrust, EmptyTrustStoreUsesThePlatformsCertificates) {
    const ValidationPKI& p = pki();
    const X509CertificateChain chain = p.chainOf({p.intermediate});
    useBundle(p.root.getAsPEMString());
    EXPECT_EQ(
        p.leaf.validateCertificate(chain, options(), fc::TrustStore()).getCertificateChainStatus(),
        CertificateChainStatus::Valid);
    useBundle(p.selfSigned.getAsPEMString());
    EXPECT_EQ(
        p.leaf.validateCertificate(chain, options(), fc::TrustStore()).getCertificateChainStatus(),
        CertificateChainStatus::InvalidChain);
}

TEST(ValidationConcurrency, ValidationsShareAStoreAndACertificate) {
    const ValidationPKI& p = pki();
    const fc::TrustStore store = p.trustingRoot();
    const X509CertificateChain chain = p.chainOf({p.intermediate});
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                const X509Certificate& subject = t % 2 == 0 ? p.leaf : p.expired;
                const auto expected =
                    t % 2 == 0 ? CertificateChainStatus::Valid : CertificateChainStatus::Expired;
                if (subject.validateCertificate(chain, options(), store)
                        .getCertificateChainStatus() != expected) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// ---------------------------------------------------------------------------------------------
// Revocation, with lists served over HTTP.
// ---------------------------------------------------------------------------------------------

class RevocationTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server = new testsupport::StaticHttpServer(kServer);
        if (!server->running()) return;
        const ValidationPKI& p = pki();
        const auto& base = p.base;
        server->put("leaf.crl", p.list(base.intermediateKey.get(), p.intermediateX509.get(),
                                       {{"1002", kRevokedAt}}));
        server->put("intermediate.crl", p.list(base.rootKey.get(), base.root.get(), {}));
        server->put("stale.crl",
                    p.list(base.intermediateKey.get(), p.intermediateX509.get(), {}, -60));
        server->put("forged.crl", p.list(base.rootKey.get(), p.intermediateX509.get(), {}));
    }
    static void TearDownTestSuite() {
        delete server;
        server = nullptr;
    }
    void SetUp() override {
        if (!server->running()) GTEST_SKIP() << server->failure();
        requestsBefore = server->requestedPaths().size();
    }
    void TearDown() override {
        EXPECT_EQ(testsupport::leftoverCrlFiles(), std::vector<std::string>{});
    }

    std::vector<std::string> newRequests() const {
        const auto all = server->requestedPaths();
        return std::vector<std::string>(all.begin() + static_cast<long>(requestsBefore), all.end());
    }

    fc::CertificateValidationResults validate(const X509Certificate& certificate,
                                              const Options& opts,
                                              const X509Certificate* intermediate = nullptr) const {
        const ValidationPKI& p = pki();
        return certificate.validateCertificate(
            p.chainOf({intermediate != nullptr ? *intermediate : p.intermediate}), opts,
            p.trustingRoot());
    }

    static testsupport::StaticHttpServer* server;
    std::size_t requestsBefore = 0;
};

testsupport::StaticHttpServer* RevocationTest::server = nullptr;

TEST_F(RevocationTest, RevokedLeafWithLeafOnlyChecking) {
    const auto results =
        validate(pki().revoked, crlOptions(Check::LeafOnly, Download::ThrowOnError));
    EXPECT_EQ(results.getCertificateChainStatus(), CertificateChainStatus::Revoked);
    EXPECT_EQ(results.getValidationErrorString(),
              errorText(23, 0, "CN=revoked.example.test,O=Foundation Test", "certificate revoked"));
    const auto revocation = results.getCertificateRevocationResults();
    EXPECT_EQ(revocation.getRevocationStatus(), Revocation::Revoked);
    EXPECT_EQ(revocation.getRevocationDateString(), "Nov 14 22:13:20 2023 GMT");
    EXPECT_EQ(revocation.getRevokedSerialNumberString(), "4098");
    // Exactly one list: the leaf's; the intermediate's is never requested.
    EXPECT_EQ(newRequests(), std::vector<std::string>{"/leaf.crl"});
}

TEST_F(RevocationTest, GoodLeafAndFullChain) {
    const auto results = validate(pki().leaf, crlOptions(Check::FullChain, Download::ThrowOnError));
    EXPECT_EQ(results.getCertificateChainStatus(), CertificateChainStatus::Valid);
    EXPECT_EQ(newRequests(), (std::vector<std::string>{"/leaf.crl", "/intermediate.crl"}));
    EXPECT_EQ(validate(pki().revoked, crlOptions(Check::FullChain, Download::IgnoreErrors))
                  .getCertificateChainStatus(),
              CertificateChainStatus::Revoked);
}

TEST_F(RevocationTest, AllowedRevocationIsNotChecked) {
    const auto results = validate(
        pki().revoked, options(false, false, true, Check::LeafOnly, Download::ThrowOnError));
    EXPECT_EQ(results.getCertificateChainStatus(), CertificateChainStatus::Valid);
    EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
              Revocation::NotRevoked);
}

TEST_F(RevocationTest, ListsDownloadedButNotCheckedWithCheckNone) {
    EXPECT_EQ(validate(pki().revoked, crlOptions(Check::None, Download::ThrowOnError))
                  .getCertificateChainStatus(),
              CertificateChainStatus::Valid);
    EXPECT_EQ(newRequests().size(), 2u);
}

TEST_F(RevocationTest, NoDownloadMeansNoNetworkAndNoCheck) {
    EXPECT_EQ(validate(pki().revoked, crlOptions(Check::FullChain, Download::No))
                  .getCertificateChainStatus(),
              CertificateChainStatus::Valid);
    EXPECT_TRUE(newRequests().empty());
}

TEST_F(RevocationTest, OneMissingListSwitchesCheckingOffOrThrows) {
    const ValidationPKI& p = pki();
    EXPECT_EQ(
        validate(p.revoked, crlOptions(Check::FullChain, Download::IgnoreErrors), &p.unfetchable)
            .getCertificateChainStatus(),
        CertificateChainStatus::Valid);
    EXPECT_THROW_MSG(
        validate(p.revoked, crlOptions(Check::FullChain, Download::ThrowOnError), &p.unfetchable),
        fc::X509CertificateException,
        "CRL Download Error: Unable to get Certificate Revocation List HTTP data. CRL Download "
        "Error: Response returned with status code: 404\n\n");
}

TEST_F(RevocationTest, RefusedListsSwitchCheckingOffOrThrow) {
    const ValidationPKI& p = pki();
    EXPECT_EQ(validate(p.staleListLeaf, crlOptions(Check::LeafOnly, Download::IgnoreErrors))
                  .getCertificateChainStatus(),
              CertificateChainStatus::Valid);
    EXPECT_THROW_MSG(validate(p.staleListLeaf, crlOptions(Check::LeafOnly, Download::ThrowOnError)),
                     fc::X509CertificateException,
                     "CRL Verification Error: Certificate Revocation List has expired\n");
    EXPECT_THROW_MSG(
        validate(p.forgedListLeaf, crlOptions(Check::LeafOnly, Download::ThrowOnError)),
        fc::X509CertificateException,
        "CRL Verification Error: Failed to verify the Certificate Revocation List "
        "signature\n");
}

TEST_F(RevocationTest, UnreachableRootThrowsBeforeVerification) {
    const ValidationPKI& p = pki();
    fc::TrustStore unrelated;
    unrelated.addCertificate(p.selfSigned);
    EXPECT_THROW_MSG(p.revoked.validateCertificate(
                         p.chainOf({p.intermediate}),
                         crlOptions(Check::LeafOnly, Download::ThrowOnError), unrelated),
                     fc::X509CertificateException,
                     "CRL Download Error: Failed to retrieve Root CA certificate\n");
    // In the other modes the validation goes on, without revocation checking.
    EXPECT_EQ(
        p.revoked
            .validateCertificate(p.chainOf({p.intermediate}),
                                 crlOptions(Check::LeafOnly, Download::IgnoreErrors), unrelated)
            .getCertificateChainStatus(),
        CertificateChainStatus::InvalidChain);
}

TEST_F(RevocationTest, CallersTrustStoreNeverReceivesAList) {
    const ValidationPKI& p = pki();
    const fc::TrustStore store = p.trustingRoot();
    p.revoked.validateCertificate(p.chainOf({p.intermediate}),
                                  crlOptions(Check::FullChain, Download::ThrowOnError), store);
    EXPECT_EQ(store.size(), 1u);
    EXPECT_EQ(store.getPEMStrings().size(), 1u);
}

}  // namespace
