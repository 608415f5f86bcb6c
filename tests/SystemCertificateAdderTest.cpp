// Which of the platform's certificates are trusted for a usage, driven through a scripted
// platform: per-domain lists and statuses, per-policy trust results, failing evaluations.
#include "osx/SecurityPlatform.hpp"
#include "support/Expectations.hpp"
#include "support/TestLogging.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace fc = foundation::certificates;
namespace osx = fc::osx;
using fc::ByteArray;
using fc::TrustStore;
using osx::TrustPolicy;
using osx::TrustSettingsDomain;

namespace {

class ScriptedCertificate final : public osx::PlatformCertificate {
  public:
    ScriptedCertificate(std::string name, ByteArray der, std::vector<std::string>* dataLog)
        : name(std::move(name)), der(std::move(der)), dataLog(dataLog) {}
    // Data is read only to add a certificate, so the log is the order of additions.
    ByteArray copyData() const override {
        dataLog->push_back(name);
        return der;
    }
    bool equals(const osx::PlatformCertificate& other) const override {
        return static_cast<const ScriptedCertificate&>(other).der == der;
    }

    const std::string name;
    const ByteArray der;

  private:
    std::vector<std::string>* dataLog;
};

class ScriptedPlatform final : public osx::SecurityPlatform {
  public:
    int copyCertificates(TrustSettingsDomain domain,
                         std::vector<osx::PlatformCertificateRef>& certificates) const override {
        const auto status = statuses.find(domain);
        if (status != statuses.end() && status->second != 0) return status->second;
        const auto list = lists.find(domain);
        if (list == lists.end()) return -25263;  // no trust settings in this domain
        certificates = list->second;
        return 0;
    }

    osx::TrustEvaluation evaluateTrust(const osx::PlatformCertificate& certificate,
                                       TrustPolicy policy) const override {
        const std::string& name = static_cast<const ScriptedCertificate&>(certificate).name;
        evaluated.emplace_back(name, policy);
        const auto scripted = evaluations.find({name, policy});
        if (scripted != evaluations.end()) return scripted->second;
        return result(osx::kTrustResultUnspecified);
    }

    static osx::TrustEvaluation result(int code) { return {0, true, code}; }

    std::map<TrustSettingsDomain, int> statuses;
    std::map<TrustSettingsDomain, std::vector<osx::PlatformCertificateRef>> lists;
    std::map<std::pair<std::string, TrustPolicy>, osx::TrustEvaluation> evaluations;
    mutable std::vector<std::pair<std::string, TrustPolicy>> evaluated;
};

class SystemCertificateAdderTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        for (const char* name : {"A", "B", "C", "D"}) {
            ders[name] = testsupport::toDER(
                testsupport::makeQuickCertificate(std::string("Platform Root ") + name, true)
                    .get());
        }
        ders["bad"] = ByteArray{0x01, 0x02};
    }

    // A new handle each time: equal certificates from different lists are different objects.
    osx::PlatformCertificateRef cert(const std::string& name) {
        return std::make_shared<const ScriptedCertificate>(name, ders.at(name), &added);
    }

    void run(TrustStore::Usage usage, bool throwOnFailure = false) {
        osx::addTrustedCertificates(platform, store, usage, throwOnFailure);
    }

    std::set<ByteArray> storeContents(std::initializer_list<const char*> names) const {
        std::set<ByteArray> expected;
        for (const char* name : names) expected.insert(ders.at(name));
        return expected;
    }

    std::set<ByteArray> storeContents() const {
        std::set<ByteArray> held;
        for (int i = 0; i < static_cast<int>(store.size()); ++i) {
            held.insert(testsupport::toDER(store.getCertificate(i)));
        }
        return held;
    }

    static std::map<std::string, ByteArray> ders;
    ScriptedPlatform platform;
    fc::TrustStoreImpl store{nullptr};
    std::vector<std::string> added;
};

std::map<std::string, ByteArray> SystemCertificateAdderTest::ders;

using Names = std::vector<std::string>;

