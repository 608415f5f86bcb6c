// Paths beyond OpenSSL's first: cross-signed intermediates, anchors inside the given chain, and
// bundles built to make the search explode.
#include "PathSearch.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

namespace fc = foundation::certificates;
using Status = fc::CertificateChainStatus;
using Options = fc::CertificateValidationOptions;
using testsupport::CertificateRecipe;

namespace {

Options plainOptions() {
    return Options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                   Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                   Options::DownloadCRL::No)
        .withHostName("leaf.example.test");
}

Options webPki() { return plainOptions().withProfile(fc::ValidationProfile::WebPKI); }

// Certificates of a graph, kept alive together; issued ones name their issuer by subject.
class Graph {
  public:
    X509* root(const std::string& name, EVP_PKEY* key) {
        CertificateRecipe recipe;
        recipe.subject = {{"CN", name}};
        recipe.key = key;
        recipe.ca = true;
        recipe.serialHex = nextSerial();
        return keep(recipe);
    }

    X509* ca(const std::string& name, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
             const std::string& nameConstraints = "") {
        CertificateRecipe recipe;
        recipe.subject = {{"CN", name}};
        recipe.key = key;
        recipe.issuer = issuer;
        recipe.issuerKey = issuerKey;
        recipe.ca = true;
        recipe.serialHex = nextSerial();
        if (!nameConstraints.empty()) {
            recipe.extensions = {{NID_name_constraints, "critical," + nameConstraints}};
        }
        return keep(recipe);
    }

    X509* leaf(X509* issuer, EVP_PKEY* issuerKey) {
        CertificateRecipe recipe;
        recipe.subject = {{"CN", "leaf.example.test"}};
        recipe.key = testsupport::rsaPKI().leafKey.get();
        recipe.issuer = issuer;
        recipe.issuerKey = issuerKey;
        recipe.serialHex = nextSerial();
        recipe.extensions = {{NID_key_usage, "critical,digitalSignature"},
                             {NID_ext_key_usage, "serverAuth"},
                             {NID_subject_alt_name, "DNS:leaf.example.test"}};
        return keep(recipe);
    }

  private:
    X509* keep(const CertificateRecipe& recipe) {
        made.push_back(testsupport::makeCertificate(recipe));
        return made.back().get();
    }
    std::string nextSerial() { return std::to_string(1000 + made.size()); }

    std::vector<fc::X509UPtr> made;
};

fc::CertificateValidationResults validate(X509* leaf, const std::vector<X509*>& given,
                                          const std::vector<X509*>& anchors,
                                          const Options& options) {
    fc::TrustStore trusted;
    for (X509* anchor : anchors) trusted.addCertificate(fc::X509Certificate(anchor));
    std::string pem;
    for (X509* certificate : given) pem += testsupport::toPEM(certificate);
    const fc::X509CertificateChain chain =
        pem.empty() ? fc::X509CertificateChain() : fc::X509CertificateChain(pem);
    return fc::X509Certificate(leaf).validateCertificate(chain, options, trusted);
}

// Two roots cross-sign one issuing CA (same name and key); the copy OpenSSL meets first is
// constrained away from the leaf's name.
class CrossSigned : public ::testing::Test {
  protected:
    Graph graph;
    EVP_PKEY* issuingKey = testsupport::rsaPKI().intermediateKey.get();
    X509* rootOne = graph.root("Root One", testsupport::rsaPKI().rootKey.get());
    X509* rootTwo = graph.root("Root Two", testsupport::ecPKI().rootKey.get());
    X509* constrained = graph.ca("Issuing CA", issuingKey, rootOne,
                                 testsupport::rsaPKI().rootKey.get(), "permitted;DNS:allowed.test");
    X509* open = graph.ca("Issuing CA", issuingKey, rootTwo, testsupport::ecPKI().rootKey.get());
    X509* leaf = graph.leaf(constrained, issuingKey);
};

TEST_F(CrossSigned, SecondPathPassesWhereTheFirstIsConstrained) {
    const auto plain = validate(leaf, {constrained, open}, {rootOne, rootTwo}, plainOptions());
    EXPECT_EQ(plain.getCertificateChainStatus(), Status::ValidationFailed);
    EXPECT_EQ(plain.getValidationErrorString().rfind("Validation Failed. Return code=47.", 0), 0u);
    const auto profiled = validate(leaf, {constrained, open}, {rootOne, rootTwo}, webPki());
    EXPECT_EQ(profiled.getCertificateChainStatus(), Status::Valid)
        << profiled.getValidationErrorString();
    // The report describes the path that passed, without the refused path's error.
    const auto checks = profiled.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_EQ(checks[2].subject, "CN=Root Two");
    for (const fc::CertificateCheck& check : checks) EXPECT_TRUE(check.errors.empty());
}

