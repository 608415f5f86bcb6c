// The report every validation carries: the path certificate by certificate, what OpenSSL said
// about each and what was forgiven, how revocation was checked, and what was fetched.
#include "CrlMessages.hpp"
#include "support/Stress.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/CrlCache.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>

namespace fc = foundation::certificates;
namespace message = fc::detail::crlmessage;
using Options = fc::CertificateValidationOptions;
using Status = fc::CertificateChainStatus;
using Source = fc::RevocationCheck::Source;
using Revocation = fc::RevocationCheck::Status;
using Server = testsupport::ScriptedHttpServer;
using testsupport::kDay;

namespace {

constexpr char kAddress[] = "127.0.0.70";
const std::string kLeafList = "/explain-leaf.crl";
const std::string kMissingList = "/explain-missing.crl";

// The test PKI with variants of its intermediate, and leaves of the intermediate's, serial 77,
// whose list is on the loopback server.
struct ReportPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    const testsupport::TestPKI& other = testsupport::ecPKI();

    fc::X509UPtr leafWith(const std::string& listPath, long notAfter = 365 * kDay) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Explain"}, {"CN", "Leaf"}};
        recipe.key = base.leafKey.get();
        recipe.issuer = base.intermediate.get();
        recipe.issuerKey = base.intermediateKey.get();
        recipe.serialHex = "77";
        recipe.notBeforeOffset = std::min(-3600L, notAfter - kDay);
        recipe.notAfterOffset = notAfter;
        recipe.extensions = {
            {NID_crl_distribution_points, std::string("URI:http://") + kAddress + listPath}};
        return testsupport::makeCertificate(recipe);
    }
    // The intermediate's name and key, under other dates or signed with another RSA key (OpenSSL
    // passes over an issuer whose key type cannot have signed).
    fc::X509UPtr intermediateWith(long notAfter, EVP_PKEY* signer) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Intermediate"}};
        recipe.key = base.intermediateKey.get();
        recipe.issuer = base.root.get();
        recipe.issuerKey = signer;
        recipe.ca = true;
        recipe.notBeforeOffset = -3 * kDay;
        recipe.notAfterOffset = notAfter;
        return testsupport::makeCertificate(recipe);
    }

    fc::X509UPtr leaf = leafWith(kLeafList);
    fc::X509UPtr expiredLeaf = leafWith(kLeafList, -kDay);
    fc::X509UPtr expiredIntermediate = intermediateWith(-kDay, base.rootKey.get());
    fc::X509UPtr badlySignedIntermediate = intermediateWith(kDay, base.leafKey.get());
    fc::X509CRLUPtr revokingLeaf =
        testsupport::makeCRL(base.intermediate.get(), base.intermediateKey.get(), {"77"});
    fc::X509CRLUPtr sparingLeaf =
        testsupport::makeCRL(base.intermediate.get(), base.intermediateKey.get(), {"78"});
    fc::X509CRLUPtr rootList = testsupport::makeCRL(base.root.get(), base.rootKey.get(), {});

    fc::TrustStore trusting(const X509* root) const {
        fc::TrustStore store;
        store.addCertificate(fc::X509Certificate(root));
        return store;
    }
    static fc::X509CertificateChain chainOf(const std::vector<const X509*>& certificates) {
        std::string pem;
        for (const X509* certificate : certificates) pem += testsupport::toPEM(certificate);
        return fc::X509CertificateChain(pem);
    }
};

const ReportPKI& pki() {
    static const ReportPKI instance;
    return instance;
}

Options options(Options::AllowExpiredCertificate expired = Options::AllowExpiredCertificate::No,
                Options::CheckCRL check = Options::CheckCRL::None,
                Options::DownloadCRL download = Options::DownloadCRL::No) {
    return Options(Options::AllowSelfSignedCertificate::No, expired,
                   Options::AllowRevokedCertificate::No, check, download);
}

fc::CertificateRevocationList listOf(const fc::X509CRLUPtr& crl) {
    return fc::CertificateRevocationList(testsupport::crlToDER(crl.get()));
}

using Error = std::tuple<int, int, bool>;  // depth, code, forgiven

std::vector<Error> errorsOf(const std::vector<fc::CertificateCheck>& checks) {
    std::vector<Error> errors;
    for (const fc::CertificateCheck& check : checks) {
        for (const fc::VerificationError& error : check.errors) {
            errors.emplace_back(check.depth, error.code, error.forgiven);
            EXPECT_EQ(error.text, X509_verify_cert_error_string(error.code));
        }
    }
    return errors;
}

