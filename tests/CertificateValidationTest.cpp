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
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <atomic>
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
constexpr long kDay = testsupport::kDay;

Options options(bool selfSigned = false, bool expired = false, bool revoked = false,
                Check check = Check::None, Download download = Download::No) {
    return Options(static_cast<Options::AllowSelfSignedCertificate>(selfSigned),
                   static_cast<Options::AllowExpiredCertificate>(expired),
                   static_cast<Options::AllowRevokedCertificate>(revoked), check, download);
}

Options crl(Check check, Download download) {
    return options(false, false, false, check, download);
}

// The text for one OpenSSL error on the certificate "<name>.example.test".
std::string errorText(int code, const std::string& name, const std::string& message) {
    return "Errors present: Error code " + std::to_string(code) +
           "  at depth 0Certificate Subject Name=CN=" + name +
           ".example.test,O=Foundation Test\n. \nMessage:" + message + "\n";
}

// Intermediates of the root's and leaves of the intermediate's, each naming its revocation list
// on kServer, made once.
struct ValidationPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    X509Certificate root{base.root.get()};
    fc::TrustStore trusted = [this] {
        fc::TrustStore store;
        store.addCertificate(root);
        return store;
    }();
    fc::X509UPtr intermediateX509 = issue("Intermediate", "02", "intermediate.crl", true);
    X509CertificateChain chain{testsupport::toPEM(intermediateX509.get())};
    // Same name and key, but its own list cannot be fetched.
    X509CertificateChain unfetchable{
        testsupport::toPEM(issue("Intermediate", "12", "missing.crl", true).get())};
    X509Certificate leaf{issue("good", "1001", "leaf.crl").get()};
    X509Certificate revoked{issue("revoked", "1002", "leaf.crl").get()};
    X509Certificate staleListLeaf{issue("stale", "1003", "stale.crl").get()};
    X509Certificate forgedListLeaf{issue("forged", "1004", "forged.crl").get()};
    X509Certificate expired{issue("expired", "1005", "leaf.crl", false, -10 * kDay, -kDay).get()};
    X509Certificate notYetValid{issue("future", "1006", "leaf.crl", false, kDay, 10 * kDay).get()};
    // Names the intermediate as issuer, but the signature is the root's.
    X509Certificate badSignature{
        issue("bad-signature", "1007", "leaf.crl", false, -3600, kDay, base.rootKey.get()).get()};
    X509Certificate selfSigned = [] {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"CN", "self.example.test"}};
        recipe.key = testsupport::sharedKey(testsupport::KeyKind::P256);
        return X509Certificate(testsupport::makeCertificate(recipe).get());
    }();

    // Leaves are called "<name>.example.test".
    fc::X509UPtr issue(const std::string& name, const std::string& serial, const std::string& list,
                       bool isIntermediate = false, long notBefore = -3600, long notAfter = kDay,
                       EVP_PKEY* signer = nullptr) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"},
                          {"CN", isIntermediate ? name : name + ".example.test"}};
        recipe.key = isIntermediate ? base.intermediateKey.get() : base.leafKey.get();
        recipe.issuer = isIntermediate ? base.root.get() : intermediateX509.get();
        recipe.issuerKey = signer != nullptr ? signer
                           : isIntermediate  ? base.rootKey.get()
                                             : base.intermediateKey.get();
        recipe.ca = isIntermediate;
        recipe.serialHex = serial;
        recipe.notBeforeOffset = notBefore;
        recipe.notAfterOffset = notAfter;
        recipe.extensions = {
            {NID_crl_distribution_points, "URI:http://" + std::string(kServer) + "/" + list}};
        return testsupport::makeCertificate(recipe);
    }
};

const ValidationPKI& pki() {
    static const ValidationPKI instance;
    return instance;
}

