// Which of the platform's certificates are trusted for a usage, driven through a scripted
// platform: per-domain lists and statuses, per-policy trust results, failing evaluations.
#include "platform/TrustDecision.hpp"
#include "support/Expectations.hpp"
#include "support/TestLogging.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <gtest/gtest.h>

#include <map>
#include <tuple>

namespace fc = foundation::certificates;
namespace osx = fc::osx;
using fc::ByteArray;
using fc::TrustStore;
using P = osx::TrustPolicy;
using D = osx::TrustSettingsDomain;
using Names = std::vector<std::string>;
using Evaluations = std::vector<std::pair<std::string, P>>;

namespace {

const ByteArray& derOf(const std::string& name) {
    static std::map<std::string, ByteArray> made{{"bad", {0x01, 0x02}}};
    ByteArray& der = made[name];
    if (der.empty()) der = testsupport::toDER(testsupport::makeQuickCertificate(name, true).get());
    return der;
}

// Data is read only to add a certificate, so `added` is the order of additions.
struct ScriptedCertificate final : osx::PlatformCertificate {
    ScriptedCertificate(std::string name, Names& added) : name(std::move(name)), added(added) {}
    ByteArray copyData() const override {
        added.push_back(name);
        return derOf(name);
    }
    bool equals(const osx::PlatformCertificate& other) const override {
        return static_cast<const ScriptedCertificate&>(other).name == name;
    }
    const std::string name;
    Names& added;
};

// Unscripted evaluations are "unspecified"; a domain without a list has no trust settings.
class ScriptedPlatform final : public osx::SecurityPlatform {
  public:
    int copyCertificates(D domain,
                         std::vector<osx::PlatformCertificateRef>& certificates) const override {
        if (statuses.count(domain) != 0) return statuses.at(domain);
        if (lists.count(domain) == 0) return -25263;
        // New handles on every call: equal certificates of two lists are different objects.
        for (const std::string& name : lists.at(domain))
            certificates.push_back(std::make_shared<const ScriptedCertificate>(name, added));
        return 0;
    }

    osx::TrustEvaluation evaluateTrust(const osx::PlatformCertificate& certificate,
                                       P policy) const override {
        const std::string& name = static_cast<const ScriptedCertificate&>(certificate).name;
        evaluated.emplace_back(name, policy);
        const auto scripted = results.find({name, policy});
        if (scripted != results.end()) return scripted->second;
        return {0, true, osx::kTrustResultUnspecified};
    }

    const Names& run(TrustStore::Usage usage, bool throwOnFailure = false) {
        osx::addTrustedCertificates(*this, store, usage, throwOnFailure);
        return added;
    }

