// Where the platform's trusted certificates come from on systems without trust settings, and
// what an import reports: the file trees made here stand for the whole system.
#include "support/Expectations.hpp"
#include "support/TestKeys.hpp"
#include "support/TestLogging.hpp"
#include "support/TestTrustBundle.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <fcntl.h>

#include <filesystem>
#include <map>
#include <optional>

namespace fc = foundation::certificates;
namespace fs = std::filesystem;
using fc::TrustStore;
using Reason = fc::SkippedCertificate::Reason;
using Sources = std::vector<std::string>;

namespace {

constexpr char kOrganization[] = "Foundation Trust Test";

std::string subjectOf(const std::string& commonName) {
    return "CN=" + commonName + ",O=" + kOrganization;
}

std::string rootPEM(const std::string& commonName) {
    return testsupport::toPEM(testsupport::makeQuickCertificate(commonName, true).get());
}

TEST(TrustSources, FirstSourceHoldingACertificateWins) {
    testsupport::ScopedTrustTree tree;
    const std::string file = tree.write(tree.root() / "env.pem", rootPEM("env file")).string();
    const std::string directory = (tree.root() / "env-dir").string();
    tree.write(fs::path(directory) / "root.pem", rootPEM("env dir"));
    tree.setCertFile(file);
    tree.setCertDirectories((tree.root() / "missing").string() + ":" + directory);
    const std::vector<std::string> builtIn = {
        "/etc/ssl/certs/ca-certificates.crt",
        "/etc/pki/ca-trust/extracted/openssl/ca-bundle.trust.crt",
        "/etc/pki/tls/certs/ca-bundle.crt",
        "/etc/ssl/ca-bundle.pem",
        "/var/lib/ca-certificates/ca-bundle.pem",
        "/etc/ssl/cert.pem",
        "/etc/ca-certificates/extracted/tls-ca-bundle.pem",
        X509_get_default_cert_file(),
    };
    for (const std::string& path : builtIn) tree.write(tree.at(path), rootPEM(path));
    const fs::path defaultDirectory = tree.at(X509_get_default_cert_dir());
    tree.write(defaultDirectory / "5ed36f99.0", rootPEM("default dir"));

    // Each winner is taken away once seen, uncovering the next.
    const auto sources = [] {
        const fc::TrustImportReport report =
            TrustStore().addSystemCertificatesWithReport(TrustStore::Usage::SSL);
        EXPECT_EQ(report.imported, report.sources.empty() ? 0u : 1u);
        EXPECT_TRUE(report.skipped.empty());
        return report.sources;
    };
    EXPECT_EQ(sources(), Sources{file});
    tree.write(file, testsupport::pemBlock({1, 2, 3}, "PRIVATE KEY"));  // no certificate
    EXPECT_EQ(sources(), Sources{directory});
    fs::remove(fs::path(directory) / "root.pem");
    for (const std::string& path : builtIn) {
        EXPECT_EQ(sources(), Sources{tree.at(path).string()});
        fs::remove(tree.at(path));
    }
    EXPECT_EQ(sources(), Sources{defaultDirectory.string()});
    fs::remove(defaultDirectory / "5ed36f99.0");
    EXPECT_EQ(sources(), Sources{});
}

TEST(TrustSources, DirectoriesAreReadWhetherHashedOrNot) {
    testsupport::ScopedTrustTree tree;
    const fs::path hashed = tree.root() / "hashed";
    const fs::path plain = tree.root() / "plain";
    const std::string first = rootPEM("Directory Root 1");
    tree.write(hashed / "root1.pem", first);
    fs::create_symlink("root1.pem", hashed / "0a1b2c3d.0");
    tree.write(hashed / "bundle.crt", first + rootPEM("Directory Root 2"));
    tree.write(hashed / "README", "no certificates here\n");
    tree.write(hashed / "nested" / "root.pem", rootPEM("Nested Root"));  // not searched
    ASSERT_EQ(mkfifo((hashed / "fifo").c_str(), 0600), 0);               // must not block
    tree.write(plain / "rejected.pem",
               testsupport::trustedPEM(testsupport::makeQuickCertificate("Rejected", true).get(),
                                       {}, {NID_server_auth}));
    tree.setCertDirectories((tree.root() / "missing").string() + ":" + hashed.string() +
                            "::" + plain.string());

    TrustStore store;
    const fc::TrustImportReport report =
        store.addSystemCertificatesWithReport(TrustStore::Usage::SSL);
    EXPECT_EQ(report.sources, (Sources{hashed.string(), plain.string()}));
    EXPECT_EQ(report.imported, 2u);
    EXPECT_EQ(store.size(), 2u);
    ASSERT_EQ(report.skipped.size(), 1u);
    EXPECT_EQ(report.skipped[0].subject, subjectOf("Rejected"));
    EXPECT_EQ(report.skipped[0].reason, Reason::Distrusted);
    EXPECT_EQ(report.skipped[0].detail,
              "Rejected for TLS Web Server Authentication by its bundle's trust settings");
}

// Each certificate of one bundle with what an import for TLS and for signing does with it:
// nothing (imported) or a reason to skip it.
struct BundleEntry {
    std::string name;
    std::string pem;
    std::optional<Reason> ssl;
    std::optional<Reason> signing;
};

std::vector<BundleEntry> bundleEntries() {
    using testsupport::makeQuickCertificate;
    const auto pem = [](const fc::X509UPtr& x) { return testsupport::toPEM(x.get()); };
    testsupport::CertificateRecipe p384;
    p384.subject = {{"O", kOrganization}, {"CN", "P-384 Root"}};
    p384.key = testsupport::sharedKey(testsupport::KeyKind::P384);
    p384.ca = true;
    const fc::X509UPtr plainThenRejected = makeQuickCertificate("Rejected Elsewhere", true);
    return {
        {"Root", pem(makeQuickCertificate("Root", true)), {}, {}},
        {"Expired",
         pem(makeQuickCertificate("Expired", true, {}, -60 * testsupport::kDay,
                                  -testsupport::kDay)),
         Reason::Expired, Reason::Expired},
        {"P-384 Root", pem(testsupport::makeCertificate(p384)), Reason::UnsupportedKey,
         Reason::UnsupportedKey},
        {"server.test",
         pem(makeQuickCertificate("server.test", false, {{NID_ext_key_usage, "serverAuth"}})),
         {},
         Reason::NotValidForUsage},
        {"Signer",
         pem(makeQuickCertificate("Signer", false, {{NID_ext_key_usage, "codeSigning"}})),
         Reason::NotValidForUsage,
         {}},
        {"No TLS",
         testsupport::trustedPEM(makeQuickCertificate("No TLS", true).get(), {}, {NID_server_auth}),
         Reason::Distrusted,
         {}},
        {"E-mail Only",
         testsupport::trustedPEM(makeQuickCertificate("E-mail Only", true).get(),
                                 {NID_email_protect}, {}),
         Reason::NotValidForUsage,
         {}},
        {"Trusted Root",
         testsupport::trustedPEM(makeQuickCertificate("Trusted Root", true).get(),
                                 {NID_server_auth, NID_code_sign}, {}),
         {},
         {}},
        // Distrust holds for every copy of a certificate, wherever it comes in the bundle.
        {"Rejected Elsewhere",
         pem(plainThenRejected) +
             testsupport::trustedPEM(plainThenRejected.get(), {}, {NID_anyExtendedKeyUsage}),
         Reason::Distrusted, Reason::Distrusted},
    };
}

TEST(TrustSources, ReportAccountsForEveryCertificate) {
    testsupport::ScopedTrustTree tree;
    const std::vector<BundleEntry> entries = bundleEntries();
    std::string text = "# test roots\n" + entries[0].pem;  // a root twice: it counts once
    for (const BundleEntry& entry : entries) text += entry.pem;
    const fc::ByteArray rootDER = fc::X509Certificate(entries[0].pem).getAsBytes();
    text += "-----BEGIN CERTIFICATE-----\n!not base64!\n-----END CERTIFICATE-----\n" +
            testsupport::pemBlock(fc::ByteArray(rootDER.begin(), rootDER.begin() + 40));
    const std::string bundle = tree.write(tree.root() / "bundle.pem", text).string();
    tree.setCertFile(bundle);

    const testsupport::LogCapture log;
    for (const TrustStore::Usage usage : {TrustStore::Usage::SSL, TrustStore::Usage::Signing}) {
        SCOPED_TRACE(static_cast<int>(usage));
        std::map<std::string, Reason> expected;
        std::size_t imported = 0;
        for (const BundleEntry& entry : entries) {
            const std::optional<Reason> outcome =
                usage == TrustStore::Usage::SSL ? entry.ssl : entry.signing;
            if (outcome) {
                expected.emplace(subjectOf(entry.name), *outcome);
            } else {
                ++imported;
            }
        }

        TrustStore store;
        const fc::TrustImportReport report = store.addSystemCertificatesWithReport(usage);
        EXPECT_EQ(report.sources, Sources{bundle});
        EXPECT_EQ(report.imported, imported);
        EXPECT_EQ(store.size(), imported);
        std::map<std::string, fc::SkippedCertificate> skipped;
        std::size_t unreadable = 0;
        for (const fc::SkippedCertificate& entry : report.skipped) {
            if (entry.reason == Reason::Unreadable) {
                ++unreadable;
                EXPECT_EQ(entry.subject + entry.sha256Fingerprint, "");
            } else {
                EXPECT_TRUE(skipped.emplace(entry.subject, entry).second) << entry.subject;
            }
        }
        EXPECT_EQ(unreadable, 2u);
        std::map<std::string, Reason> reasons;
        for (const auto& [subject, entry] : skipped) reasons.emplace(subject, entry.reason);
        EXPECT_EQ(reasons, expected);

        // The key refusal is the library's own, word for word.
        EXPECT_THROW_MSG(fc::X509Certificate{entries[2].pem}, fc::CertificateException,
                         skipped.at(subjectOf("P-384 Root")).detail);
        EXPECT_EQ(skipped.at(subjectOf("Expired")).sha256Fingerprint,
                  fc::X509Certificate(entries[1].pem).getSHA256Fingerprint());
        EXPECT_TRUE(log.records().empty());
    }

    // Without a report the same settings hold, refused keys are kept and damaged blocks logged.
    const std::size_t imported =
        TrustStore().addSystemCertificatesWithReport(TrustStore::Usage::SSL).imported;
    TrustStore plain;
    plain.addSystemCertificates(TrustStore::Usage::SSL, false);
    EXPECT_EQ(plain.size(), imported + 1);
    EXPECT_EQ(log.records().size(), 2u);
    // A process that accepts more keys imports them too.
    const testsupport::ScopedKeyAcceptance extended(fc::KeyAcceptance::Extended);
    EXPECT_EQ(TrustStore().addSystemCertificatesWithReport(TrustStore::Usage::SSL).imported,
              imported + 1);
}

// A bundle and a leaf of its own: the leaf validates against an empty trust store exactly when
// the platform's sources hold its root.
struct IssuingRoot {
    explicit IssuingRoot(const std::string& name)
        : key(testsupport::generateKey(testsupport::KeyKind::P256)) {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", kOrganization}, {"CN", name}};
        recipe.key = key.get();
        recipe.ca = true;
        root = testsupport::makeCertificate(recipe);
        recipe.subject = {{"O", kOrganization}, {"CN", name + " leaf"}};
        recipe.ca = false;
        recipe.issuer = root.get();
        recipe.issuerKey = key.get();
        leaf = fc::X509Certificate(testsupport::toPEM(testsupport::makeCertificate(recipe).get()));
    }