TEST(Validation, OfflineOutcomes) {
    const ValidationPKI& p = pki();
    const X509CertificateChain none, withLeaf(p.leaf.getAsPEMString() + p.chain.getAsString());
    const std::vector<std::tuple<const X509Certificate*, const X509CertificateChain*, Options,
                                 Status, std::string>>
        cases{{&p.leaf, &p.chain, options(), Status::Valid, ""},
              // A chain starting with the certificate itself gives the same result.
              {&p.leaf, &withLeaf, options(), Status::Valid, ""},
              {&p.leaf, &none, options(), Status::InvalidChain,
               errorText(20, "good", "unable to get local issuer certificate")},
              {&p.selfSigned, &none, options(), Status::SelfSigned, ""},
              {&p.selfSigned, &none, options(true), Status::Valid, ""},
              {&p.expired, &p.chain, options(), Status::Expired,
               errorText(10, "expired", "certificate has expired")},
              {&p.expired, &p.chain, options(false, true), Status::Valid, ""},
              {&p.notYetValid, &p.chain, options(false, true), Status::ValidationFailed,
               "Validation Failed. Return code=9." +
                   errorText(9, "future", "certificate is not yet valid")},
              {&p.badSignature, &p.chain, options(), Status::InvalidSignature,
               errorText(7, "bad-signature", "certificate signature failure")}};
    for (const auto& [certificate, chain, opts, status, text] : cases) {
        SCOPED_TRACE(certificate->getSubjectName());
        const auto results = certificate->validateCertificate(*chain, opts, p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        EXPECT_EQ(results.getValidationErrorString(), text);
        EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
                  Revocation::NotRevoked);
    }
}

TEST(Validation, TrustAnchorsOfTheStoreAndThePlatform) {
    const ValidationPKI& p = pki();
    // The root of the verified chain.
    EXPECT_EQ(p.leaf.getRootCACertificate(p.chain, p.trusted), p.root);
    // Expired and self-signed chains are forgiven while looking for the anchor.
    EXPECT_EQ(p.expired.getRootCACertificate(p.chain, p.trusted), p.root);
    EXPECT_EQ(p.selfSigned.getRootCACertificate(X509CertificateChain(), p.trusted), p.selfSigned);
    EXPECT_THROW_MSG(p.leaf.getRootCACertificate(X509CertificateChain(), p.trusted),
                     fc::X509CertificateException,
                     "Error: Root CA X509Certificate has no content.");

    // An empty trust store stands for the platform's trusted certificates: the bundle named by
    // SSL_CERT_FILE here.
    testsupport::ScopedTrustBundle bundle;
    for (const auto& [anchor, status] :
         {std::pair{&p.root, Status::Valid}, std::pair{&p.selfSigned, Status::InvalidChain}}) {
        bundle.write(anchor->getAsPEMString());
        EXPECT_EQ(p.leaf.validateCertificate(p.chain, options(), fc::TrustStore())
                      .getCertificateChainStatus(),
                  status);
    }
}

