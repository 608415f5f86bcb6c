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

namespace {

X509Certificate make(CertificateRecipe recipe) {
    if (recipe.key == nullptr) recipe.key = testsupport::sharedKey(KeyKind::P256);
    const fc::X509UPtr x = testsupport::makeCertificate(recipe);
    return X509Certificate(testsupport::toDER(x.get()));
}

X509Certificate withSubject(std::vector<std::pair<std::string, std::string>> subject) {
    CertificateRecipe recipe;
    recipe.subject = std::move(subject);
    return make(recipe);
}

std::string sha256Hex(const ByteArray& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr), 1);
    return fc::hexEncode(ByteArray(digest, digest + length));
}

TEST(X509CertificateNames, AreWrittenMostSpecificFirst) {
    const X509Certificate certificate =
        withSubject({{"C", "US"}, {"O", "Example Org"}, {"CN", "Example Leaf"}});
    EXPECT_EQ(certificate.getSubjectName(), "CN=Example Leaf,O=Example Org,C=US");
    EXPECT_EQ(certificate.getIssuerName(), "CN=Example Leaf,O=Example Org,C=US");
    const std::unordered_map<std::string, std::string> expected{
        {"C", "US"}, {"O", "Example Org"}, {"CN", "Example Leaf"}};
    EXPECT_EQ(certificate.getSubjectNameAsRDNs(), expected);
    EXPECT_EQ(certificate.getIssuerNameAsRDNs(), expected);
    EXPECT_EQ(certificate.getSubjectCommonName(), "Example Leaf");
    EXPECT_EQ(certificate.getIssuerCommonName(), "Example Leaf");
}

TEST(X509CertificateNames, EscapeSpecialAndNonASCIICharacters) {
    const X509Certificate certificate = withSubject({{"O", "Smith, Jones"}, {"CN", "caf\xc3\xa9"}});
    EXPECT_EQ(certificate.getSubjectName(), "CN=caf\\C3\\A9,O=Smith\\, Jones");
    EXPECT_EQ(certificate.getSubjectNameAsRDNs().at("CN"), "caf\xc3\xa9");  // map values unescaped
    EXPECT_EQ(certificate.getSubjectNameAsRDNs().at("O"), "Smith, Jones");
}

TEST(X509CertificateNames, RepeatedAttributesKeepTheLast) {
    const X509Certificate certificate =
        withSubject({{"OU", "First Unit"}, {"OU", "Second Unit"}, {"CN", "One"}, {"CN", "Two"}});
    const auto attributes = certificate.getSubjectNameAsRDNs();
    EXPECT_EQ(attributes.size(), 2u);
    EXPECT_EQ(attributes.at("OU"), "Second Unit");
    EXPECT_EQ(certificate.getSubjectCommonName(), "Two");
}

TEST(X509CertificateNames, UnknownAttributeTypesAreUndefined) {
    const X509Certificate certificate =
        withSubject({{"1.2.3.4.5", "first"}, {"1.2.3.4.6", "second"}, {"CN", "Known"}});
    const auto attributes = certificate.getSubjectNameAsRDNs();
    EXPECT_EQ(attributes.at("UNDEF"), "second");
    EXPECT_EQ(attributes.at("CN"), "Known");
    // RFC 2253 dumps unknown types as the DER of the value.
    EXPECT_EQ(certificate.getSubjectName(),
              "CN=Known,1.2.3.4.6=#0C067365636F6E64,1.2.3.4.5=#0C056669727374");
}

TEST(X509CertificateNames, MissingCommonNameIsAnError) {
    const X509Certificate certificate = withSubject({{"O", "No Common Name"}});
    EXPECT_EQ(certificate.getSubjectName(), "O=No Common Name");
    EXPECT_THROW_MSG(certificate.getSubjectCommonName(), fc::InvalidArgument,
                     "Subject name has no CN.");
    EXPECT_THROW_MSG(certificate.getIssuerCommonName(), fc::InvalidArgument,
                     "Issuer name has no CN.");
}

TEST(X509CertificateNames, EmptyNameIsEmptyText) {
    const X509Certificate certificate = withSubject({});
    EXPECT_EQ(certificate.getSubjectName(), "");
    EXPECT_TRUE(certificate.getSubjectNameAsRDNs().empty());
}

struct SerialCase {
    std::string hex;
    std::string decimal;
};

class SerialNumbers : public ::testing::TestWithParam<SerialCase> {};

TEST_P(SerialNumbers, AreDecimal) {
    CertificateRecipe recipe;
    recipe.serialHex = GetParam().hex;
    EXPECT_EQ(make(recipe).getSerialNumber(), GetParam().decimal);
}

INSTANTIATE_TEST_SUITE_P(
    X509Certificate, SerialNumbers,
    ::testing::Values(SerialCase{"0100", "256"}, SerialCase{"00", "0"}, SerialCase{"-0a", "-10"},
                      SerialCase{"FFFFFFFFFFFFFFFFFFFF", "1208925819614629174706175"}));

TEST(X509CertificateFields, SignatureAlgorithmIsOpenSSLsShortName) {
    EXPECT_EQ(X509Certificate(testsupport::toDER(testsupport::rsaPKI().leaf.get()))
                  .getSignatureAlgorithm(),
              "RSA-SHA256");
    EXPECT_EQ(X509Certificate(testsupport::toDER(testsupport::ecPKI().leaf.get()))
                  .getSignatureAlgorithm(),
              "ecdsa-with-SHA256");
    CertificateRecipe ed25519;
    ed25519.key = testsupport::sharedKey(KeyKind::Ed25519);
    EXPECT_EQ(make(ed25519).getSignatureAlgorithm(), "ED25519");
}