    bool validates() const {
        const fc::CertificateValidationOptions options(
            fc::CertificateValidationOptions::AllowSelfSignedCertificate::No,
            fc::CertificateValidationOptions::AllowExpiredCertificate::No,
            fc::CertificateValidationOptions::AllowRevokedCertificate::No,
            fc::CertificateValidationOptions::CheckCRL::None,
            fc::CertificateValidationOptions::DownloadCRL::No);
        return leaf.validateCertificate(fc::X509CertificateChain(), options, TrustStore())
                   .getCertificateChainStatus() == fc::CertificateChainStatus::Valid;
    }

    fc::EVP_PKEYUPtr key;
    fc::X509UPtr root{nullptr, X509_free};
    fc::X509Certificate leaf;
};

TEST(TrustSources, VerificationSeesEveryChangeOfTheSources) {
    testsupport::ScopedTrustTree tree;
    const IssuingRoot first("First Root");
    const IssuingRoot second("Second Root");
    // The same size, so that only the contents tell the two bundles apart.
    const std::string firstPEM = testsupport::toPEM(first.root.get());
    const std::string secondPEM = testsupport::toPEM(second.root.get());
    const std::size_t size = std::max(firstPEM.size(), secondPEM.size()) + 1;
    const fs::path bundle = tree.write(tree.root() / "bundle.pem",
                                       firstPEM + std::string(size - firstPEM.size(), '\n'));
    tree.setCertFile(bundle.string());
    EXPECT_TRUE(first.validates());
    EXPECT_FALSE(second.validates());

    struct stat before {};
    ASSERT_EQ(stat(bundle.c_str(), &before), 0);
    tree.write(bundle, secondPEM + std::string(size - secondPEM.size(), '\n'));
    // Rewritten in place within one tick of a coarse clock: the file looks untouched.
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, bundle.c_str(), times, 0), 0);
    struct stat after {};
    ASSERT_EQ(stat(bundle.c_str(), &after), 0);
    ASSERT_EQ(
        std::tie(after.st_ino, after.st_size, after.st_mtim.tv_sec, after.st_mtim.tv_nsec),
        std::tie(before.st_ino, before.st_size, before.st_mtim.tv_sec, before.st_mtim.tv_nsec));
    EXPECT_TRUE(second.validates());
    EXPECT_FALSE(first.validates());

    // A directory source: a root added to it counts at the next verification.
    const fs::path directory = tree.root() / "roots";
    tree.write(directory / "first.pem", firstPEM);
    tree.setCertFile("");
    tree.setCertDirectories(directory.string());
    EXPECT_TRUE(first.validates());
    EXPECT_FALSE(second.validates());
    tree.write(directory / "second.pem", secondPEM);
    EXPECT_TRUE(second.validates());
}

}  // namespace