TEST(ValidationConcurrency, ValidationsShareAStoreAndACertificate) {
    const ValidationPKI& p = pki();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (const X509Certificate* subject : {&p.leaf, &p.expired, &p.leaf, &p.expired}) {
        threads.emplace_back([&, subject] {
            const Status expected = subject == &p.leaf ? Status::Valid : Status::Expired;
            for (int i = 0; i < 10; ++i) {
                wrong += subject->validateCertificate(p.chain, options(), p.trusted)
                             .getCertificateChainStatus() != expected;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// The caller's own lists of ValidationPKI's certificates, made once.
struct SuppliedLists {
    const ValidationPKI& p = pki();
    X509* intermediate = p.intermediateX509.get();
    fc::CertificateRevocationList leaf =
        list({intermediate, p.base.intermediateKey.get(), {{"1002", 1700000000}}});
    fc::CertificateRevocationList stale =
        list({intermediate, p.base.intermediateKey.get(), {}, -7200, -60});
    fc::CertificateRevocationList forged = list({intermediate, p.base.rootKey.get(), {}});
    fc::CertificateRevocationList ofIntermediates =
        list({p.base.root.get(), p.base.rootKey.get(), {}});

    static fc::CertificateRevocationList list(const testsupport::CRLRecipe& recipe) {
        return fc::CertificateRevocationList(
            testsupport::crlToDER(testsupport::makeCRL(recipe).get()));
    }
};

const SuppliedLists& supplied() {
    static const SuppliedLists instance;
    return instance;
}

Options withLists(Options options, std::vector<fc::CertificateRevocationList> lists) {
    options.withRevocationLists(std::move(lists));
    return options;
}

// Offline: the caller's lists switch checking on without any download, and OpenSSL judges them.
TEST(Validation, SuppliedListsOffline) {
    const ValidationPKI& p = pki();
    const SuppliedLists& l = supplied();
    const std::string unableToGetCRL = "unable to get certificate CRL";
    const std::string atIntermediate =
        "Errors present: Error code 3  at depth 1Certificate Subject Name=CN=Intermediate,O="
        "Foundation Test\n. \nMessage:" +
        unableToGetCRL + "\n";
    using Lists = std::vector<fc::CertificateRevocationList>;
    const std::vector<std::tuple<const X509Certificate*, Options, Lists, Status, std::string>>
        cases{{&p.revoked,
               crl(Check::LeafOnly, Download::No),
               {l.leaf},
               Status::Revoked,
               errorText(23, "revoked", "certificate revoked")},
              {&p.leaf, crl(Check::LeafOnly, Download::No), {l.leaf}, Status::Valid, ""},
              {&p.leaf,
               crl(Check::FullChain, Download::No),
               {l.leaf, l.ofIntermediates},
               Status::Valid,
               ""},
              // A level without a list fails the check.
              {&p.leaf,
               crl(Check::FullChain, Download::No),
               {l.leaf},
               Status::CRLError,
               atIntermediate},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.ofIntermediates},
               Status::CRLError,
               errorText(3, "good", unableToGetCRL)},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.stale},
               Status::CRLError,
               errorText(12, "good", "CRL has expired")},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.forged},
               Status::CRLError,
               errorText(8, "good", "CRL signature failure")},
              // Lists change nothing where revocation is not checked.
              {&p.revoked,
               options(false, false, true, Check::LeafOnly, Download::No),
               {l.leaf},
               Status::Valid,
               ""},
              {&p.revoked, crl(Check::None, Download::No), {l.leaf}, Status::Valid, ""}};
    for (const auto& [certificate, opts, lists, status, text] : cases) {
        SCOPED_TRACE(certificate->getSubjectName() + " with " + std::to_string(lists.size()));
        const auto results =
            certificate->validateCertificate(p.chain, withLists(opts, lists), p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        EXPECT_EQ(results.getValidationErrorString(), text);
        const auto revocation = results.getCertificateRevocationResults();
        EXPECT_EQ(revocation.getRevocationDateString(),
                  status == Status::Revoked ? "Nov 14 22:13:20 2023 GMT" : "");
        EXPECT_EQ(revocation.getRevokedSerialNumberString(),
                  status == Status::Revoked ? "4098" : "");
    }
    // The caller's lists and store are only read.
    EXPECT_EQ(l.leaf, SuppliedLists::list({p.intermediateX509.get(),
                                           p.base.intermediateKey.get(),
                                           {{"1002", 1700000000}}}));
    EXPECT_EQ(p.trusted.size(), 1u);
}

class RevocationTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server = std::make_unique<testsupport::StaticHttpServer>(kServer);
        if (!server->running()) return;
        const ValidationPKI& p = pki();
        const auto der = [](const fc::X509CRLUPtr& list) {
            return testsupport::crlToDER(list.get());
        };
        X509* intermediate = p.intermediateX509.get();
        testsupport::CRLRecipe leafList{intermediate,
                                        p.base.intermediateKey.get(),
                                        {{"1002", 1700000000}}};  // Nov 14 22:13:20 2023 GMT
        server->put("leaf.crl", der(testsupport::makeCRL(leafList)));
        leafList.nextUpdateOffset = -60;
        server->put("stale.crl", der(testsupport::makeCRL(leafList)));
        server->put("intermediate.crl",
                    der(testsupport::makeCRL(p.base.root.get(), p.base.rootKey.get())));
        server->put("forged.crl", der(testsupport::makeCRL(intermediate, p.base.rootKey.get())));
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

