// The report every validation carries: the path certificate by certificate, what OpenSSL said
// about each and what was forgiven, how revocation was checked, and what was fetched.
#include "CrlMessages.hpp"
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

#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>

namespace fc = foundation::certificates;
using Options = fc::CertificateValidationOptions;
using Status = fc::CertificateChainStatus;
using Source = fc::RevocationCheck::Source;
using Server = testsupport::ScriptedHttpServer;

namespace {

constexpr char kAddress[] = "127.0.0.70";
const std::string kLeafList = "/explain-leaf.crl";
const std::string kMissingList = "/explain-missing.crl";

fc::X509Certificate facade(const fc::X509UPtr& certificate) {
    return fc::X509Certificate(certificate.get());
}

// The test PKI's root and intermediate, and leaves of the intermediate's with a distribution
// point on the loopback server.
struct ReportPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    const testsupport::TestPKI& other = testsupport::ecPKI();

    fc::X509UPtr leafWith(const std::string& listPath, long notAfter = 365 * testsupport::kDay,
                          long notBefore = -3600) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Explain"}, {"CN", "Leaf"}};
        recipe.key = base.leafKey.get();
        recipe.issuer = base.intermediate.get();
        recipe.issuerKey = base.intermediateKey.get();
        recipe.serialHex = "77";
        recipe.notBeforeOffset = notBefore;
        recipe.notAfterOffset = notAfter;
        recipe.extensions = {
            {NID_crl_distribution_points, std::string("URI:http://") + kAddress + listPath}};
        return testsupport::makeCertificate(recipe);
    }
    // The intermediate's name and key under other dates or another signer.
    fc::X509UPtr intermediateWith(long notAfter, EVP_PKEY* signer) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Intermediate"}};
        recipe.key = base.intermediateKey.get();
        recipe.issuer = base.root.get();
        recipe.issuerKey = signer;
        recipe.ca = true;
        recipe.serialHex = "4242";
        recipe.notBeforeOffset = -3 * testsupport::kDay;
        recipe.notAfterOffset = notAfter;
        return testsupport::makeCertificate(recipe);
    }

    fc::X509UPtr leaf = leafWith(kLeafList);
    fc::X509UPtr expiredLeaf = leafWith(kLeafList, -testsupport::kDay, -2 * testsupport::kDay);
    fc::X509UPtr expiredIntermediate = intermediateWith(-testsupport::kDay, base.rootKey.get());
    // Another RSA key: OpenSSL passes over an issuer whose key type cannot have signed.
    fc::X509UPtr badlySignedIntermediate = intermediateWith(testsupport::kDay, base.leafKey.get());
    fc::X509CRLUPtr revokingLeaf =
        testsupport::makeCRL(base.intermediate.get(), base.intermediateKey.get(), {"77"});
    fc::X509CRLUPtr revokingNothing = testsupport::makeCRL(base.root.get(), base.rootKey.get(), {});
    fc::X509CRLUPtr sparingLeaf =
        testsupport::makeCRL(base.intermediate.get(), base.intermediateKey.get(), {"78"});

    fc::TrustStore trusting(const fc::X509UPtr& root) const {
        fc::TrustStore store;
        store.addCertificate(facade(root));
        return store;
    }
    fc::X509CertificateChain chainOf(std::vector<const X509*> certificates) const {
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

// Paths without revocation checking.
struct PathCase {
    const char* name;
    std::function<fc::CertificateValidationResults(const ReportPKI&)> validate;
    Status status;
    std::function<std::vector<const X509*>(const ReportPKI&)> path;  // leaf first
    std::vector<Error> errors;
};

class PathReportTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(PathReportTest, ListsThePathWithEveryErrorInPlace) {
    const PathCase& c = GetParam();
    const ReportPKI& p = pki();
    const fc::CertificateValidationResults results = c.validate(p);
    EXPECT_EQ(results.getCertificateChainStatus(), c.status);

    const std::vector<fc::CertificateCheck> checks = results.getCertificateChecks();
    const std::vector<const X509*> path = c.path(p);
    ASSERT_EQ(checks.size(), path.size());
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

std::vector<const X509*> wholePath(const ReportPKI& p) {
    return {p.leaf.get(), p.base.intermediate.get(), p.base.root.get()};
}

INSTANTIATE_TEST_SUITE_P(
    Paths, PathReportTest,
    ::testing::Values(
        PathCase{"Clean",
                 [](const ReportPKI& p) {
                     return facade(p.leaf).validateCertificate(
                         p.chainOf({p.base.intermediate.get()}), options(),
                         p.trusting(p.base.root));
                 },
                 Status::Valid,
                 wholePath,
                 {}},
        PathCase{"ForgivenExpiredLeaf",
                 [](const ReportPKI& p) {
                     return facade(p.expiredLeaf)
                         .validateCertificate(p.chainOf({p.base.intermediate.get()}),
                                              options(Options::AllowExpiredCertificate::Yes),
                                              p.trusting(p.base.root));
                 },
                 Status::Valid,
                 [](const ReportPKI& p) {
                     return std::vector<const X509*>{p.expiredLeaf.get(), p.base.intermediate.get(),
                                                     p.base.root.get()};
                 },
                 {{0, X509_V_ERR_CERT_HAS_EXPIRED, true}}},
        PathCase{"ForgivenExpiredIntermediate",
                 [](const ReportPKI& p) {
                     return facade(p.leaf).validateCertificate(
                         p.chainOf({p.expiredIntermediate.get()}),
                         options(Options::AllowExpiredCertificate::Yes), p.trusting(p.base.root));
                 },
                 Status::Valid,
                 [](const ReportPKI& p) {
                     return std::vector<const X509*>{p.leaf.get(), p.expiredIntermediate.get(),
                                                     p.base.root.get()};
                 },
                 {{1, X509_V_ERR_CERT_HAS_EXPIRED, true}}},
        PathCase{"ExpiredLeafNotForgiven",
                 [](const ReportPKI& p) {
                     return facade(p.expiredLeaf)
                         .validateCertificate(p.chainOf({p.base.intermediate.get()}), options(),
                                              p.trusting(p.base.root));
                 },
                 Status::Expired,
                 [](const ReportPKI& p) {
                     return std::vector<const X509*>{p.expiredLeaf.get(), p.base.intermediate.get(),
                                                     p.base.root.get()};
                 },
                 {{0, X509_V_ERR_CERT_HAS_EXPIRED, false}}},
        PathCase{"UntrustedRootInTheChain",
                 [](const ReportPKI& p) {
                     return facade(p.leaf).validateCertificate(
                         p.chainOf({p.base.intermediate.get(), p.base.root.get()}), options(),
                         p.trusting(p.other.root));
                 },
                 Status::SelfSigned,
                 wholePath,
                 {{2, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, false}}},
        PathCase{"NoRootAtAll",
                 [](const ReportPKI& p) {
                     return facade(p.leaf).validateCertificate(
                         p.chainOf({p.base.intermediate.get()}), options(),
                         p.trusting(p.other.root));
                 },
                 Status::InvalidChain,
                 [](const ReportPKI& p) {
                     return std::vector<const X509*>{p.leaf.get(), p.base.intermediate.get()};
                 },
                 {{1, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, false}}},
        PathCase{"BadSignatureAtDepthOne",
                 [](const ReportPKI& p) {
                     return facade(p.leaf).validateCertificate(
                         p.chainOf({p.badlySignedIntermediate.get()}), options(),
                         p.trusting(p.base.root));
                 },
                 Status::InvalidSignature,
                 [](const ReportPKI& p) {
                     return std::vector<const X509*>{p.leaf.get(), p.badlySignedIntermediate.get(),
                                                     p.base.root.get()};
                 },
                 {{1, X509_V_ERR_CERT_SIGNATURE_FAILURE, false}}}),
    [](const auto& info) { return std::string(info.param.name); });

// Revocation of the leaf, its list from each place a validation can take it.
struct RevocationCase {
    const char* name;
    // Options for a leaf whose list is at `url`, given the cache the case may fill.
    std::function<Options(const std::string& url, const std::shared_ptr<fc::CrlCache>&)> options;
    std::string listPath;
    Status status;
    fc::RevocationCheck leafCheck;             // url "*" stands for the leaf's distribution point
    std::vector<fc::RevocationFetch> fetches;  // duration ignored; url "*" as above
};

Options revocationOptions(Options::DownloadCRL download) {
    return options(Options::AllowExpiredCertificate::No, Options::CheckCRL::LeafOnly, download);
}

Options underSettings(Options::DownloadCRL download, std::shared_ptr<fc::CrlCache> cache) {
    fc::RevocationFetchSettings settings;
    settings.connectTimeout = std::chrono::milliseconds(2000);
    settings.exchangeTimeout = std::chrono::milliseconds(5000);
    settings.cache = std::move(cache);
    return revocationOptions(download).withRevocationFetch(settings);
}

class RevocationReportTest : public ::testing::TestWithParam<RevocationCase> {
  protected:
    void SetUp() override {
        if (!server.running()) GTEST_SKIP() << server.failure();
        server.respond(kMissingList, "HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    }

    static std::string served(const fc::X509CRLUPtr& crl) {
        const fc::ByteArray der = testsupport::crlToDER(crl.get());
        return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(der.size()) + "\r\n\r\n" +
               std::string(der.begin(), der.end());
    }

    Server server{kAddress, served(pki().revokingLeaf)};
};

TEST_P(RevocationReportTest, SaysWhereTheListCameFromAndWhatWasFetched) {
    const RevocationCase& c = GetParam();
    const ReportPKI& p = pki();
    const std::string url = std::string("http://") + kAddress + c.listPath;
    const auto cache = std::make_shared<fc::CrlCache>();
    cache->insert(std::string("http://") + kAddress + kLeafList, listOf(p.revokingLeaf));
    const fc::X509UPtr leaf = p.leafWith(c.listPath);

    const auto results = facade(leaf).validateCertificate(
        p.chainOf({p.base.intermediate.get()}), c.options(url, cache), p.trusting(p.base.root));
    EXPECT_EQ(results.getCertificateChainStatus(), c.status);

    const std::vector<fc::CertificateCheck> checks = results.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    const fc::RevocationCheck& revocation = checks[0].revocation;
    EXPECT_EQ(revocation.checked, c.leafCheck.checked);
    EXPECT_EQ(revocation.status, c.leafCheck.status);
    EXPECT_EQ(revocation.source, c.leafCheck.source);
    EXPECT_EQ(revocation.url, c.leafCheck.url == "*" ? url : c.leafCheck.url);
    for (std::size_t depth = 1; depth < checks.size(); ++depth) {
        EXPECT_FALSE(checks[depth].revocation.checked) << depth;
    }
    const std::vector<Error> expectedErrors =
        c.status == Status::Revoked ? std::vector<Error>{{0, X509_V_ERR_CERT_REVOKED, false}}
                                    : std::vector<Error>{};
    EXPECT_EQ(errorsOf(checks), expectedErrors);

    const std::vector<fc::RevocationFetch> fetches = results.getRevocationFetches();
    ASSERT_EQ(fetches.size(), c.fetches.size());
    for (std::size_t i = 0; i < fetches.size(); ++i) {
        EXPECT_EQ(fetches[i].url, c.fetches[i].url == "*" ? url : c.fetches[i].url);
        EXPECT_EQ(fetches[i].outcome, c.fetches[i].outcome);
        EXPECT_EQ(fetches[i].httpStatus, c.fetches[i].httpStatus);
        EXPECT_EQ(fetches[i].bytes, c.fetches[i].bytes);
        EXPECT_EQ(fetches[i].fromCache, c.fetches[i].fromCache);
        EXPECT_GE(fetches[i].duration.count(), 0);
    }
}

fc::RevocationCheck check(bool checked, fc::RevocationCheck::Status status, Source source,
                          std::string url) {
    fc::RevocationCheck result;
    result.checked = checked;
    result.status = status;
    result.source = source;
    result.url = std::move(url);
    return result;
}

fc::RevocationFetch fetch(std::string url, std::string outcome, int httpStatus, std::size_t bytes,
                          bool fromCache) {
    fc::RevocationFetch result;
    result.url = std::move(url);
    result.outcome = std::move(outcome);
    result.httpStatus = httpStatus;
    result.bytes = bytes;
    result.fromCache = fromCache;
    return result;
}

const std::size_t kListBytes = testsupport::crlToDER(pki().revokingLeaf.get()).size();
const auto kRevoked = fc::RevocationCheck::Status::Revoked;
const auto kNotRevoked = fc::RevocationCheck::Status::NotRevoked;
const std::string k404 = fc::detail::crlmessage::kStatusCode + std::string("404\n");

INSTANTIATE_TEST_SUITE_P(
    Sources, RevocationReportTest,
    ::testing::Values(
        RevocationCase{"Downloaded",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>&) {
                           return revocationOptions(Options::DownloadCRL::IgnoreErrors);
                       },
                       kLeafList,
                       Status::Revoked,
                       check(true, kRevoked, Source::Downloaded, "*"),
                       {fetch("*", "ok", 200, kListBytes, false)}},
        RevocationCase{"DownloadedUnderSettings",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>&) {
                           return underSettings(Options::DownloadCRL::ThrowOnError, nullptr);
                       },
                       kLeafList,
                       Status::Revoked,
                       check(true, kRevoked, Source::Downloaded, "*"),
                       {fetch("*", "ok", 200, kListBytes, false)}},
        RevocationCase{"Supplied",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>&) {
                           return revocationOptions(Options::DownloadCRL::No)
                               .withRevocationLists({listOf(pki().revokingLeaf)});
                       },
                       kLeafList,
                       Status::Revoked,
                       check(true, kRevoked, Source::SuppliedList, ""),
                       {}},
        RevocationCase{"FromTheCache",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>& cache) {
                           return underSettings(Options::DownloadCRL::ThrowOnError, cache);
                       },
                       kLeafList,
                       Status::Revoked,
                       check(true, kRevoked, Source::Cache, "*"),
                       {fetch("*", "ok", 0, kListBytes, true)}},
        // The status is what it always was; the report still says what went wrong.
        RevocationCase{"FailedDownloadIgnored",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>&) {
                           return revocationOptions(Options::DownloadCRL::IgnoreErrors);
                       },
                       kMissingList,
                       Status::Valid,
                       check(false, kNotRevoked, Source::None, ""),
                       {fetch("*", k404, 404, 0, false)}},
        RevocationCase{"FailedDownloadUnderSettingsIgnored",
                       [](const std::string&, const std::shared_ptr<fc::CrlCache>&) {
                           return underSettings(Options::DownloadCRL::IgnoreErrors, nullptr);
                       },
                       kMissingList,
                       Status::Valid,
                       check(false, kNotRevoked, Source::None, ""),
                       {fetch("*", fc::detail::crlmessage::wrapped(k404), 404, 0, false)}}),
    [](const auto& info) { return std::string(info.param.name); });

