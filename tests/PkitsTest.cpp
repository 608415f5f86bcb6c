// The PKITS path-validation suite, every case in three modes, beside raw OpenSSL under the same
// flags, lists and policy settings.
#include "OpenSSLPtr.hpp"
#include "support/Pkits.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <iostream>
#include <map>
#include <set>

namespace {

namespace fc = foundation::certificates;
namespace pkits = testsupport::pkits;
using Options = fc::CertificateValidationOptions;
using Status = fc::CertificateChainStatus;

constexpr unsigned long kLibraryFlags = X509_V_FLAG_X509_STRICT | X509_V_FLAG_ALLOW_PROXY_CERTS |
                                        X509_V_FLAG_CHECK_SS_SIGNATURE | X509_V_FLAG_TRUSTED_FIRST;
constexpr unsigned long kListFlags = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL |
                                     X509_V_FLAG_EXTENDED_CRL_SUPPORT | X509_V_FLAG_USE_DELTAS;

constexpr char kAnyPolicy[] = "2.5.29.32.0";
constexpr char kPolicy1[] = "2.16.840.1.101.3.2.1.48.1";
constexpr char kPolicy2[] = "2.16.840.1.101.3.2.1.48.2";
constexpr char kPolicy6[] = "2.16.840.1.101.3.2.1.48.6";

enum Mode { kWithoutLists, kWithLists, kPolicyWithLists, kModes };
constexpr const char* kModeNames[kModes] = {"without lists", "with lists", "policies with lists"};

// Where the verdict is not the suite's, by case id, and why; `modes` is a bit per Mode.
struct Deviation {
    const char* id;
    unsigned modes;
    const char* reason;
};
constexpr unsigned kAll = 0b111, kWithListsBits = 0b110;

// The invalid revocation cases whose certificate, or a CA above it, is on a list; the others
// lack a usable list.
const std::set<std::string> kRevokedCases = {
    "4.4.2",   "4.4.3",   "4.4.15",  "4.4.18",  "4.4.20",  "4.5.2",   "4.5.5",   "4.5.7",
    "4.14.2",  "4.14.6",  "4.14.15", "4.14.16", "4.14.20", "4.14.21", "4.14.23", "4.14.31",
    "4.14.32", "4.14.34", "4.15.3",  "4.15.4",  "4.15.6",  "4.15.9"};

// clang-format off
const Deviation kDeviations[] = {
    {"4.1.4", kAll, "DSA keys are refused at load"},
    {"4.1.5", kAll, "DSA keys are refused at load"},
    {"4.1.6", kAll, "DSA keys are refused at load"},
    {"4.6.4", kAll, "strict mode refuses a CA whose basicConstraints is not critical"},
    {"4.14.30", kWithListsBits, "OpenSSL checks an indirect list's issuer without recursion, and this "
                                "issuer's own status comes from the list it issued (error 54)"},
};
// clang-format on

const Deviation* deviationFor(const std::string& id, Mode mode) {
    for (const Deviation& d : kDeviations) {
        if (id == d.id && (d.modes & (1u << mode)) != 0) return &d;
    }
    return nullptr;
}

bool isDSACase(const std::string& id) { return id == "4.1.4" || id == "4.1.5" || id == "4.1.6"; }

std::vector<fc::CertificateRevocationList> libraryLists(const pkits::Case& c) {
    std::vector<fc::CertificateRevocationList> lists;
    for (const std::string& file : c.crls) lists.emplace_back(pkits::crlDER(file));
    return lists;
}

Options optionsFor(const pkits::Case& c, bool lists, const fc::CertificatePolicySettings* policy) {
    Options options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                    Options::AllowRevokedCertificate::No,
                    lists ? Options::CheckCRL::FullChain : Options::CheckCRL::None,
                    Options::DownloadCRL::No);
    options.withValidationTime(pkits::validationTime());
    if (lists) options.withRevocationLists(libraryLists(c));
    if (policy != nullptr) options.withPolicyCheck(*policy);
    return options;
}

