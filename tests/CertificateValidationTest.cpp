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

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Status = fc::CertificateChainStatus;
using Options = fc::CertificateValidationOptions;
using Check = Options::CheckCRL;
using Download = Options::DownloadCRL;
using Revocation = fc::CertificateRevocationResults::RevocationStatus;

namespace {

constexpr char kServer[] = "127.0.0.31";

Options options(bool selfSigned = false, bool expired = false, bool revoked = false,
                Check check = Check::None, Download download = Download::No) {
    return Options(static_cast<Options::AllowSelfSignedCertificate>(selfSigned),
                   static_cast<Options::AllowExpiredCertificate>(expired),
                   static_cast<Options::AllowRevokedCertificate>(revoked), check, download);
}

Options crlOptions(Check check, Download download) {
    return options(false, false, false, check, download);
}

// The text for one OpenSSL error on the certificate "<name>.example.test".
std::string errorText(int code, const std::string& name, const std::string& message) {
    return "Errors present: Error code " + std::to_string(code) +
           "  at depth 0Certificate Subject Name=CN=" + name +
           ".example.test,O=Foundation Test\n. \nMessage:" + message + "\n";
}

// Intermediates and leaves with revocation-list distribution points on kServer, made once.
struct ValidationPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    X509Certificate root{testsupport::toPEM(base.root.get())};
    fc::X509UPtr intermediateX509 = issue("Intermediate", base.root.get(), base.rootKey.get(),
                                          base.intermediateKey.get(), "02", "intermediate.crl");
    X509Certificate intermediate{testsupport::toPEM(intermediateX509.get())};
    // Same name and key, but its own list cannot be fetched.
    X509Certificate unfetchable{
        testsupport::toPEM(issue("Intermediate", base.root.get(), base.rootKey.get(),
                                 base.intermediateKey.get(), "12", "missing.crl")
                               .get())};
    X509Certificate leaf = leafCertificate("good", "1001", "leaf.crl");
    X509Certificate revoked = leafCertificate("revoked", "1002", "leaf.crl");
    X509Certificate staleListLeaf = leafCertificate("stale", "1003", "stale.crl");
    X509Certificate forgedListLeaf = leafCertificate("forged", "1004", "forged.crl");
    X509Certificate expired =
        leafCertificate("expired", "1005", "leaf.crl", -10 * testsupport::kDay, -testsupport::kDay);
    X509Certificate notYetValid =
        leafCertificate("future", "1006", "leaf.crl", testsupport::kDay, 10 * testsupport::kDay);
    // Names the intermediate as issuer, but the signature is the root's.
    X509Certificate badSignature{
        testsupport::toPEM(issue("bad-signature.example.test", intermediateX509.get(),
                                 base.rootKey.get(), base.leafKey.get(), "1007", "leaf.crl")
                               .get())};
    X509Certificate selfSigned{testsupport::toPEM(
        issue("self.example.test", nullptr, nullptr,
              testsupport::sharedKey(testsupport::KeyKind::P256), "1008", "leaf.crl")
            .get())};

    static fc::X509UPtr issue(const std::string& cn, X509* issuer, EVP_PKEY* issuerKey,
                              EVP_PKEY* key, const std::string& serial, const std::string& list,
                              long notBefore = -3600, long notAfter = 365 * testsupport::kDay) {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"}, {"CN", cn}};
        recipe.key = key;
        recipe.issuer = issuer;
        recipe.issuerKey = issuerKey;
        recipe.serialHex = serial;
        recipe.ca = cn == "Intermediate";  // the only CAs below the root
        recipe.notBeforeOffset = notBefore;
        recipe.notAfterOffset = notAfter;
        recipe.extensions = {
            {NID_crl_distribution_points, "URI:http://" + std::string(kServer) + "/" + list}};
        return testsupport::makeCertificate(recipe);
    }

    X509Certificate leafCertificate(const std::string& name, const std::string& serial,
                                    const std::string& list, long notBefore = -3600,
                                    long notAfter = 365 * testsupport::kDay) const {
        return X509Certificate(testsupport::toPEM(
            issue(name + ".example.test", intermediateX509.get(), base.intermediateKey.get(),
                  base.leafKey.get(), serial, list, notBefore, notAfter)
                .get()));
    }

    fc::TrustStore trustingRoot() const {
        fc::TrustStore store;
        store.addCertificate(root);
        return store;
    }
};

const ValidationPKI& pki() {
    static const ValidationPKI instance;
    return instance;
}

X509CertificateChain chainOf(std::initializer_list<X509Certificate> certificates) {
    X509CertificateChain chain;
    for (const X509Certificate& certificate : certificates) chain.addCertificate(certificate);
    return chain;
}

