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
#include <tuple>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::X509Certificate;
using testsupport::CertificateRecipe;
using testsupport::KeyKind;

namespace {

X509Certificate make(CertificateRecipe recipe) {
    if (recipe.key == nullptr) recipe.key = testsupport::sharedKey(KeyKind::P256);
    return X509Certificate(testsupport::makeCertificate(recipe).get());
}

TEST(X509CertificateNames, TextMapAndCommonName) {
    using Attributes = std::vector<std::pair<std::string, std::string>>;
    struct Case {
        Attributes subject;
        std::string text;                                         // RFC 2253, most specific first
        std::unordered_map<std::string, std::string> attributes;  // also gives the CN
    };
    for (const Case& c : std::vector<Case>{
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
             {{}, "", {}}}) {
        SCOPED_TRACE(c.text);
        CertificateRecipe recipe;
        recipe.subject = c.subject;
        const X509Certificate certificate = make(recipe);
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

TEST(X509CertificateFields, SerialNumbersAndSignatureAlgorithms) {
    CertificateRecipe recipe;
    for (const auto& [hex, decimal] : std::vector<std::pair<std::string, std::string>>{
             {"0100", "256"},
             {"00", "0"},
             {"-0a", "-10"},
             {"FFFFFFFFFFFFFFFFFFFF", "1208925819614629174706175"}}) {
        recipe.serialHex = hex;
        EXPECT_EQ(make(recipe).getSerialNumber(), decimal);
    }
    for (const auto& [kind, name] :
         std::vector<std::pair<KeyKind, std::string>>{{KeyKind::RSA2048, "RSA-SHA256"},
                                                      {KeyKind::P256, "ecdsa-with-SHA256"},
                                                      {KeyKind::Ed25519, "ED25519"}}) {
        recipe.key = testsupport::sharedKey(kind);
        EXPECT_EQ(make(recipe).getSignatureAlgorithm(), name);
    }
}

TEST(X509CertificateFields, ValidityFingerprintEqualityAndPrint) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Printing Org"}, {"CN", "Printing Root"}};
    recipe.ca = true;
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
    EXPECT_EQ(make(recipe).getValidNotBeforeTimePoint().time_since_epoch(),
              std::chrono::seconds(-1));
    EXPECT_EQ(make(recipe).getValidNotBefore(), "Dec 31 23:59:59 1969 GMT");

    const ByteArray der = certificate.getAsBytes();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    ASSERT_EQ(EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha256(), nullptr), 1);
    const std::string sha256 = fc::hexEncode(ByteArray(digest, digest + length));
    EXPECT_EQ(certificate.getSHA256Fingerprint(), sha256);

    // Equal by fingerprint, whatever the encoding; self-comparison must not deadlock.
    const X509Certificate fromPem(certificate.getAsPEMString());
    EXPECT_TRUE(certificate == fromPem);
    EXPECT_FALSE(certificate != fromPem);
    EXPECT_TRUE(certificate != make(CertificateRecipe{}));
    EXPECT_TRUE(certificate == certificate);

    std::ostringstream printed;
    printed << certificate;
    EXPECT_EQ(printed.str(),
              "Certificate Details:\n--------------------\n"
              "Subject Name: CN=Printing Root,O=Printing Org;\n"
              "Issuer Name: CN=Printing Root,O=Printing Org;\n"
              "SHA256 Fingerprint: " +
                  sha256 + ";\nisSelfSigned: 1;\nisCA: 1;\n\n");
    std::ostringstream leaf;
    X509Certificate(testsupport::rsaPKI().leaf.get()).print(leaf);
    EXPECT_NE(leaf.str().find("isSelfSigned: 0;\nisCA: 0;\n\n"), std::string::npos);
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
    for (const auto& [certificate, selfSigned, ca] :
         std::vector<std::tuple<X509Certificate, bool, bool>>{
             {X509Certificate(pki.root.get()), true, true},
             {X509Certificate(pki.intermediate.get()), false, true},
             {X509Certificate(pki.leaf.get()), false, false},
             {make(versionOne), true, true},
             {make(rootsName), true, false}}) {
        EXPECT_EQ(certificate.isSelfSigned(), selfSigned) << certificate.getSubjectName();
        EXPECT_EQ(certificate.isCACertificate(), ca) << certificate.getSubjectName();
    }
}

TEST(X509CertificateProperties, DigitalSigningNeedsTheKeyUsageBitAndCodeSigning) {
    const std::string usage = "digitalSignature";
    for (const auto& [keyUsage, extendedKeyUsage, valid] :
         std::vector<std::tuple<std::string, std::string, bool>>{
             {"", "", false},
             {usage, "", true},
             {"keyEncipherment", "", false},
             {usage, "serverAuth", false},
             {usage, "serverAuth,codeSigning", true},
             {"keyCertSign", "codeSigning", false}}) {
        CertificateRecipe recipe;
        if (!keyUsage.empty()) recipe.extensions.emplace_back(NID_key_usage, keyUsage);
        if (!extendedKeyUsage.empty())
            recipe.extensions.emplace_back(NID_ext_key_usage, extendedKeyUsage);
        EXPECT_EQ(make(recipe).isValidForDigitalSigning(), valid)
            << keyUsage << "/" << extendedKeyUsage;
    }
}

}  // namespace