// OpenSSL's error for the case under the library's flags, or X509_V_OK; the lists go to the
// context, as the library hands them.
int rawVerdict(const pkits::Case& c, bool lists, const fc::CertificatePolicySettings* policy) {
    const fc::X509UPtr anchor = pkits::rawCertificate(pkits::kTrustAnchor);
    const fc::X509UPtr leaf = pkits::rawCertificate(c.leaf);
    const fc::X509StackUPtr untrusted = fc::makeX509StackUPtr(sk_X509_new_null());
    for (const std::string& file : c.intermediates) {
        sk_X509_push(untrusted.get(), pkits::rawCertificate(file).release());
    }
    const fc::detail::OpenSSLPtr<X509_STORE> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), anchor.get());
    std::vector<fc::X509CRLUPtr> owned;
    const fc::detail::OpenSSLPtr<STACK_OF(X509_CRL)> crls(sk_X509_CRL_new_null());
    const fc::detail::OpenSSLPtr<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), untrusted.get());
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
    unsigned long flags = kLibraryFlags;
    if (lists) {
        for (const std::string& file : c.crls) {
            owned.push_back(pkits::rawCRL(file));
            sk_X509_CRL_push(crls.get(), owned.back().get());
        }
        X509_STORE_CTX_set0_crls(context.get(), crls.get());
        flags |= kListFlags;
    }
    if (policy != nullptr) {
        flags |= X509_V_FLAG_POLICY_CHECK;
        if (policy->requireExplicitPolicy) flags |= X509_V_FLAG_EXPLICIT_POLICY;
        if (policy->inhibitPolicyMapping) flags |= X509_V_FLAG_INHIBIT_MAP;
        if (policy->inhibitAnyPolicy) flags |= X509_V_FLAG_INHIBIT_ANY;
        std::vector<std::string> initial = policy->initialPolicies;
        if (initial.empty()) initial.push_back(kAnyPolicy);
        for (const std::string& oid : initial) {
            X509_VERIFY_PARAM_add0_policy(param, OBJ_txt2obj(oid.c_str(), 1));
        }
    }
    X509_VERIFY_PARAM_set_flags(param, flags);
    X509_VERIFY_PARAM_set_time(param,
                               std::chrono::system_clock::to_time_t(pkits::validationTime()));
    return X509_verify_cert(context.get()) > 0 ? X509_V_OK
                                               : X509_STORE_CTX_get_error(context.get());
}

bool inSections(const std::string& id, std::initializer_list<const char*> sections) {
    return std::any_of(sections.begin(), sections.end(), [&id](const char* section) {
        const std::string prefix = std::string(section) + ".";
        return id.compare(0, prefix.size(), prefix) == 0;
    });
}

struct Score {
    int right = 0, judged = 0;
};
std::map<int, Score>& scores() {
    static std::map<int, Score> perMode;
    return perMode;
}

class PkitsTest : public ::testing::TestWithParam<pkits::Case> {
  public:
    static void TearDownTestSuite() {
        for (const auto& [mode, score] : scores()) {
            std::cout << "PKITS " << kModeNames[mode] << ": " << score.right << " of "
                      << score.judged << " verdicts as the suite expects\n";
        }
    }
};