// Every certificate below the root is looked up; the root, which nobody can revoke, is not.
TEST(ValidationReport, FullChainChecksEveryLevelBelowTheRoot) {
    const ReportPKI& p = pki();
    Options full = options(Options::AllowExpiredCertificate::No, Options::CheckCRL::FullChain);
    full.withRevocationLists({listOf(p.sparingLeaf), listOf(p.revokingNothing)});
    const auto results = facade(p.leaf).validateCertificate(p.chainOf({p.base.intermediate.get()}),
                                                            full, p.trusting(p.base.root));
    EXPECT_EQ(results.getCertificateChainStatus(), Status::Valid);
    const auto checks = results.getCertificateChecks();
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_TRUE(checks[0].revocation.checked);
    EXPECT_TRUE(checks[1].revocation.checked);
    EXPECT_FALSE(checks[2].revocation.checked);
    EXPECT_EQ(checks[1].revocation.source, Source::SuppliedList);
    EXPECT_EQ(checks[1].revocation.status, kNotRevoked);

    // Without the intermediate's list: unknown there, and OpenSSL goes no further.
    Options partial = options(Options::AllowExpiredCertificate::No, Options::CheckCRL::FullChain);
    partial.withRevocationLists({listOf(p.sparingLeaf)});
    const auto missing = facade(p.leaf).validateCertificate(p.chainOf({p.base.intermediate.get()}),
                                                            partial, p.trusting(p.base.root));
    EXPECT_EQ(missing.getCertificateChainStatus(), Status::CRLError);
    const auto partialChecks = missing.getCertificateChecks();
    ASSERT_EQ(partialChecks.size(), 3u);
    EXPECT_EQ(partialChecks[0].revocation.status, kNotRevoked);
    EXPECT_EQ(partialChecks[1].revocation.status, fc::RevocationCheck::Status::Unknown);
    EXPECT_EQ(errorsOf(partialChecks),
              (std::vector<Error>{{1, X509_V_ERR_UNABLE_TO_GET_CRL, false}}));
}

// The records outlive everything they describe, and the printed report names what matters.
TEST(ValidationReport, PlainValuesAndAShortPrintedReport) {
    std::optional<fc::CertificateValidationResults> results;
    std::string leafSubject;
    {
        const ReportPKI& p = pki();
        const fc::X509Certificate leaf = facade(p.expiredLeaf);
        leafSubject = leaf.getSubjectName();
        results = leaf.validateCertificate(p.chainOf({p.base.intermediate.get()}), options(),
                                           p.trusting(p.other.root));
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

}  // namespace