TEST_F(SystemCertificateAdderTest, WithoutUserOrAdminSettingsTheSystemListIsAddedInOrder) {
    platform.lists[TrustSettingsDomain::System] = {cert("C"), cert("A"), cert("B")};
    run(TrustStore::Usage::SSL);
    EXPECT_EQ(added, (Names{"C", "A", "B"}));
    EXPECT_TRUE(platform.evaluated.empty());
    EXPECT_EQ(storeContents(), storeContents({"A", "B", "C"}));
}

TEST_F(SystemCertificateAdderTest, UnreadableSystemDomainAddsNothing) {
    platform.lists[TrustSettingsDomain::User] = {cert("A")};
    platform.statuses[TrustSettingsDomain::User] = -1;
    platform.lists[TrustSettingsDomain::System] = {cert("B")};
    platform.statuses[TrustSettingsDomain::System] = 7;
    run(TrustStore::Usage::SSL);
    EXPECT_TRUE(added.empty());
    EXPECT_TRUE(platform.evaluated.empty());
}

TEST_F(SystemCertificateAdderTest, FirstDecisiveSSLResultDecides) {
    platform.lists[TrustSettingsDomain::User] = {cert("A"), cert("B"), cert("C")};
    platform.lists[TrustSettingsDomain::System] = {cert("C"), cert("D")};
    // A: unspecified for SSL, proceed for basic X.509 -> trusted although the system lacks it.
    platform.evaluations[{"A", TrustPolicy::X509Basic}] = ScriptedPlatform::result(1);
    // B and C: unspecified for every policy -> no verdict; only C is listed by the system.
    run(TrustStore::Usage::SSL);
    EXPECT_EQ(added, (Names{"A", "C", "D"}));
    EXPECT_EQ(platform.evaluated.size(), 6u);
}

TEST_F(SystemCertificateAdderTest, SigningStopsAtTheFirstDecisivePolicy) {
    platform.lists[TrustSettingsDomain::User] = {cert("A"), cert("B")};
    platform.lists[TrustSettingsDomain::System] = {cert("A"), cert("B"), cert("C")};
    platform.evaluations[{"A", TrustPolicy::SMIME}] = ScriptedPlatform::result(3);  // deny
    platform.evaluations[{"B", TrustPolicy::SSL}] = ScriptedPlatform::result(1);
    run(TrustStore::Usage::Signing);

    EXPECT_EQ(added, (Names{"B", "B", "C"}));  // A distrusted, B trusted and in the system list
    EXPECT_EQ(storeContents(), storeContents({"B", "C"}));
    EXPECT_EQ(platform.evaluated,
              (std::vector<std::pair<std::string, TrustPolicy>>{
                  {"A", TrustPolicy::SSL}, {"A", TrustPolicy::SMIME}, {"B", TrustPolicy::SSL}}));
}

TEST_F(SystemCertificateAdderTest, SigningTriesEveryPolicyInOrder) {
    platform.lists[TrustSettingsDomain::Admin] = {cert("A")};
    run(TrustStore::Usage::Signing);
    EXPECT_EQ(platform.evaluated,
              (std::vector<std::pair<std::string, TrustPolicy>>{{"A", TrustPolicy::SSL},
                                                                {"A", TrustPolicy::SMIME},
                                                                {"A", TrustPolicy::CodeSigning},
                                                                {"A", TrustPolicy::TimeStamping},
                                                                {"A", TrustPolicy::X509Basic}}));
    EXPECT_TRUE(added.empty());
}

TEST_F(SystemCertificateAdderTest, DomainsAreJudgedUserThenAdminAndBothCount) {
    platform.lists[TrustSettingsDomain::User] = {cert("A"), cert("C")};
    platform.lists[TrustSettingsDomain::Admin] = {cert("B"), cert("A"), cert("C")};
    platform.lists[TrustSettingsDomain::System] = {cert("D"), cert("C")};
    for (const char* name : {"A", "B"}) {
        platform.evaluations[{name, TrustPolicy::SSL}] = ScriptedPlatform::result(1);
    }
    platform.evaluations[{"C", TrustPolicy::SSL}] = ScriptedPlatform::result(5);
    run(TrustStore::Usage::SSL);
    // A trusted by both domains is handed over twice; C distrusted by both stays out.
    EXPECT_EQ(added, (Names{"A", "B", "A", "D"}));
    EXPECT_EQ(storeContents(), storeContents({"A", "B", "D"}));
}