TEST(Validation, OfflineOutcomes) {
    using P = ValidationPKI;
    const std::vector<std::tuple<X509Certificate P::*, bool, Options, Status, std::string>> cases{
        {&P::leaf, true, options(), Status::Valid, ""},
        {&P::leaf, false, options(), Status::InvalidChain,
         errorText(20, "good", "unable to get local issuer certificate")},
        {&P::selfSigned, false, options(), Status::SelfSigned, ""},
        {&P::selfSigned, false, options(true), Status::Valid, ""},
        {&P::expired, true, options(), Status::Expired,
         errorText(10, "expired", "certificate has expired")},
        {&P::expired, true, options(false, true), Status::Valid, ""},
        {&P::notYetValid, true, options(false, true), Status::ValidationFailed,
         "Validation Failed. Return code=9." +
             errorText(9, "future", "certificate is not yet valid")},
        {&P::badSignature, true, options(), Status::InvalidSignature,
         errorText(7, "bad-signature", "certificate signature failure")},
    };
    const P& p = pki();
    for (const auto& [certificate, withIntermediate, opts, status, text] : cases) {
        SCOPED_TRACE((p.*certificate).getSubjectName());
        const auto results = (p.*certificate)
                                 .validateCertificate(withIntermediate ? chainOf({p.intermediate})
                                                                       : X509CertificateChain(),
                                                      opts, p.trustingRoot());
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        EXPECT_EQ(results.getValidationErrorString(), text);
        EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
                  Revocation::NotRevoked);
    }
    // A chain starting with the certificate itself gives the same result.
    EXPECT_EQ(
        p.leaf.validateCertificate(chainOf({p.leaf, p.intermediate}), options(), p.trustingRoot())
            .getCertificateChainStatus(),
        Status::Valid);
}

TEST(Validation, RootCACertificateIsTheTrustAnchorOfTheVerifiedChain) {
    const ValidationPKI& p = pki();
    EXPECT_EQ(p.leaf.getRootCACertificate(chainOf({p.intermediate}), p.trustingRoot()), p.root);
    // Expired and self-signed chains are forgiven while looking for the anchor.
    EXPECT_EQ(p.expired.getRootCACertificate(chainOf({p.intermediate}), p.trustingRoot()), p.root);
    EXPECT_EQ(p.selfSigned.getRootCACertificate(X509CertificateChain(), p.trustingRoot()),
              p.selfSigned);
    EXPECT_THROW_MSG(p.leaf.getRootCACertificate(X509CertificateChain(), p.trustingRoot()),
                     fc::X509CertificateException,
                     "Error: Root CA X509Certificate has no content.");
}

// An empty trust store stands for the platform's trusted certificates: the bundle named by
// SSL_CERT_FILE here.
TEST(Validation, EmptyTrustStoreUsesThePlatformsCertificates) {
    const ValidationPKI& p = pki();
    testsupport::ScopedTrustBundle bundle;
    for (const auto& [anchor, status] :
         {std::pair{&p.root, Status::Valid}, std::pair{&p.selfSigned, Status::InvalidChain}}) {
        bundle.write(anchor->getAsPEMString());
        EXPECT_EQ(p.leaf.validateCertificate(chainOf({p.intermediate}), options(), fc::TrustStore())
                      .getCertificateChainStatus(),
                  status);
    }
}

TEST(ValidationConcurrency, ValidationsShareAStoreAndACertificate) {
    const ValidationPKI& p = pki();
    const fc::TrustStore store = p.trustingRoot();
    const X509CertificateChain chain = chainOf({p.intermediate});
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const X509Certificate& subject = t % 2 == 0 ? p.leaf : p.expired;
            const Status expected = t % 2 == 0 ? Status::Valid : Status::Expired;
            for (int i = 0; i < 10; ++i) {
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

class RevocationTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server = std::make_unique<testsupport::StaticHttpServer>(kServer);
        if (!server->running()) return;
        const ValidationPKI& p = pki();
        const auto& base = p.base;
        const auto list = [&](EVP_PKEY* signer, X509* issuer, long nextUpdate,
                              std::vector<testsupport::RevokedEntry> revoked) {
            testsupport::CRLRecipe recipe{issuer, signer, std::move(revoked)};
            recipe.nextUpdateOffset = nextUpdate;
            return testsupport::crlToDER(testsupport::makeCRL(recipe).get());
        };
        X509* intermediate = p.intermediateX509.get();
        EVP_PKEY* intermediateKey = base.intermediateKey.get();
        const long week = 7 * testsupport::kDay;
        server->put("leaf.crl", list(intermediateKey, intermediate, week, {{"1002", 1700000000}}));
        server->put("intermediate.crl", list(base.rootKey.get(), base.root.get(), week, {}));
        server->put("stale.crl", list(intermediateKey, intermediate, -60, {}));
        server->put("forged.crl", list(base.rootKey.get(), intermediate, week, {}));
    }
    static void TearDownTestSuite() { server.reset(); }
    void SetUp() override {
        if (!server->running()) GTEST_SKIP() << server->failure();
    }
    void TearDown() override {
        EXPECT_EQ(testsupport::leftoverCrlFiles(), std::vector<std::string>{});
    }

    static inline std::unique_ptr<testsupport::StaticHttpServer> server;
};