    std::map<D, int> statuses;
    std::map<D, Names> lists;
    std::map<std::pair<std::string, P>, osx::TrustEvaluation> results;
    mutable Names added;
    mutable Evaluations evaluated;
    fc::TrustStoreImpl store{nullptr};
};

TEST(SystemCertificateAdder, EachUsageTriesItsPoliciesInOrder) {
    const std::map<int, std::vector<P>> policies = {
        {0, {P::SSL, P::X509Basic}},
        {1, {P::SSL, P::SMIME, P::CodeSigning, P::TimeStamping, P::X509Basic}},
        {2, {}}};
    for (const auto& [usage, expected] : policies) {
        SCOPED_TRACE(usage);
        ScriptedPlatform platform;
        platform.lists = {{D::User, {"A"}}, {D::System, {"C", "A", "B"}}};
        // Unspecified under every policy: no verdict, so the system list alone counts.
        EXPECT_EQ(platform.run(static_cast<TrustStore::Usage>(usage)), (Names{"C", "A", "B"}));
        Evaluations expectedEvaluations;
        for (const P policy : expected) expectedEvaluations.emplace_back("A", policy);
        EXPECT_EQ(platform.evaluated, expectedEvaluations);
    }
}

TEST(SystemCertificateAdder, FirstDecisivePolicyDecides) {
    ScriptedPlatform platform;
    platform.lists = {{D::User, {"A", "B"}}, {D::System, {"A", "B", "C"}}};
    platform.results[{"A", P::SMIME}] = {0, true, osx::kTrustResultDeny};
    platform.results[{"B", P::SSL}] = {0, true, osx::kTrustResultProceed};
    EXPECT_EQ(platform.run(TrustStore::Usage::Signing), (Names{"B", "B", "C"}));
    EXPECT_EQ(platform.evaluated, (Evaluations{{"A", P::SSL}, {"A", P::SMIME}, {"B", P::SSL}}));
}

TEST(SystemCertificateAdder, UserThenAdminThenSystemAndEitherDistrustHolds) {
    ScriptedPlatform platform;
    platform.lists = {
        {D::User, {"A", "C"}}, {D::Admin, {"B", "A", "C"}}, {D::System, {"D", "C", "B"}}};
    platform.results[{"A", P::SSL}] = {0, true, osx::kTrustResultProceed};
    platform.results[{"B", P::SSL}] = {0, true, osx::kTrustResultProceed};
    platform.results[{"C", P::SSL}] = {0, true, 5};
    // A, trusted by both domains, is handed over twice; the store keeps one.
    EXPECT_EQ(platform.run(TrustStore::Usage::SSL), (Names{"A", "B", "A", "D", "B"}));
    EXPECT_EQ(platform.store.size(), 3u);
}

TEST(SystemCertificateAdder, VerdictDecidesAUserCertificate) {
    // The user's evaluation, whether that alone adds the certificate, whether it keeps the
    // system's equal certificate out.
    const std::tuple<osx::TrustEvaluation, bool, bool> cases[] = {
        {{0, true, osx::kTrustResultProceed}, true, false},
        {{0, true, osx::kTrustResultUnspecified}, false, false},
        {{0, true, osx::kTrustResultDeny}, false, true},
        {{0, true, 2}, false, true},    // confirm
        {{0, false, 1}, false, true},   // evaluation fails
        {{-50, true, 1}, false, true},  // trust creation fails
    };
    for (const auto& [evaluation, trusted, distrusted] : cases) {
        SCOPED_TRACE(testing::Message()
                     << evaluation.creationStatus << evaluation.evaluated << evaluation.result);
        ScriptedPlatform platform;
        platform.lists = {{D::User, {"A"}}};
        platform.results[{"A", P::SSL}] = evaluation;
        EXPECT_EQ(platform.run(TrustStore::Usage::SSL).empty(), !trusted);
        platform.added.clear();
        platform.lists[D::System] = {"A"};
        EXPECT_EQ(platform.run(TrustStore::Usage::SSL).empty(), distrusted);
    }
}

TEST(SystemCertificateAdder, UnreadableDomainCountsAsEmpty) {
    ScriptedPlatform platform;
    platform.lists = {{D::User, {"A"}}, {D::Admin, {"B"}}, {D::System, {"C"}}};
    platform.statuses = {{D::User, -1}, {D::System, 7}};
    platform.results[{"B", P::SSL}] = {0, true, osx::kTrustResultProceed};
    EXPECT_EQ(platform.run(TrustStore::Usage::SSL), Names{"B"});
    EXPECT_EQ(platform.evaluated, (Evaluations{{"B", P::SSL}}));
}

TEST(SystemCertificateAdder, RejectedCertificateIsLoggedOrStopsTheImport) {
    const testsupport::LogCapture log;
    ScriptedPlatform logging;
    logging.lists = {{D::System, {"A", "bad", "B"}}};
    EXPECT_EQ(logging.run(TrustStore::Usage::SSL, false), (Names{"A", "bad", "B"}));
    EXPECT_EQ(logging.store.size(), 2u);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].severity, 16u);
    EXPECT_EQ(records[0].message,
              "Exception caught: Dynamic exception type: "
              "foundation::certificates::TrustStoreException\nstd::exception::what: " +
                  std::string(testsupport::kBadDERMessage) + "\n");

    ScriptedPlatform throwing;
    throwing.lists = logging.lists;
    EXPECT_THROW_MSG(throwing.run(TrustStore::Usage::SSL, true), fc::TrustStoreException,
                     testsupport::kBadDERMessage);
    EXPECT_EQ(throwing.added, (Names{"A", "bad"}));
    EXPECT_EQ(log.records().size(), 1u);
}

// The platform's decisions as an adder of a store that records its import.
struct ScriptedAdder final : fc::ISystemCertificateAdder {
    explicit ScriptedAdder(const osx::SecurityPlatform& platform) : platform(platform) {}
    fc::ISystemCertificateAdder* clone() const override { return new ScriptedAdder(*this); }
    void addSystemCertificates(fc::TrustStoreImpl& store, TrustStore::Usage usage,
                               bool throwOnFailure) override {
        osx::addTrustedCertificates(platform, store, usage, throwOnFailure);
    }
    const osx::SecurityPlatform& platform;
};

TEST(SystemCertificateAdder, ReportNamesWhatTheTrustSettingsKeptOut) {
    const testsupport::LogCapture log;
    ScriptedPlatform platform;
    platform.lists = {{D::User, {"A", "B"}}, {D::System, {"A", "B", "C", "bad", "C"}}};
    platform.results[{"A", P::SSL}] = {0, true, osx::kTrustResultDeny};
    platform.results[{"B", P::SSL}] = {0, true, osx::kTrustResultProceed};
    fc::TrustStoreImpl store(std::make_unique<ScriptedAdder>(platform));
    const fc::TrustImportReport report =
        store.addSystemCertificatesWithReport(TrustStore::Usage::SSL);
    // B, handed over twice, and C, listed twice, count once each.
    EXPECT_EQ(report.imported, 2u);
    EXPECT_EQ(store.size(), 2u);
    EXPECT_TRUE(report.sources.empty());
    ASSERT_EQ(report.skipped.size(), 2u);
    EXPECT_EQ(report.skipped[0].reason, fc::SkippedCertificate::Reason::Unreadable);
    EXPECT_EQ(report.skipped[1].reason, fc::SkippedCertificate::Reason::Distrusted);
    EXPECT_EQ(report.skipped[1].subject, "CN=A,O=Foundation Trust Test");
    EXPECT_EQ(report.skipped[1].detail,
              "Distrusted by the user's or the administrator's trust settings");
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
