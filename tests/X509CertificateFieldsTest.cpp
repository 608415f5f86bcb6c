// Names, serial numbers, validity, fingerprints, the yes/no properties, equality and printing.
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <sstream>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::X509Certificate;
using testsupport::CertificateRecipe;
using testsupport::KeyKind;
using Attributes = std::vector<std::pair<std::string, std::string>>;

namespace {

X509Certificate make(CertificateRecipe recipe) {
    if (recipe.key == nullptr) recipe.key = testsupport::sharedKey(KeyKind::P256);
    return X509Certificate(testsupport::toDER(testsupport::makeCertificate(recipe).get()));
}

X509Certificate withSubject(Attributes subject) {
    CertificateRecipe recipe;
    recipe.subject = std::move(subject);
    return make(recipe);
}

X509Certificate fromX509(X509* x) { return X509Certificate(testsupport::toDER(x)); }

TEST(X509CertificateNames, TextMapAndCommonName) {
    struct Case {
        Attributes subject;
        std::string text;  // most specific first, RFC 2253 escaping
        std::unordered_map<std::string, std::string> attributes;  // also gives the CN
    };
    const std::vector<Case> cases{
        {{{"C", "US"}, {"O", "Example Org"}, {"CN", "Example Leaf"}},
         "CN=Example Leaf,O=Example Org,C=US",
         {{"C", "US"}, {"O", "Example Org"}, {"CN", "Example Leaf"}}},
        // Map values are not escaped.
        {{{"O", "Smith, Jones"}, {"CN", "caf\xc3\xa9"}},
         "CN=caf\\C3\\A9,O=Smith\\, Jones",
         {{"O", "Smith, Jones"}, {"CN", "caf\xc3\xa9"}}},
        // Repeated attributes keep the last.
        {{{"OU", "First"}, {"OU", "Second"}, {"CN", "One"}, {"CN", "Two"}},
         "CN=Two,CN=One,OU=Second,OU=First",
         {{"OU", "Second"}, {"CN", "Two"}}},
        // Unknown types are UNDEF in the map; the text dumps the DER of the value.
        {{{"1.2.3.4.5", "first"}, {"1.2.3.4.6", "second"}, {"CN", "Known"}},
         "CN=Known,1.2.3.4.6=#0C067365636F6E64,1.2.3.4.5=#0C056669727374",
         {{"UNDEF", "second"}, {"CN", "Known"}}},
        {{{"O", "No Common Name"}}, "O=No Common Name", {{"O", "No Common Name"}}},
        {{}, "", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const X509Certificate certificate = withSubject(c.subject);
        EXPECT_EQ(certificate.getSubjectName(), c.text);
        EXPECT_EQ(certificate.getIssuerName(), c.text);
        EXPECT_EQ(certificate.getSubjectNameAsRDNs(), c.attributes);
        EXPECT_EQ(certificate.getIssuerNameAsRDNs(), c.attributes);
        if (c.attributes.count("CN") != 0) {
            EXPECT_EQ(certificate.getSubjectCommonName(), c.attributes.at("CN"));
            EXPECT_EQ(certificate.getIssuerCommonName(), c.attributes.at("CN"));
        } else {
            EXPECT_THROW_MSG(certificate.getSubjectCommonName(), fc::InvalidArgument,
                             "Subject name has no CN.");
            EXPECT_THROW_MSG(certificate.getIssuerCommonName(), fc::InvalidArgument,
                             "Issuer name has no CN.");
        }
    }
}

TEST(X509CertificateFields, SerialNumbersAreDecimal) {
    for (const auto& [hex, decimal] : std::vector<std::pair<std::string, std::string>>{
             {"0100", "256"},
             {"00", "0"},
             {"-0a", "-10"},
             {"FFFFFFFFFFFFFFFFFFFF", "1208925819614629174706175"}}) {
        CertificateRecipe recipe;
        recipe.serialHex = hex;
        EXPECT_EQ(make(recipe).getSerialNumber(), decimal);
    }
}

TEST(X509CertificateFields, SignatureAlgorithmIsOpenSSLsShortName) {
    for (const auto& [kind, name] :
         std::vector<std::pair<KeyKind, std::string>>{{KeyKind::RSA2048, "RSA-SHA256"},
                                                      {KeyKind::P256, "ecdsa-with-SHA256"},
                                                      {KeyKind::Ed25519, "ED25519"}}) {
        CertificateRecipe recipe;
        recipe.key = testsupport::sharedKey(kind);
        EXPECT_EQ(make(recipe).getSignatureAlgorithm(), name);
    }
}

TEST(X509CertificateFields, ValidityAsTextAndTimePoints) {
    CertificateRecipe recipe;
    recipe.notBefore = 1704067200;  // 2024-01-01 00:00:00 UTC
    recipe.notAfter = 2556143999;   // 2050-12-31 23:59:59 UTC, a GeneralizedTime
    const X509Certificate certificate = make(recipe);
    EXPECT_EQ(certificate.getValidNotBefore(), "Jan  1 00:00:00 2024 GMT");
    EXPECT_EQ(certificate.getValidNotAfter(), "Dec 31 23:59:59 2050 GMT");
    EXPECT_EQ(certificate.getValidNotBeforeTimePoint().time_since_epoch(),
              std::chrono::seconds(1704067200));
    EXPECT_EQ(certificate.getValidNotAfterTimePoint().time_since_epoch(),
              std::chrono::seconds(2556143999));

    recipe.notBefore = -1;  // before the epoch
    const X509Certificate old = make(recipe);
    EXPECT_EQ(old.getValidNotBeforeTimePoint().time_since_epoch(), std::chrono::seconds(-1));
    EXPECT_EQ(old.getValidNotBefore(), "Dec 31 23:59:59 1969 GMT");
}

TEST(X509CertificateProperties, SelfSignedAndCA) {
    const auto& pki = testsupport::rsaPKI();
    CertificateRecipe versionOne;
    versionOne.version = 0;
    // Issued by the root's key under the root's name: self-signed goes by the names only.
    CertificateRecipe rootsName;
    rootsName.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Root"}};
    rootsName.issuer = pki.root.get();
    rootsName.issuerKey = pki.rootKey.get();
    const std::vector<std::tuple<X509Certificate, bool, bool>> cases{
        {fromX509(pki.root.get()), true, true},
        {fromX509(pki.intermediate.get()), false, true},
        {fromX509(pki.leaf.get()), false, false},
        {make(versionOne), true, true},
        {make(rootsName), true, false}};
    for (const auto& [certificate, selfSigned, ca] : cases) {
        EXPECT_EQ(certificate.isSelfSigned(), selfSigned) << certificate.getSubjectName();
        EXPECT_EQ(certificate.isCACertificate(), ca) << certificate.getSubjectName();
    }
}

TEST(X509CertificateProperties, DigitalSigningNeedsTheKeyUsageBitAndCodeSigning) {
    const std::vector<std::pair<std::vector<std::pair<int, std::string>>, bool>> cases{
        {{}, false},
        {{{NID_key_usage, "digitalSignature"}}, true},
        {{{NID_key_usage, "keyEncipherment"}}, false},
        {{{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "serverAuth"}}, false},
        {{{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "serverAuth,codeSigning"}},
         true},
        {{{NID_key_usage, "keyCertSign"}, {NID_ext_key_usage, "codeSigning"}}, false}};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        CertificateRecipe recipe;
        recipe.extensions = cases[i].first;
        EXPECT_EQ(make(recipe).isValidForDigitalSigning(), cases[i].second) << "case " << i;
    }
}

TEST(X509CertificateEquality, ComparesByFingerprint) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate fromDer = fromX509(pki.leaf.get());
    const X509Certificate fromPem(testsupport::toPEM(pki.leaf.get()));
    EXPECT_TRUE(fromDer == fromPem);
    EXPECT_FALSE(fromDer != fromPem);
    EXPECT_TRUE(fromDer != fromX509(pki.root.get()));
    EXPECT_TRUE(fromDer == fromDer);  // self-comparison must not deadlock
}