TEST(X509CertificateValidity, ConvertsToTextAndTimePoints) {
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
}

TEST(X509CertificateValidity, TimesBeforeTheEpochAreNegative) {
    CertificateRecipe recipe;
    recipe.notBefore = -1;  // 1969-12-31 23:59:59 UTC
    const X509Certificate certificate = make(recipe);
    EXPECT_EQ(certificate.getValidNotBeforeTimePoint().time_since_epoch(),
              std::chrono::seconds(-1));
    EXPECT_EQ(certificate.getValidNotBefore(), "Dec 31 23:59:59 1969 GMT");
}

TEST(X509CertificateFingerprint, IsTheSHA256OfTheDER) {
    const X509Certificate certificate(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    const std::string fingerprint = certificate.getSHA256Fingerprint();
    EXPECT_EQ(fingerprint.size(), 64u);
    EXPECT_EQ(fingerprint.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(fingerprint, sha256Hex(certificate.getAsBytes()));
}

TEST(X509CertificateProperties, RootAndLeaf) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate root(testsupport::toDER(pki.root.get()));
    const X509Certificate intermediate(testsupport::toDER(pki.intermediate.get()));
    const X509Certificate leaf(testsupport::toDER(pki.leaf.get()));
    EXPECT_TRUE(root.isSelfSigned());
    EXPECT_TRUE(root.isCACertificate());
    EXPECT_FALSE(intermediate.isSelfSigned());
    EXPECT_TRUE(intermediate.isCACertificate());
    EXPECT_FALSE(leaf.isSelfSigned());
    EXPECT_FALSE(leaf.isCACertificate());
}

TEST(X509CertificateProperties, SelfSignedMeansEqualNamesOnly) {
    // Issued by another key, but under its own name: still "self-signed" by name.
    const auto& pki = testsupport::rsaPKI();
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Test"}, {"CN", "Foundation Test Root"}};
    recipe.key = testsupport::sharedKey(KeyKind::P256);
    recipe.issuer = pki.root.get();
    recipe.issuerKey = pki.rootKey.get();
    EXPECT_TRUE(make(recipe).isSelfSigned());
}

TEST(X509CertificateProperties, VersionOneSelfSignedCountsAsCA) {
    CertificateRecipe recipe;
    recipe.version = 0;
    EXPECT_TRUE(make(recipe).isCACertificate());
}

struct SigningCase {
    const char* name;
    std::vector<std::pair<int, std::string>> extensions;
    bool valid;
};

class DigitalSigning : public ::testing::TestWithParam<SigningCase> {};

TEST_P(DigitalSigning, NeedsTheKeyUsageBitAndCodeSigning) {
    CertificateRecipe recipe;
    recipe.extensions = GetParam().extensions;
    EXPECT_EQ(make(recipe).isValidForDigitalSigning(), GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(
    X509Certificate, DigitalSigning,
    ::testing::Values(
        SigningCase{"NoKeyUsage", {}, false},
        SigningCase{"KeyUsageOnly", {{NID_key_usage, "digitalSignature"}}, true},
        SigningCase{"OtherKeyUsage", {{NID_key_usage, "keyEncipherment"}}, false},
        SigningCase{"ServerAuthOnly",
                    {{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "serverAuth"}},
                    false},
        SigningCase{
            "WithCodeSigning",
            {{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "serverAuth,codeSigning"}},
            true},
        SigningCase{"CodeSigningWithoutKeyUsageBit",
                    {{NID_key_usage, "keyCertSign"}, {NID_ext_key_usage, "codeSigning"}},
                    false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(X509CertificateEquality, ComparesByFingerprint) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate fromDer(testsupport::toDER(pki.leaf.get()));
    const X509Certificate fromPem(testsupport::toPEM(pki.leaf.get()));
    const X509Certificate other(testsupport::toDER(pki.root.get()));
    EXPECT_TRUE(fromDer == fromPem);
    EXPECT_FALSE(fromDer != fromPem);
    EXPECT_TRUE(fromDer != other);
    EXPECT_TRUE(fromDer == fromDer);  // self-comparison must not deadlock
}

TEST(X509CertificatePrint, WritesTheSummary) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Printing Org"}, {"CN", "Printing Root"}};
    recipe.ca = true;
    const X509Certificate certificate = make(recipe);
    std::ostringstream printed;
    printed << certificate;
    EXPECT_EQ(printed.str(),
              "Certificate Details:\n"
              "--------------------\n"
              "Subject Name: CN=Printing Root,O=Printing Org;\n"
              "Issuer Name: CN=Printing Root,O=Printing Org;\n"
              "SHA256 Fingerprint: " +
                  sha256Hex(certificate.getAsBytes()) +
                  ";\n"
                  "isSelfSigned: 1;\n"
                  "isCA: 1;\n"
                  "\n");

    std::ostringstream leaf;
    X509Certificate(testsupport::toDER(testsupport::rsaPKI().leaf.get())).print(leaf);
    EXPECT_NE(leaf.str().find("isSelfSigned: 0;\nisCA: 0;\n\n"), std::string::npos);
}

}  // namespace