// Paths without revocation checking: leaf, intermediate and root as the case builds them.
enum class Variant { Good, Expired, BadlySigned };

struct PathCase {
    const char* name;
    Variant leaf, intermediate;
    bool rootInChain, trustOtherRoot, allowExpired;
    Status status;
    std::size_t pathLength;  // what OpenSSL got to
    std::vector<Error> errors;
};

class PathReportTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(PathReportTest, ListsThePathWithEveryErrorInPlace) {
    const PathCase& c = GetParam();
    const ReportPKI& p = pki();
    const X509* leaf = c.leaf == Variant::Expired ? p.expiredLeaf.get() : p.leaf.get();
    const X509* intermediate = c.intermediate == Variant::Expired ? p.expiredIntermediate.get()
                               : c.intermediate == Variant::BadlySigned
                                   ? p.badlySignedIntermediate.get()
                                   : p.base.intermediate.get();
    std::vector<const X509*> chain{intermediate};
    if (c.rootInChain) chain.push_back(p.base.root.get());
    const fc::CertificateValidationResults results = fc::X509Certificate(leaf).validateCertificate(
        ReportPKI::chainOf(chain),
        options(c.allowExpired ? Options::AllowExpiredCertificate::Yes
                               : Options::AllowExpiredCertificate::No),
        p.trusting(c.trustOtherRoot ? p.other.root.get() : p.base.root.get()));
    EXPECT_EQ(results.getCertificateChainStatus(), c.status);

    const std::vector<const X509*> path{leaf, intermediate, p.base.root.get()};
    const std::vector<fc::CertificateCheck> checks = results.getCertificateChecks();
    ASSERT_EQ(checks.size(), c.pathLength);
    for (std::size_t depth = 0; depth < checks.size(); ++depth) {
        SCOPED_TRACE(depth);
        const fc::X509Certificate expected(path[depth]);
        EXPECT_EQ(checks[depth].depth, static_cast<int>(depth));
        EXPECT_EQ(checks[depth].subject, expected.getSubjectName());
        EXPECT_EQ(checks[depth].issuer, expected.getIssuerName());
        EXPECT_EQ(checks[depth].sha256Fingerprint, expected.getSHA256Fingerprint());
        EXPECT_FALSE(checks[depth].revocation.checked);
        EXPECT_EQ(checks[depth].revocation.source, Source::None);
    }
    EXPECT_EQ(errorsOf(checks), c.errors);
    EXPECT_TRUE(results.getRevocationFetches().empty());
}

constexpr auto kGood = Variant::Good;
constexpr auto kExpired = Variant::Expired;