TEST(X509CertificatePrint, WritesTheSummaryWithTheSHA256OfTheDER) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Printing Org"}, {"CN", "Printing Root"}};
    recipe.ca = true;
    const X509Certificate certificate = make(recipe);
    const ByteArray der = certificate.getAsBytes();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    ASSERT_EQ(EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha256(), nullptr), 1);
    const std::string sha256 = fc::hexEncode(ByteArray(digest, digest + length));
    EXPECT_EQ(certificate.getSHA256Fingerprint(), sha256);
    EXPECT_EQ(sha256.find_first_not_of("0123456789abcdef"), std::string::npos);

    std::ostringstream printed;
    printed << certificate;
    EXPECT_EQ(printed.str(),
              "Certificate Details:\n--------------------\n"
              "Subject Name: CN=Printing Root,O=Printing Org;\n"
              "Issuer Name: CN=Printing Root,O=Printing Org;\n"
              "SHA256 Fingerprint: " +
                  sha256 + ";\nisSelfSigned: 1;\nisCA: 1;\n\n");
    std::ostringstream leaf;
    fromX509(testsupport::rsaPKI().leaf.get()).print(leaf);
    EXPECT_NE(leaf.str().find("isSelfSigned: 0;\nisCA: 0;\n\n"), std::string::npos);
}

}  // namespace