TEST_P(PkitsTest, EveryVerdictInEveryMode) {
    const pkits::Case& c = GetParam();
    const pkits::LoadedCase loaded = pkits::load(c);
    const fc::CertificatePolicySettings defaults;
    for (int m = 0; m < kModes; ++m) {
        const Mode mode = static_cast<Mode>(m);
        SCOPED_TRACE(kModeNames[mode]);
        const bool lists = mode != kWithoutLists;
        if (!lists && c.revocationCase) continue;
        const Deviation* deviation = deviationFor(c.id, mode);
        Score& score = scores()[mode];
        if (!isDSACase(c.id)) ++score.judged;
        if (!loaded.unsupported.empty()) {
            EXPECT_NE(deviation, nullptr) << "not loadable: " << loaded.unsupported;
            continue;
        }
        const fc::CertificatePolicySettings* policy =
            mode == kPolicyWithLists ? &defaults : nullptr;
        const fc::CertificateValidationResults results = loaded.leaf->validateCertificate(
            loaded.intermediates, optionsFor(c, lists, policy), loaded.trustAnchor);
        const Status status = results.getCertificateChainStatus();
        const int raw = rawVerdict(c, lists, policy);
        if (policy == nullptr) {
            EXPECT_TRUE(results.getValidPolicies().empty());
        }
        EXPECT_EQ(status == Status::Valid, raw == X509_V_OK)
            << "OpenSSL's error " << raw << "; " << results.getValidationErrorString();

        // Policies are not checked without the option, so policy cases pass there.
        const bool policyCase = inSections(c.id, {"4.8", "4.9", "4.10", "4.11", "4.12"});
        bool expectedValid = c.expectedValid || (policyCase && mode != kPolicyWithLists);
        if (deviation != nullptr) expectedValid = !expectedValid;
        EXPECT_EQ(status == Status::Valid, expectedValid)
            << "status " << static_cast<int>(status) << "; " << (deviation ? deviation->reason : "")
            << results.getValidationErrorString();
        if ((status == Status::Valid) == c.expectedValid) ++score.right;

        // An invalid case fails for its own reason where the status can tell.
        if (status == Status::Valid || expectedValid) continue;
        if (policyCase) {
            EXPECT_EQ(status, Status::PolicyMismatch) << results.getValidationErrorString();
        }
        if (c.revocationCase) {
            EXPECT_EQ(status == Status::Revoked, kRevokedCases.count(c.id) == 1)
                << results.getValidationErrorString();
            if (status == Status::Revoked) {
                EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
                          fc::CertificateRevocationResults::RevocationStatus::Revoked);
            }
        }
        if (inSections(c.id, {"4.13"})) {
            EXPECT_NE(status, Status::CRLError);
        }
        if (mode == kPolicyWithLists && policyCase) {
            EXPECT_TRUE(results.getValidPolicies().empty());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Pkits, PkitsTest, ::testing::ValuesIn(pkits::cases()),
                         [](const ::testing::TestParamInfo<pkits::Case>& info) {
                             std::string name = info.param.id + "_" + info.param.name;
                             for (char& ch : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             }
                             return name;
                         });

// ---- Other initial settings ----

const pkits::Case& pkitsCase(const std::string& id) {
    for (const pkits::Case& c : pkits::cases()) {
        if (c.id == id) return c;
    }
    throw std::runtime_error("no PKITS case " + id);
}

struct Outcome {
    Status status;
    std::vector<std::string> policies;
    int raw;  // OpenSSL's error under the same settings
};

Outcome validate(const std::string& id, const fc::CertificatePolicySettings& settings) {
    const pkits::Case& c = pkitsCase(id);
    const pkits::LoadedCase loaded = pkits::load(c);
    const fc::CertificateValidationResults results = loaded.leaf->validateCertificate(
        loaded.intermediates, optionsFor(c, true, &settings), loaded.trustAnchor);
    return {results.getCertificateChainStatus(), results.getValidPolicies(),
            rawVerdict(c, true, &settings)};
}

// The suite's results for its cases with other initial settings, from its description and RFC
// 5280; policies are the user-constrained set of a valid path.
struct Variant {
    const char* id;
    fc::CertificatePolicySettings settings;
    bool valid;
    std::vector<std::string> policies;
    const char* engineDeparture;  // why OpenSSL's verdict differs, or null
};

void PrintTo(const Variant& v, std::ostream* out) {
    *out << v.id << " {";
    for (const std::string& oid : v.settings.initialPolicies) *out << ' ' << oid;
    *out << " }" << (v.settings.requireExplicitPolicy ? " explicit" : "")
         << (v.settings.inhibitPolicyMapping ? " no-mapping" : "")
         << (v.settings.inhibitAnyPolicy ? " no-any" : "");
}

fc::CertificatePolicySettings initial(std::vector<std::string> oids, bool explicitPolicy = false) {
    fc::CertificatePolicySettings settings;
    settings.initialPolicies = std::move(oids);
    settings.requireExplicitPolicy = explicitPolicy;
    return settings;
}

fc::CertificatePolicySettings inhibitingMapping() {
    fc::CertificatePolicySettings settings;
    settings.inhibitPolicyMapping = true;
    return settings;
}

const Variant kVariants[] = {
    {"4.8.1", initial({}, true), true, {kPolicy1}, nullptr},
    {"4.8.1", initial({kPolicy2}, true), false, {}, nullptr},
    {"4.8.1", initial({kPolicy1, kPolicy2}, true), true, {kPolicy1}, nullptr},
    {"4.10.1", initial({kPolicy1}), true, {kPolicy1}, nullptr},
    {"4.10.1", initial({kPolicy2}), false, {}, nullptr},
    {"4.10.1", inhibitingMapping(), false, {}, nullptr},
    {"4.10.3", initial({kPolicy1}), false, {}, nullptr},
    {"4.10.3", initial({kPolicy2}), true, {kPolicy2}, nullptr},
    {"4.10.5", initial({kPolicy1}), true, {kPolicy1}, nullptr},
    {"4.10.5", initial({kPolicy6}), false, {}, nullptr},
    {"4.10.6", initial({kPolicy1}), true, {kPolicy1}, nullptr},
    {"4.10.6", initial({kPolicy6}), false, {}, nullptr},
    {"4.10.12", initial({kPolicy1}), true, {kPolicy1}, nullptr},
    {"4.10.12", initial({kPolicy2}), true, {kPolicy2}, nullptr},
};

class PkitsVariantTest : public ::testing::TestWithParam<Variant> {};

TEST_P(PkitsVariantTest, AsTheSuiteSaysAndAsOpenSSLJudges) {
    const Variant& v = GetParam();
    const Outcome outcome = validate(v.id, v.settings);
    EXPECT_EQ(outcome.status == Status::Valid, outcome.raw == X509_V_OK) << outcome.raw;
    EXPECT_EQ(outcome.status == Status::Valid, v.valid != (v.engineDeparture != nullptr))
        << "status " << static_cast<int>(outcome.status);
    if (outcome.status == Status::Valid) {
        EXPECT_EQ(outcome.policies, v.policies);
    } else {
        EXPECT_EQ(outcome.status, Status::PolicyMismatch);
        EXPECT_TRUE(outcome.policies.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Pkits, PkitsVariantTest, ::testing::ValuesIn(kVariants));

// ---- The settings one at a time ----

TEST(PolicySettingsTest, AnyPolicyByDefaultAndInhibitedAlone) {
    // Every certificate of 4.8.11 asserts anyPolicy and nothing else.
    const Outcome byDefault = validate("4.8.11", {});
    EXPECT_EQ(byDefault.status, Status::Valid);
    EXPECT_EQ(byDefault.policies, std::vector<std::string>{kAnyPolicy});

    // Its CA requires an explicit policy, and with anyPolicy inhibited none is left.
    fc::CertificatePolicySettings noAny;
    noAny.inhibitAnyPolicy = true;
    const Outcome inhibited = validate("4.8.11", noAny);
    EXPECT_EQ(inhibited.status, Status::PolicyMismatch);
    EXPECT_EQ(inhibited.raw, X509_V_ERR_NO_EXPLICIT_POLICY);
    EXPECT_TRUE(inhibited.policies.empty());
}

TEST(PolicySettingsTest, ExplicitPolicyRequiredOfAChainWithoutPolicies) {
    EXPECT_EQ(validate("4.8.2", {}).status, Status::Valid);
    EXPECT_EQ(validate("4.8.2", initial({}, true)).status, Status::PolicyMismatch);
}

TEST(PolicySettingsTest, MalformedPolicyIsRefusedByName) {
    Options options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                    Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                    Options::DownloadCRL::No);
    for (const std::string bad : {"", "2", "2.", ".2.5", "2..5", "3.1", "1.40", "1.2.03", "2.5.x",
                                  "anyPolicy", "2.5.29.32.0 "}) {
        fc::CertificatePolicySettings settings;
        settings.initialPolicies = {kPolicy1, bad};
        try {
            options.withPolicyCheck(settings);
            ADD_FAILURE() << '"' << bad << "\" was accepted";
        } catch (const fc::InvalidArgument& e) {
            EXPECT_EQ(std::string(e.what()),
                      "The policy \"" + bad + "\" is not a dotted object identifier.");
        }
    }
    fc::CertificatePolicySettings good;
    good.initialPolicies = {"0.9", "1.39.7", "2.999.123456789012345678901234567890", kAnyPolicy};
    EXPECT_NO_THROW(options.withPolicyCheck(good));
}

TEST(CertificatePoliciesTest, InTheCertificatesOrder) {
    const auto policiesOf = [](const std::string& file) {
        return fc::X509Certificate(pkits::certificateDER(file)).getCertificatePolicies();
    };
    EXPECT_EQ(policiesOf("PoliciesP123CACert.crt"),
              (std::vector<std::string>{kPolicy1, kPolicy2, "2.16.840.1.101.3.2.1.48.3"}));
    EXPECT_EQ(policiesOf("AllCertificatesanyPolicyTest11EE.crt"),
              std::vector<std::string>{kAnyPolicy});
    EXPECT_TRUE(policiesOf("AllCertificatesNoPoliciesTest2EE.crt").empty());
}

}  // namespace