// clang-format off
const PathCase kPaths[] = {
    {"Clean",                       kGood,    kGood,               false, false, false, Status::Valid,            3, {}},
    {"ForgivenExpiredLeaf",         kExpired, kGood,               false, false, true,  Status::Valid,            3, {{0, X509_V_ERR_CERT_HAS_EXPIRED, true}}},
    {"ForgivenExpiredIntermediate", kGood,    kExpired,            false, false, true,  Status::Valid,            3, {{1, X509_V_ERR_CERT_HAS_EXPIRED, true}}},
    {"ExpiredLeaf",                 kExpired, kGood,               false, false, false, Status::Expired,          3, {{0, X509_V_ERR_CERT_HAS_EXPIRED, false}}},
    {"UntrustedRootInTheChain",     kGood,    kGood,               true,  true,  false, Status::SelfSigned,       3, {{2, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, false}}},
    {"NoRootAtAll",                 kGood,    kGood,               false, true,  false, Status::InvalidChain,     2, {{1, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, false}}},
    {"BadSignatureAtDepthOne",      kGood,    Variant::BadlySigned, false, false, false, Status::InvalidSignature, 3, {{1, X509_V_ERR_CERT_SIGNATURE_FAILURE, false}}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Paths, PathReportTest, ::testing::ValuesIn(kPaths),
                         [](const auto& info) { return std::string(info.param.name); });

// The leaf's revocation, its list taken from each place a validation can take it from.
enum class Way { Download, DownloadUnderSettings, Supplied, Cache };

struct RevocationCase {
    const char* name;
    Way way;
    Options::DownloadCRL mode;
    std::string listPath;
    Status status;
    bool checked;
    Revocation revocation;
    Source source;
    // The one fetch expected, if any: outcome, HTTP status, from the cache (its URL is always the
    // leaf's; its size that of the served list when it is "ok").
    std::optional<std::tuple<std::string, int, bool>> fetch;
};

class RevocationReportTest : public ::testing::TestWithParam<RevocationCase> {
  protected:
    void SetUp() override {
        if (!server.running()) GTEST_SKIP() << server.failure();
        server.respond(kMissingList, "HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    }

    const fc::ByteArray served = testsupport::crlToDER(pki().revokingLeaf.get());
    Server server{kAddress, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(served.size()) +
                                "\r\n\r\n" + std::string(served.begin(), served.end())};
};

TEST_P(RevocationReportTest, SaysWhereTheListCameFromAndWhatWasFetched) {
    const RevocationCase& c = GetParam();
    const ReportPKI& p = pki();
    const std::string url = std::string("http://") + kAddress + c.listPath;
    Options checking =
        options(Options::AllowExpiredCertificate::No, Options::CheckCRL::LeafOnly, c.mode);
    if (c.way == Way::Supplied) checking.withRevocationLists({listOf(p.revokingLeaf)});
    if (c.way == Way::DownloadUnderSettings || c.way == Way::Cache) {
        fc::RevocationFetchSettings settings;
        settings.connectTimeout = std::chrono::milliseconds(2000);
        settings.exchangeTimeout = std::chrono::milliseconds(5000);
        if (c.way == Way::Cache) {
            settings.cache = std::make_shared<fc::CrlCache>();
            settings.cache->insert(url, listOf(p.revokingLeaf));
        }
        checking.withRevocationFetch(settings);
    }

    const auto results = fc::X509Certificate(p.leafWith(c.listPath).get())
                             .validateCertificate(ReportPKI::chainOf({p.base.intermediate.get()}),
                                                  checking, p.trusting(p.base.root.get()));
    EXPECT_EQ(results.getCertificateChainStatus(), c.status);

    const std::vector<fc::CertificateCheck> checks = results.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    const fc::RevocationCheck& leaf = checks[0].revocation;
    EXPECT_EQ(leaf.checked, c.checked);
    EXPECT_EQ(leaf.status, c.revocation);
    EXPECT_EQ(leaf.source, c.source);
    EXPECT_EQ(leaf.url, c.source == Source::Downloaded || c.source == Source::Cache ? url : "");
    EXPECT_FALSE(checks[1].revocation.checked);
    EXPECT_FALSE(checks[2].revocation.checked);
    const std::vector<Error> revoked{{0, X509_V_ERR_CERT_REVOKED, false}};
    EXPECT_EQ(errorsOf(checks), c.status == Status::Revoked ? revoked : std::vector<Error>{});

    const std::vector<fc::RevocationFetch> fetches = results.getRevocationFetches();
    ASSERT_EQ(fetches.size(), c.fetch ? 1u : 0u);
    if (!c.fetch) return;
    const auto& [outcome, httpStatus, fromCache] = *c.fetch;
    EXPECT_EQ(fetches[0].url, url);
    EXPECT_EQ(fetches[0].outcome, outcome);
    EXPECT_EQ(fetches[0].httpStatus, httpStatus);
    EXPECT_EQ(fetches[0].bytes, outcome == "ok" ? served.size() : 0u);
    EXPECT_EQ(fetches[0].fromCache, fromCache);
    EXPECT_GE(fetches[0].duration.count(), 0);
}

const std::string k404 = message::kStatusCode + std::string("404\n");
constexpr auto kIgnore = Options::DownloadCRL::IgnoreErrors;
constexpr auto kThrow = Options::DownloadCRL::ThrowOnError;
constexpr auto kNo = Options::DownloadCRL::No;

// clang-format off
const RevocationCase kSources[] = {
    {"Downloaded",              Way::Download,              kIgnore, kLeafList, Status::Revoked, true, Revocation::Revoked, Source::Downloaded,   {{"ok", 200, false}}},
    {"DownloadedUnderSettings", Way::DownloadUnderSettings, kThrow,  kLeafList, Status::Revoked, true, Revocation::Revoked, Source::Downloaded,   {{"ok", 200, false}}},
    {"Supplied",                Way::Supplied,              kNo,     kLeafList, Status::Revoked, true, Revocation::Revoked, Source::SuppliedList, {}},
    {"FromTheCache",            Way::Cache,                 kThrow,  kLeafList, Status::Revoked, true, Revocation::Revoked, Source::Cache,        {{"ok", 0, true}}},
    // The status is what it always was; the report still says what went wrong.
    {"FailedDownloadIgnored",   Way::Download,              kIgnore, kMissingList, Status::Valid, false, Revocation::NotRevoked, Source::None, {{k404, 404, false}}},
    {"FailedDownloadUnderSettingsIgnored", Way::DownloadUnderSettings, kIgnore, kMissingList, Status::Valid, false, Revocation::NotRevoked, Source::None,
     {{message::wrapped(k404), 404, false}}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Sources, RevocationReportTest, ::testing::ValuesIn(kSources),
                         [](const auto& info) { return std::string(info.param.name); });

// Every certificate below the root is looked up, and OpenSSL goes no further than a level
// without a list.
TEST(ValidationReport, FullChainChecksEveryLevelBelowTheRoot) {
    const ReportPKI& p = pki();
    const auto validate = [&](std::vector<fc::CertificateRevocationList> lists) {
        Options full = options(Options::AllowExpiredCertificate::No, Options::CheckCRL::FullChain);
        full.withRevocationLists(std::move(lists));
        return fc::X509Certificate(p.leaf.get())
            .validateCertificate(ReportPKI::chainOf({p.base.intermediate.get()}), full,
                                 p.trusting(p.base.root.get()));
    };
    const auto complete = validate({listOf(p.sparingLeaf), listOf(p.rootList)});
    EXPECT_EQ(complete.getCertificateChainStatus(), Status::Valid);
    auto checks = complete.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_TRUE(checks[0].revocation.checked && checks[1].revocation.checked);
    EXPECT_FALSE(checks[2].revocation.checked);
    EXPECT_EQ(checks[1].revocation.source, Source::SuppliedList);

    const auto partial = validate({listOf(p.sparingLeaf)});
    EXPECT_EQ(partial.getCertificateChainStatus(), Status::CRLError);
    checks = partial.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_EQ(checks[0].revocation.status, Revocation::NotRevoked);
    EXPECT_EQ(checks[1].revocation.status, Revocation::Unknown);
    EXPECT_EQ(errorsOf(checks), (std::vector<Error>{{1, X509_V_ERR_UNABLE_TO_GET_CRL, false}}));
}

// The records outlive everything they describe, and the printed report names what matters.
TEST(ValidationReport, PlainValuesAndAShortPrintedReport) {
    std::optional<fc::CertificateValidationResults> results;
    std::string leafSubject;
    {
        const ReportPKI& p = pki();
        const fc::X509Certificate leaf(p.expiredLeaf.get());
        leafSubject = leaf.getSubjectName();
        results = leaf.validateCertificate(ReportPKI::chainOf({p.base.intermediate.get()}),
                                           options(), p.trusting(p.other.root.get()));
    }
    const fc::CertificateValidationResults copy = *results;
    results.reset();
    std::ostringstream printed;
    printed << copy;
    const std::string report = printed.str();
    EXPECT_EQ(report.rfind("Status: InvalidChain (1)\n[0] " + leafSubject + "\n", 0), 0u) << report;
    EXPECT_NE(report.find("    error 20: unable to get local issuer certificate\n"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("    revocation: not checked\n"), std::string::npos) << report;
}

// Threads describing the same parsed certificates at once, fresh ones among them, all agree.
TEST(ValidationReportConcurrency, SharedCertificatesAreDescribedAlike) {
    const ReportPKI& p = pki();
    const fc::X509Certificate shared(p.leaf.get());
    const fc::X509CertificateChain chain = ReportPKI::chainOf({p.base.intermediate.get()});
    const fc::TrustStore trusted = p.trusting(p.base.root.get());
    const std::vector<fc::CertificateCheck> expected =
        shared.validateCertificate(chain, options(), trusted).getCertificateChecks();
    const auto sameAsExpected = [&](const fc::X509Certificate& leaf) {
        const auto checks =
            leaf.validateCertificate(chain, options(), trusted).getCertificateChecks();
        return checks.size() == expected.size() &&
               std::equal(checks.begin(), checks.end(), expected.begin(),
                          [](const fc::CertificateCheck& a, const fc::CertificateCheck& b) {
                              return a.subject == b.subject && a.issuer == b.issuer &&
                                     a.sha256Fingerprint == b.sha256Fingerprint;
                          });
    };
    std::vector<testsupport::StressJob> jobs;
    for (int i = 0; i < 3; ++i) {
        jobs.push_back({"shared " + std::to_string(i), [&] { return sameAsExpected(shared); }});
    }
    jobs.push_back(
        {"fresh",
         [&] { return sameAsExpected(fc::X509Certificate(testsupport::toPEM(p.leaf.get()))); }});
    testsupport::expectHealthy(testsupport::runStress(jobs, std::chrono::milliseconds(1000)));
}

}  // namespace
