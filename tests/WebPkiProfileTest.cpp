// The web PKI profile: each rule broken alone on a chain that keeps all the others, against the
// same chain under the default profile.
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <optional>

namespace fc = foundation::certificates;
using Status = fc::CertificateChainStatus;
using Options = fc::CertificateValidationOptions;
using testsupport::CertificateRecipe;
using testsupport::KeyKind;

namespace {

Options plain(bool allowExpired = false) {
    return Options(
        Options::AllowSelfSignedCertificate::No,
        allowExpired ? Options::AllowExpiredCertificate::Yes : Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
}

Options webPki(const std::string& host = "leaf.example.test") {
    return plain().withHostName(host).withProfile(fc::ValidationProfile::WebPKI);
}

struct ChainRecipes {
    CertificateRecipe root, intermediate, leaf;
};

// A chain that keeps every rule; each case changes one thing.
ChainRecipes compliant() {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    ChainRecipes r;
    r.root.subject = {{"O", "Foundation Test"}, {"CN", "Profile Root"}};
    r.root.key = pki.rootKey.get();
    r.root.ca = true;
    r.root.serialHex = "01";
    r.root.notAfterOffset = 3650 * testsupport::kDay;
    r.intermediate.subject = {{"O", "Foundation Test"}, {"CN", "Profile Intermediate"}};
    r.intermediate.key = pki.intermediateKey.get();
    r.intermediate.ca = true;
    r.intermediate.serialHex = "02";
    r.leaf.subject = {{"O", "Foundation Test"}, {"CN", "leaf.example.test"}};
    r.leaf.key = pki.leafKey.get();
    r.leaf.serialHex = "03";
    r.leaf.extensions = {{NID_key_usage, "critical,digitalSignature,keyEncipherment"},
                         {NID_ext_key_usage, "serverAuth"},
                         {NID_subject_alt_name, "DNS:leaf.example.test"}};
    return r;
}

struct Chain {
    fc::X509UPtr root{nullptr, X509_free}, intermediate{nullptr, X509_free},
        leaf{nullptr, X509_free};
};

Chain build(ChainRecipes r) {
    Chain c;
    c.root = testsupport::makeCertificate(r.root);
    r.intermediate.issuer = c.root.get();
    r.intermediate.issuerKey = r.root.key;
    c.intermediate = testsupport::makeCertificate(r.intermediate);
    r.leaf.issuer = c.intermediate.get();
    r.leaf.issuerKey = r.intermediate.key;
    c.leaf = testsupport::makeCertificate(r.leaf);
    return c;
}

fc::CertificateValidationResults validate(const Chain& c, const Options& options) {
    fc::TrustStore trusted;
    trusted.addCertificate(fc::X509Certificate(c.root.get()));
    const fc::X509CertificateChain intermediates(testsupport::toPEM(c.intermediate.get()));
    return fc::X509Certificate(c.leaf.get()).validateCertificate(intermediates, options, trusted);
}

void expectViolation(const fc::CertificateValidationResults& results, int rule, int depth) {
    EXPECT_EQ(results.getCertificateChainStatus(), Status::ProfileViolation);
    const std::string text = results.getValidationErrorString();
    EXPECT_EQ(text.rfind("Web PKI rule " + std::to_string(rule) + " (", 0), 0u) << text;
    EXPECT_NE(text.find(") broken at depth " + std::to_string(depth) + ": "), std::string::npos)
        << text;
}

void setExtension(CertificateRecipe& recipe, int nid, const std::string& value) {
    for (auto& extension : recipe.extensions) {
        if (extension.first == nid) {
            extension.second = value;
            return;
        }
    }
    recipe.extensions.emplace_back(nid, value);
}

void dropExtension(CertificateRecipe& recipe, int nid) {
    auto& list = recipe.extensions;
    list.erase(
        std::remove_if(list.begin(), list.end(), [nid](const auto& e) { return e.first == nid; }),
        list.end());
}

struct RuleCase {
    const char* name;
    int rule;
    int depth;
    std::function<void(ChainRecipes&)> change;
};

std::ostream& operator<<(std::ostream& out, const RuleCase& c) { return out << c.name; }

class WebPkiRule : public ::testing::TestWithParam<RuleCase> {};

// The broken chain fails only under the profile, with the rule and depth named.
TEST_P(WebPkiRule, BrokenAloneFailsOnlyUnderTheProfile) {
    ChainRecipes recipes = compliant();
    GetParam().change(recipes);
    const Chain chain = build(recipes);
    const fc::CertificateValidationResults underDefault = validate(chain, plain());
    EXPECT_EQ(underDefault.getCertificateChainStatus(), Status::Valid)
        << underDefault.getValidationErrorString();
    expectViolation(validate(chain, webPki()), GetParam().rule, GetParam().depth);
}

const RuleCase kRuleCases[] = {
    {"SmallRsaKey", 1, 0,
     [](ChainRecipes& r) { r.leaf.key = testsupport::sharedKey(KeyKind::RSA1024); }},
    {"EdwardsKey", 1, 0,
     [](ChainRecipes& r) { r.leaf.key = testsupport::sharedKey(KeyKind::Ed25519); }},
    {"SmallRsaIntermediate", 1, 1,
     [](ChainRecipes& r) { r.intermediate.key = testsupport::sharedKey(KeyKind::RSA1024); }},
    {"NoExtendedKeyUsage", 2, 0, [](ChainRecipes& r) { dropExtension(r.leaf, NID_ext_key_usage); }},
    {"CriticalExtendedKeyUsage", 2, 0,
     [](ChainRecipes& r) { setExtension(r.leaf, NID_ext_key_usage, "critical,serverAuth"); }},
    {"AnyExtendedKeyUsage", 2, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_ext_key_usage, "serverAuth,anyExtendedKeyUsage");
     }},
    {"LeafIsCa", 2, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_basic_constraints, "critical,CA:TRUE");
         setExtension(r.leaf, NID_key_usage, "critical,digitalSignature,keyCertSign");
     }},
    {"CriticalSubjectAltNameWithSubject", 2, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name, "critical,DNS:leaf.example.test");
     }},
    {"LeafWithNameConstraints", 2, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_name_constraints, "critical,permitted;DNS:example.test");
     }},
    {"CommonNameNotInSubjectAltName", 3, 0,
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "other.example.test"}};
     }},
    {"CommonNameDiffersInCase", 3, 0,
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "LEAF.example.test"}};
     }},
    {"CommonNameIPv4WithLeadingZeros", 3, 0,
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "192.000.002.001"}};
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,IP:192.0.2.1");
     }},
    {"CommonNameIPv6NotCanonical", 3, 0,
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "2001:DB8:0:0:0:0:0:1"}};
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,IP:2001:db8::1");
     }},
    {"UnderscoreInDnsName", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name,
                      "DNS:leaf.example.test,DNS:bad_name.example.test");
     }},
    {"WildcardNotLeftMost", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,DNS:a.*.example.test");
     }},
    {"PartialWildcard", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,DNS:w*.example.test");
     }},
    {"EmptyLabel", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,DNS:a..example.test");
     }},
    {"MailboxWithTwoAts", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,email:a@b@example.test");
     }},
    // SEQUENCE { dNSName "leaf.example.test", iPAddress of five bytes }
    {"FiveByteAddress", 4, 0,
     [](ChainRecipes& r) {
         setExtension(r.leaf, NID_subject_alt_name,
                      "DER:301A8211"
                      "6C6561662E6578616D706C652E74657374"
                      "87050102030405");
     }},
    {"EmptyNameConstraints", 5, 1,
     [](ChainRecipes& r) {
         setExtension(r.intermediate, NID_name_constraints, "critical,DER:3000");
     }},
    {"ConstraintWithLeadingPeriod", 5, 1,
     [](ChainRecipes& r) {
         setExtension(r.intermediate, NID_name_constraints, "critical,permitted;DNS:.example.test");
     }},
    {"WildcardReachesExcludedSubtree", 5, 1,
     [](ChainRecipes& r) {
         r.leaf.subject = {{"O", "Foundation Test"}};
         setExtension(r.leaf, NID_subject_alt_name, "DNS:leaf.example.test,DNS:*.example.test");
         setExtension(r.intermediate, NID_name_constraints,
                      "critical,excluded;DNS:bar.example.test");
     }},
    {"ZeroSerial", 6, 0, [](ChainRecipes& r) { r.leaf.serialHex = "00"; }},
    {"TwentyOneOctetSerial", 6, 0,
     [](ChainRecipes& r) { r.leaf.serialHex = "0102030405060708090A0B0C0D0E0F101112131415"; }},
    // Twenty octets of magnitude, but the sign octet makes it twenty-one.
    {"TopBitSerial", 6, 1,
     [](ChainRecipes& r) {
         r.intermediate.serialHex = "8102030405060708090A0B0C0D0E0F1011121314";
     }},
    {"AnchorKeyIdWithIssuer", 7, 2,
     [](ChainRecipes& r) {
         setExtension(r.root, NID_authority_key_identifier, "keyid:always,issuer:always");
     }},
    {"AnchorWithExtendedKeyUsage", 7, 2,
     [](ChainRecipes& r) { setExtension(r.root, NID_ext_key_usage, "serverAuth"); }},
    {"AccessWithoutUri", 8, 1,
     [](ChainRecipes& r) {
         setExtension(r.intermediate, NID_info_access, "caIssuers;email:ca@example.test");
     }},
    {"AccessWithSchemelessUri", 8, 0,
     [](ChainRecipes& r) { setExtension(r.leaf, NID_info_access, "OCSP;URI:ocsp.example.test"); }},
    {"NonCriticalPolicyConstraints", 9, 1,
     [](ChainRecipes& r) {
         setExtension(r.intermediate, NID_policy_constraints, "inhibitPolicyMapping:0");
     }},
};