TEST_F(RevocationTest, CheckingAndDownloading) {
    const ValidationPKI& p = pki();
    using Paths = std::vector<std::string>;
    using Requests = std::optional<Paths>;  // none: not pinned
    const Requests leafOnly = Paths{"/leaf.crl"}, both = Paths{"/leaf.crl", "/intermediate.crl"};
    const std::vector<std::tuple<const X509Certificate*, Options, Requests, Status>> cases{
        // Exactly one list for LeafOnly: the intermediate's is never requested.
        {&p.revoked, crl(Check::LeafOnly, Download::ThrowOnError), leafOnly, Status::Revoked},
        {&p.leaf, crl(Check::FullChain, Download::ThrowOnError), both, Status::Valid},
        {&p.revoked, crl(Check::FullChain, Download::IgnoreErrors), both, Status::Revoked},
        // Allowed revocation is not checked.
        {&p.revoked, options(false, false, true, Check::LeafOnly, Download::ThrowOnError),
         std::nullopt, Status::Valid},
        // Downloaded but not checked.
        {&p.revoked, crl(Check::None, Download::ThrowOnError), both, Status::Valid},
        // No download means no network and no check.
        {&p.revoked, crl(Check::FullChain, Download::No), Paths{}, Status::Valid}};
    for (const auto& [certificate, opts, requests, status] : cases) {
        const std::size_t before = server->requestedPaths().size();
        const auto results = certificate->validateCertificate(p.chain, opts, p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        const bool revoked = status == Status::Revoked;
        EXPECT_EQ(results.getValidationErrorString(),
                  revoked ? errorText(23, "revoked", "certificate revoked") : "");
        const auto revocation = results.getCertificateRevocationResults();
        EXPECT_EQ(revocation.getRevocationStatus(),
                  revoked ? Revocation::Revoked : Revocation::NotRevoked);
        if (revoked) {
            EXPECT_EQ(revocation.getRevocationDateString(), "Nov 14 22:13:20 2023 GMT");
            EXPECT_EQ(revocation.getRevokedSerialNumberString(), "4098");
        }
        const auto all = server->requestedPaths();
        if (requests) {
            EXPECT_EQ(Paths(all.begin() + static_cast<long>(before), all.end()), *requests);
        }
    }
    EXPECT_EQ(p.trusted.size(), 1u);  // the caller's trust store never receives a list
}

// A level whose list the caller supplied is not downloaded; the others are, as always. With
// lists of the caller's, checking stays on when a download fails.
TEST_F(RevocationTest, SuppliedListsSpareDownloads) {
    const ValidationPKI& p = pki();
    const SuppliedLists& l = supplied();
    using Paths = std::vector<std::string>;
    const std::vector<
        std::tuple<const X509Certificate*, const X509CertificateChain*, Options, Paths, Status>>
        cases{{&p.revoked, &p.chain, crl(Check::LeafOnly, Download::ThrowOnError), Paths{},
               Status::Revoked},
              {&p.leaf, &p.chain, crl(Check::FullChain, Download::ThrowOnError),
               Paths{"/intermediate.crl"}, Status::Valid},
              {&p.leaf, &p.unfetchable, crl(Check::FullChain, Download::IgnoreErrors),
               Paths{"/missing.crl"}, Status::CRLError}};
    for (const auto& [certificate, chain, opts, requests, status] : cases) {
        const std::size_t before = server->requestedPaths().size();
        EXPECT_EQ(certificate->validateCertificate(*chain, withLists(opts, {l.leaf}), p.trusted)
                      .getCertificateChainStatus(),
                  status);
        const auto all = server->requestedPaths();
        EXPECT_EQ(Paths(all.begin() + static_cast<long>(before), all.end()), requests);
    }
}

// ThrowOnError throws; IgnoreErrors goes on without revocation checking.
TEST_F(RevocationTest, UnusableListsSwitchCheckingOffOrThrow) {
    const ValidationPKI& p = pki();
    fc::TrustStore unrelated;
    unrelated.addCertificate(p.selfSigned);
    const std::vector<std::tuple<const X509Certificate*, const X509CertificateChain*, Check,
                                 const fc::TrustStore*, std::string, Status>>
        cases{
            {&p.revoked, &p.unfetchable, Check::FullChain, &p.trusted,
             "CRL Download Error: Unable to get Certificate Revocation List HTTP data. CRL "
             "Download Error: Response returned with status code: 404\n\n",
             Status::Valid},
            {&p.staleListLeaf, &p.chain, Check::LeafOnly, &p.trusted,
             "CRL Verification Error: Certificate Revocation List has expired\n", Status::Valid},
            {&p.forgedListLeaf, &p.chain, Check::LeafOnly, &p.trusted,
             "CRL Verification Error: Failed to verify the Certificate Revocation List "
             "signature\n",
             Status::Valid},
            // A root that cannot be found throws before verification.
            {&p.revoked, &p.chain, Check::LeafOnly, &unrelated,
             "CRL Download Error: Failed to retrieve Root CA certificate\n", Status::InvalidChain}};
    for (const auto& [certificate, chain, check, store, message, ignored] : cases) {
        EXPECT_THROW_MSG(
            certificate->validateCertificate(*chain, crl(check, Download::ThrowOnError), *store),
            fc::X509CertificateException, message);
        EXPECT_EQ(
            certificate->validateCertificate(*chain, crl(check, Download::IgnoreErrors), *store)
                .getCertificateChainStatus(),
            ignored);
    }
}

}  // namespace