TEST_F(CrossSigned, AnchorInTheMiddleOfTheGivenChain) {
    // Only Root Two is trusted; Root One, given next, ends OpenSSL's path untrusted.
    const std::vector<X509*> given{constrained, rootOne, rootTwo, open};
    EXPECT_EQ(validate(leaf, given, {rootTwo}, plainOptions()).getCertificateChainStatus(),
              Status::SelfSigned);
    const auto profiled = validate(leaf, given, {rootTwo}, webPki());
    EXPECT_EQ(profiled.getCertificateChainStatus(), Status::Valid)
        << profiled.getValidationErrorString();
}

TEST_F(CrossSigned, NoOtherPathKeepsTheFirstFailure) {
    const auto profiled = validate(leaf, {constrained}, {rootOne, rootTwo}, webPki());
    EXPECT_EQ(profiled.getCertificateChainStatus(), Status::ValidationFailed);
    EXPECT_EQ(profiled.getValidationErrorString().rfind("Validation Failed. Return code=47.", 0),
              0u);
}

// Many copies of one CA (same name and key) under a pair of CAs that sign each other, and
// anchored copies that all fail: the search must give up in time.
class Explosion : public ::testing::Test {
  protected:
    Graph graph;
    EVP_PKEY* rootKey = testsupport::rsaPKI().rootKey.get();
    EVP_PKEY* loopKey = testsupport::ecPKI().intermediateKey.get();
    EVP_PKEY* aKey = testsupport::ecPKI().leafKey.get();
    EVP_PKEY* bKey = testsupport::sharedKey(testsupport::KeyKind::P256);
    X509* root = graph.root("Explosion Root", rootKey);
    X509* seedA = graph.ca("Cross A", aKey, root, rootKey);
    X509* seedLoop = graph.ca("Loop CA", loopKey, seedA, aKey);
    X509* leaf = graph.leaf(seedLoop, loopKey);
    std::vector<X509*> bundle;

    void SetUp() override {
        X509* seedB = graph.ca("Cross B", bKey, seedA, aKey);
        for (int i = 0; i < 30; ++i) bundle.push_back(graph.ca("Loop CA", loopKey, seedA, aKey));
        for (int i = 0; i < 10; ++i) bundle.push_back(graph.ca("Cross A", aKey, seedB, bKey));
        for (int i = 0; i < 10; ++i) bundle.push_back(graph.ca("Cross B", bKey, seedA, aKey));
        for (int i = 0; i < 10; ++i) {
            bundle.push_back(
                graph.ca("Cross A", aKey, root, rootKey, "excluded;DNS:leaf.example.test"));
        }
    }
};

TEST_F(Explosion, AnsweredWithinOneSecond) {
    const auto start = std::chrono::steady_clock::now();
    const auto failed = validate(leaf, bundle, {root}, webPki());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_NE(failed.getCertificateChainStatus(), Status::Valid);
    EXPECT_LT(elapsed, std::chrono::seconds(1));

    // One good path behind all of it is still found.
    bundle.push_back(graph.ca("Cross A", aKey, root, rootKey));
    const auto again = std::chrono::steady_clock::now();
    const auto found = validate(leaf, bundle, {root}, webPki());
    EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::seconds(1));
    EXPECT_EQ(found.getCertificateChainStatus(), Status::Valid) << found.getValidationErrorString();
}

TEST_F(Explosion, SearchStaysWithinItsLimits) {
    std::vector<X509*> anchors{root};
    int offered = 0;
    const bool found = foundation::certificates::detail::searchPaths(
        leaf, bundle, anchors, [&](const std::vector<X509*>& path) {
            ++offered;
            EXPECT_LE(path.size(), 8u);
            EXPECT_EQ(path.front(), leaf);
            EXPECT_EQ(path.back(), root);
            EXPECT_EQ(std::set<X509*>(path.begin(), path.end()).size(), path.size());
            return false;
        });
    EXPECT_FALSE(found);
    EXPECT_GT(offered, 0);
    EXPECT_LE(offered, 64);
}

}  // namespace