TEST_F(RevocationTest, RevokedLeafReportsTheListEntry) {
    const ValidationPKI& p = pki();
    const auto results = p.revoked.validateCertificate(
        chainOf({p.intermediate}), crlOptions(Check::LeafOnly, Download::ThrowOnError),
        p.trustingRoot());
    EXPECT_EQ(results.getCertificateChainStatus(), Status::Revoked);
    EXPECT_EQ(results.getValidationErrorString(), errorText(23, "revoked", "certificate revoked"));
    const auto revocation = results.getCertificateRevocationResults();
    EXPECT_EQ(revocation.getRevocationStatus(), Revocation::Revoked);
    EXPECT_EQ(revocation.getRevocationDateString(), "Nov 14 22:13:20 2023 GMT");
    EXPECT_EQ(revocation.getRevokedSerialNumberString(), "4098");
}

TEST_F(RevocationTest, CheckingDownloadingAndFailedLists) {
    using P = ValidationPKI;
    const std::vector<std::string> none, leafOnly{"/leaf.crl"},
        both{"/leaf.crl", "/intermediate.crl"};
    const std::string notFound =
        "CRL Download Error: Unable to get Certificate Revocation List "
        "HTTP data. CRL Download Error: Response returned with status "
        "code: 404\n\n";
    struct Case {
        X509Certificate P::*certificate;
        Options options;
        Status status;
        std::optional<std::vector<std::string>> requests;  // none: not pinned
        std::string thrown = {};
        X509Certificate P::*intermediate = &P::intermediate;
    };
    const std::vector<Case> cases{
        // Exactly one list for LeafOnly: the intermediate's is never requested.
        {&P::revoked, crlOptions(Check::LeafOnly, Download::ThrowOnError), Status::Revoked,
         leafOnly},
        {&P::leaf, crlOptions(Check::FullChain, Download::ThrowOnError), Status::Valid, both},
        {&P::revoked, crlOptions(Check::FullChain, Download::IgnoreErrors), Status::Revoked, both},
        // Allowed revocation is not checked.
        {&P::revoked, options(false, false, true, Check::LeafOnly, Download::ThrowOnError),
         Status::Valid, std::nullopt},
        // Downloaded but not checked.
        {&P::revoked, crlOptions(Check::None, Download::ThrowOnError), Status::Valid, both},
        // No download means no network and no check.
        {&P::revoked, crlOptions(Check::FullChain, Download::No), Status::Valid, none},
        // One list that cannot be fetched switches checking off, or throws.
        {&P::revoked, crlOptions(Check::FullChain, Download::IgnoreErrors), Status::Valid,
         std::nullopt, "", &P::unfetchable},
        {&P::revoked, crlOptions(Check::FullChain, Download::ThrowOnError), Status::Valid,
         std::nullopt, notFound, &P::unfetchable},
        // So do lists that are refused.
        {&P::staleListLeaf, crlOptions(Check::LeafOnly, Download::IgnoreErrors), Status::Valid,
         std::nullopt},
        {&P::staleListLeaf, crlOptions(Check::LeafOnly, Download::ThrowOnError), Status::Valid,
         std::nullopt, "CRL Verification Error: Certificate Revocation List has expired\n"},
        {&P::forgedListLeaf, crlOptions(Check::LeafOnly, Download::ThrowOnError), Status::Valid,
         std::nullopt,
         "CRL Verification Error: Failed to verify the Certificate Revocation List signature\n"},
    };
    const P& p = pki();
    const fc::TrustStore store = p.trustingRoot();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        const Case& c = cases[i];
        const std::size_t before = server->requestedPaths().size();
        const auto validate = [&] {
            return (p.*c.certificate)
                .validateCertificate(chainOf({p.*c.intermediate}), c.options, store);
        };
        if (!c.thrown.empty()) {
            EXPECT_THROW_MSG(validate(), fc::X509CertificateException, c.thrown);
            continue;
        }
        EXPECT_EQ(validate().getCertificateChainStatus(), c.status);
        const auto all = server->requestedPaths();
        if (c.requests) {
            EXPECT_EQ(std::vector<std::string>(all.begin() + static_cast<long>(before), all.end()),
                      *c.requests);
        }
    }
    // The caller's trust store never receives a list.
    EXPECT_EQ(store.size(), 1u);
    EXPECT_EQ(store.getPEMStrings().size(), 1u);
}

TEST_F(RevocationTest, UnreachableRootThrowsOnlyWithThrowOnError) {
    const ValidationPKI& p = pki();
    fc::TrustStore unrelated;
    unrelated.addCertificate(p.selfSigned);
    EXPECT_THROW_MSG(p.revoked.validateCertificate(
                         chainOf({p.intermediate}),
                         crlOptions(Check::LeafOnly, Download::ThrowOnError), unrelated),
                     fc::X509CertificateException,
                     "CRL Download Error: Failed to retrieve Root CA certificate\n");
    EXPECT_EQ(
        p.revoked
            .validateCertificate(chainOf({p.intermediate}),
                                 crlOptions(Check::LeafOnly, Download::IgnoreErrors), unrelated)
            .getCertificateChainStatus(),
        Status::InvalidChain);
}

}  // namespace