INSTANTIATE_TEST_SUITE_P(EachRule, WebPkiRule, ::testing::ValuesIn(kRuleCases),
                         [](const auto& info) { return std::string(info.param.name); });

struct PassingCase {
    const char* name;
    std::function<void(ChainRecipes&)> change;
    std::function<Options()> options;
};

std::ostream& operator<<(std::ostream& out, const PassingCase& c) { return out << c.name; }

class WebPkiPassing : public ::testing::TestWithParam<PassingCase> {};

TEST_P(WebPkiPassing, FollowsEveryRule) {
    ChainRecipes recipes = compliant();
    GetParam().change(recipes);
    const fc::CertificateValidationResults results = validate(build(recipes), GetParam().options());
    EXPECT_EQ(results.getCertificateChainStatus(), Status::Valid)
        << results.getValidationErrorString();
}

const PassingCase kPassingCases[] = {
    {"Rsa", [](ChainRecipes&) {}, [] { return webPki(); }},
    {"EllipticCurve",
     [](ChainRecipes& r) {
         const testsupport::TestPKI& pki = testsupport::ecPKI();
         r.root.key = pki.rootKey.get();
         r.intermediate.key = pki.intermediateKey.get();
         r.leaf.key = pki.leafKey.get();
     },
     [] { return webPki(); }},
    {"WildcardOutsideExcludedSubtree",
     [](ChainRecipes& r) {
         r.leaf.subject = {};
         setExtension(r.leaf, NID_subject_alt_name, "critical,DNS:*.example.test");
         setExtension(r.intermediate, NID_name_constraints,
                      "critical,excluded;DNS:a.b.example.test");
     },
     [] { return webPki("leaf.example.test"); }},
    {"IPv4CommonName",
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "192.0.2.1"}};
         setExtension(r.leaf, NID_subject_alt_name, "IP:192.0.2.1");
     },
     [] { return plain().withIPAddress("192.0.2.1").withProfile(fc::ValidationProfile::WebPKI); }},
    {"IPv6CommonName",
     [](ChainRecipes& r) {
         r.leaf.subject = {{"CN", "2001:db8::1:0:0:1"}};
         setExtension(r.leaf, NID_subject_alt_name, "IP:2001:db8:0:0:1:0:0:1");
     },
     [] {
         return plain()
             .withIPAddress("2001:db8::1:0:0:1")
             .withProfile(fc::ValidationProfile::WebPKI);
     }},
    {"AnchorKeyIdOnly",
     [](ChainRecipes& r) { setExtension(r.root, NID_authority_key_identifier, "keyid:always"); },
     [] { return webPki(); }},
    {"CriticalPolicyConstraints",
     [](ChainRecipes& r) {
         setExtension(r.intermediate, NID_policy_constraints, "critical,inhibitPolicyMapping:0");
     },
     [] { return webPki(); }},
};