struct VerdictCase {
    const char* name;
    osx::TrustEvaluation evaluation;
    bool addedWithoutSystem;  // trusted
    bool addedWithSystem;     // not distrusted
};

class Verdicts : public SystemCertificateAdderTest,
                 public ::testing::WithParamInterface<VerdictCase> {};

TEST_P(Verdicts, DecideWhetherAUserCertificateIsAdded) {
    const VerdictCase& c = GetParam();
    platform.lists[TrustSettingsDomain::User] = {cert("A")};
    platform.evaluations[{"A", TrustPolicy::SSL}] = c.evaluation;
    run(TrustStore::Usage::SSL);
    EXPECT_EQ(!added.empty(), c.addedWithoutSystem);

    added.clear();
    platform.lists[TrustSettingsDomain::System] = {cert("A")};
    run(TrustStore::Usage::SSL);
    EXPECT_EQ(!added.empty(), c.addedWithSystem);
}

INSTANTIATE_TEST_SUITE_P(
    TrustResults, Verdicts,
    ::testing::Values(VerdictCase{"Proceed", {0, true, 1}, true, true},
                      VerdictCase{"Unspecified", {0, true, 4}, false, true},
                      VerdictCase{"Invalid", {0, true, 0}, false, false},
                      VerdictCase{"Confirm", {0, true, 2}, false, false},
                      VerdictCase{"Deny", {0, true, 3}, false, false},
                      VerdictCase{"RecoverableFailure", {0, true, 5}, false, false},
                      VerdictCase{"FatalFailure", {0, true, 6}, false, false},
                      VerdictCase{"OtherError", {0, true, 7}, false, false},
                      VerdictCase{"EvaluationFails", {0, false, 1}, false, false},
                      VerdictCase{"CreationFails", {-50, true, 1}, false, false}),
    [](const ::testing::TestParamInfo<VerdictCase>& info) { return info.param.name; });

TEST_F(SystemCertificateAdderTest, UsageWithoutPoliciesTakesOnlyTheSystemList) {
    platform.lists[TrustSettingsDomain::User] = {cert("A"), cert("B")};
    platform.evaluations[{"A", TrustPolicy::SSL}] = ScriptedPlatform::result(3);
    platform.evaluations[{"B", TrustPolicy::SSL}] = ScriptedPlatform::result(1);
    platform.lists[TrustSettingsDomain::System] = {cert("A"), cert("C")};
    run(static_cast<TrustStore::Usage>(2));
    EXPECT_EQ(added, (Names{"A", "C"}));
    EXPECT_TRUE(platform.evaluated.empty());
}

TEST_F(SystemCertificateAdderTest, RejectedCertificateIsLoggedAndTheRestAdded) {
    platform.lists[TrustSettingsDomain::System] = {cert("A"), cert("bad"), cert("B")};
    const testsupport::LogCapture log;
    run(TrustStore::Usage::SSL, false);
    EXPECT_EQ(storeContents(), storeContents({"A", "B"}));
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].logger, "foundation::certificates");
    EXPECT_EQ(records[0].severity, 16u);
    EXPECT_EQ(records[0].message,
              "Exception caught: Dynamic exception type: "
              "foundation::certificates::TrustStoreException\n"
              "std::exception::what: Failed to parse DER data to X509 certificate. Cert size = 2\n"
              "Cert Bytes =  0x01 0x02 \n\n");
}

TEST_F(SystemCertificateAdderTest, ThrowOnFailureStopsAtTheRejectedCertificate) {
    platform.lists[TrustSettingsDomain::System] = {cert("A"), cert("bad"), cert("B")};
    const testsupport::LogCapture log;
    EXPECT_THROW_MSG(run(TrustStore::Usage::SSL, true), fc::TrustStoreException,
                     "Failed to parse DER data to X509 certificate. Cert size = 2\n"
                     "Cert Bytes =  0x01 0x02 \n");
    EXPECT_EQ(added, (Names{"A", "bad"}));
    EXPECT_EQ(storeContents(), storeContents({"A"}));
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