INSTANTIATE_TEST_SUITE_P(Compliant, WebPkiPassing, ::testing::ValuesIn(kPassingCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(WebPkiProfile, NeedsAHostNameOrAddress) {
    const Chain chain = build(compliant());
    EXPECT_THROW(validate(chain, plain().withProfile(fc::ValidationProfile::WebPKI)),
                 fc::InvalidArgument);
    EXPECT_THROW(plain().withProfile(static_cast<fc::ValidationProfile>(2)), fc::InvalidArgument);
}

TEST(WebPkiProfile, ImpliesTheTlsServerPurpose) {
    ChainRecipes recipes = compliant();
    setExtension(recipes.leaf, NID_ext_key_usage, "serverAuth");
    setExtension(recipes.intermediate, NID_ext_key_usage, "clientAuth");
    const Chain chain = build(recipes);
    EXPECT_EQ(
        validate(chain, plain().withHostName("leaf.example.test")).getCertificateChainStatus(),
        Status::Valid);
    EXPECT_EQ(validate(chain, webPki()).getCertificateChainStatus(), Status::PurposeMismatch);
}

// OpenSSL takes a certificate to be expired at its notAfter second; the profile does not.
TEST(WebPkiProfile, NotAfterIsInclusiveToTheSecond) {
    ChainRecipes recipes = compliant();
    const std::time_t notAfter = std::time(nullptr) + 30 * testsupport::kDay;
    recipes.leaf.notAfter = notAfter;
    const Chain chain = build(recipes);
    const auto at = [](std::time_t t) { return std::chrono::system_clock::from_time_t(t); };

    EXPECT_EQ(
        validate(chain, webPki().withValidationTime(at(notAfter))).getCertificateChainStatus(),
        Status::Valid);
    EXPECT_EQ(validate(chain, plain().withValidationTime(at(notAfter))).getCertificateChainStatus(),
              Status::Expired);
    EXPECT_EQ(
        validate(chain, webPki().withValidationTime(at(notAfter + 1))).getCertificateChainStatus(),
        Status::Expired);
    // Forgiven expiry is still outside the validity period.
    expectViolation(validate(chain, plain(true)
                                        .withHostName("leaf.example.test")
                                        .withProfile(fc::ValidationProfile::WebPKI)
                                        .withValidationTime(at(notAfter + 1))),
                    10, 0);
    EXPECT_EQ(validate(chain, plain(true).withValidationTime(at(notAfter + 1)))
                  .getCertificateChainStatus(),
              Status::Valid);
}

// Lists the caller hands over, checked for the leaf or the whole chain.
class WebPkiRevocationList : public ::testing::Test {
  protected:
    Chain chain = build(compliant());

    fc::CertificateRevocationList list(X509* issuer, std::optional<long> number) {
        testsupport::CRLRecipe recipe;
        recipe.issuer = issuer;
        recipe.signingKey = issuer == chain.root.get()
                                ? testsupport::rsaPKI().rootKey.get()
                                : testsupport::rsaPKI().intermediateKey.get();
        const fc::X509CRLUPtr made =
            number ? testsupport::makeNumberedCRL(recipe, *number) : testsupport::makeCRL(recipe);
        return fc::CertificateRevocationList(testsupport::crlToDER(made.get()));
    }

    fc::CertificateValidationResults check(Options::CheckCRL scope,
                                           std::vector<fc::CertificateRevocationList> lists,
                                           bool profile = true) {
        Options options(Options::AllowSelfSignedCertificate::No,
                        Options::AllowExpiredCertificate::No, Options::AllowRevokedCertificate::No,
                        scope, Options::DownloadCRL::No);
        options.withHostName("leaf.example.test").withRevocationLists(std::move(lists));
        if (profile) options.withProfile(fc::ValidationProfile::WebPKI);
        return validate(chain, options);
    }
};

TEST_F(WebPkiRevocationList, EveryListUsedCarriesANumber) {
    EXPECT_EQ(check(Options::CheckCRL::LeafOnly, {list(chain.intermediate.get(), 7)})
                  .getCertificateChainStatus(),
              Status::Valid);
    expectViolation(
        check(Options::CheckCRL::LeafOnly, {list(chain.intermediate.get(), std::nullopt)}), 11, 0);
    EXPECT_EQ(
        check(Options::CheckCRL::LeafOnly, {list(chain.intermediate.get(), std::nullopt)}, false)
            .getCertificateChainStatus(),
        Status::Valid);
    expectViolation(check(Options::CheckCRL::FullChain, {list(chain.intermediate.get(), 1),
                                                         list(chain.root.get(), std::nullopt)}),
                    11, 1);
    // The root's list is not used when only the leaf is checked.
    EXPECT_EQ(check(Options::CheckCRL::LeafOnly,
                    {list(chain.intermediate.get(), 1), list(chain.root.get(), std::nullopt)})
                  .getCertificateChainStatus(),
              Status::Valid);
}

}  // namespace
