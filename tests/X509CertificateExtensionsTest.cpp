// The extension accessors: alternative names, key usages, constraints, distribution points,
// access locations, key identifiers and the public-key pin.
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <functional>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::X509Certificate;
using testsupport::CertificateRecipe;
using testsupport::KeyKind;
using Strings = std::vector<std::string>;
using Usage = X509Certificate::KeyUsage;

namespace {

X509Certificate make(CertificateRecipe recipe) {
    if (recipe.key == nullptr) recipe.key = testsupport::sharedKey(KeyKind::P256);
    return X509Certificate(testsupport::makeCertificate(recipe).get());
}

ByteArray publicKeyDER(EVP_PKEY* key) {
    const int length = i2d_PUBKEY(key, nullptr);
    ByteArray der(static_cast<std::size_t>(length));
    unsigned char* out = der.data();
    EXPECT_EQ(i2d_PUBKEY(key, &out), length);
    return der;
}

ByteArray sha256(const ByteArray& data) {
    ByteArray digest(32);
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr),
              1);
    return digest;
}

TEST(X509CertificateExtensions, ReadsEveryExtensionInCertificateOrder) {
    const testsupport::TestPKI& pki = testsupport::ecPKI();
    CertificateRecipe recipe;
    recipe.issuer = pki.intermediate.get();
    recipe.issuerKey = pki.intermediateKey.get();
    recipe.extensions = {
        {NID_subject_alt_name,
         "DNS:b.example.test,IP:192.0.2.7,email:user@example.test,RID:1.2.3.4,"
         "URI:https://example.test/id,DNS:a.example.test,IP:2001:db8:0::7"},
        {NID_crl_distribution_points,
         "URI:http://crl.example.test/a.crl,URI:ldap://crl.example.test/b"},
        {NID_info_access,
         "OCSP;URI:http://ocsp.example.test,caIssuers;URI:http://ca.example.test/ca.der,"
         "OCSP;URI:http://ocsp2.example.test"},
        {NID_key_usage, "critical,digitalSignature,keyAgreement,decipherOnly"},
        {NID_ext_key_usage, "serverAuth,codeSigning,1.2.3.4.5"},
        {NID_basic_constraints, "critical,CA:TRUE,pathlen:3"}};
    const X509Certificate certificate = make(recipe);

    const X509Certificate::SubjectAlternativeNames names = certificate.getSubjectAlternativeNames();
    EXPECT_EQ(names.dnsNames, (Strings{"b.example.test", "a.example.test"}));
    EXPECT_EQ(names.ipAddresses, (Strings{"192.0.2.7", "2001:db8::7"}));
    EXPECT_EQ(names.emailAddresses, Strings{"user@example.test"});
    EXPECT_EQ(names.uris, Strings{"https://example.test/id"});
    EXPECT_EQ(certificate.getCRLDistributionPoints(),
              (Strings{"http://crl.example.test/a.crl", "ldap://crl.example.test/b"}));
    EXPECT_EQ(certificate.getOCSPResponders(),
              (Strings{"http://ocsp.example.test", "http://ocsp2.example.test"}));
    EXPECT_EQ(certificate.getCAIssuers(), Strings{"http://ca.example.test/ca.der"});
    EXPECT_EQ(
        certificate.getKeyUsage(),
        (std::vector<Usage>{Usage::DigitalSignature, Usage::KeyAgreement, Usage::DecipherOnly}));
    EXPECT_EQ(certificate.getExtendedKeyUsage(),
              (Strings{"serverAuth", "codeSigning", "1.2.3.4.5"}));
    EXPECT_EQ(certificate.getPathLengthConstraint(), 3);

    // Identifiers and the pin against what OpenSSL computes on its own.
    const fc::X509UPtr parsed = fc::makeX509UPtr(certificate.getOpenSSLCertificate());
    const ASN1_OCTET_STRING* own = X509_get0_subject_key_id(parsed.get());
    const ASN1_OCTET_STRING* issuers = X509_get0_subject_key_id(pki.intermediate.get());
    EXPECT_EQ(certificate.getSubjectKeyIdentifier(), ByteArray(own->data, own->data + own->length));
    EXPECT_EQ(certificate.getAuthorityKeyIdentifier(),
              ByteArray(issuers->data, issuers->data + issuers->length));
    const ByteArray spki = publicKeyDER(testsupport::sharedKey(KeyKind::P256));
    EXPECT_EQ(certificate.getSubjectPublicKeyInfo(), spki);
    EXPECT_EQ(certificate.getSubjectPublicKeyInfoSHA256(), fc::hexEncode(sha256(spki)));
}

TEST(X509CertificateExtensions, AbsentExtensionsGiveEmptyResults) {
    CertificateRecipe v1;
    v1.version = 0;  // no extensions at all
    CertificateRecipe noPathLength;
    noPathLength.extensions = {{NID_basic_constraints, "CA:FALSE"}};
    for (const X509Certificate& certificate : {make(v1), make(noPathLength)}) {
        const auto names = certificate.getSubjectAlternativeNames();
        EXPECT_TRUE(names.dnsNames.empty() && names.ipAddresses.empty() &&
                    names.emailAddresses.empty() && names.uris.empty());
        EXPECT_TRUE(certificate.getCRLDistributionPoints().empty());
        EXPECT_TRUE(certificate.getOCSPResponders().empty());
        EXPECT_TRUE(certificate.getCAIssuers().empty());
        EXPECT_TRUE(certificate.getKeyUsage().empty());
        EXPECT_TRUE(certificate.getExtendedKeyUsage().empty());
        EXPECT_EQ(certificate.getPathLengthConstraint(), std::nullopt);
        EXPECT_TRUE(certificate.getAuthorityKeyIdentifier().empty());
        EXPECT_EQ(certificate.getSubjectPublicKeyInfoSHA256().size(), 64u);
    }
    EXPECT_TRUE(make(v1).getSubjectKeyIdentifier().empty());
    EXPECT_THROW_MSG(X509Certificate().getKeyUsage(), fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
}

// Each certificate still loads; only the accessor of the damaged extension refuses.
TEST(X509CertificateExtensions, UndecodableOrRepeatedExtensionsAreNamed) {
    using Accessor = std::function<void(const X509Certificate&)>;
    const std::string undecodable = "Error: The certificate's ";
    struct Case {
        int nid;
        std::string value;
        Accessor read;
        std::string message;
    };
    const std::vector<Case> cases{
        {NID_subject_alt_name, "DER:0403010203",
         [](const X509Certificate& c) { c.getSubjectAlternativeNames(); },
         undecodable + "subjectAltName extension cannot be decoded."},
        // A five-byte iPAddress is no address.
        {NID_subject_alt_name, "DER:30078705C000020701",
         [](const X509Certificate& c) { c.getSubjectAlternativeNames(); },
         undecodable + "subjectAltName extension cannot be decoded."},
        {NID_crl_distribution_points, "DER:0500",
         [](const X509Certificate& c) { c.getCRLDistributionPoints(); },
         undecodable + "crlDistributionPoints extension cannot be decoded."},
        {NID_info_access, "DER:0500", [](const X509Certificate& c) { c.getOCSPResponders(); },
         undecodable + "authorityInfoAccess extension cannot be decoded."},
        {NID_info_access, "DER:0500", [](const X509Certificate& c) { c.getCAIssuers(); },
         undecodable + "authorityInfoAccess extension cannot be decoded."},
        {NID_key_usage, "DER:0500", [](const X509Certificate& c) { c.getKeyUsage(); },
         undecodable + "keyUsage extension cannot be decoded."},
        {NID_ext_key_usage, "DER:0500", [](const X509Certificate& c) { c.getExtendedKeyUsage(); },
         undecodable + "extendedKeyUsage extension cannot be decoded."},
        {NID_basic_constraints, "DER:30060101FF0201FF",
         [](const X509Certificate& c) { c.getPathLengthConstraint(); },
         undecodable + "basicConstraints extension cannot be decoded."},
        {NID_authority_key_identifier, "DER:0500",
         [](const X509Certificate& c) { c.getAuthorityKeyIdentifier(); },
         undecodable + "authorityKeyIdentifier extension cannot be decoded."},
        // Every version 3 test certificate has one already.
        {NID_subject_key_identifier, "hash",
         [](const X509Certificate& c) { c.getSubjectKeyIdentifier(); },
         "Error: The certificate has more than one subjectKeyIdentifier extension."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        CertificateRecipe recipe;
        recipe.extensions = {{c.nid, c.value}};
        const X509Certificate certificate = make(recipe);
        EXPECT_THROW_MSG(c.read(certificate), fc::X509CertificateException, c.message);
        EXPECT_EQ(ERR_peek_error(), 0u);
        EXPECT_EQ(certificate.getSubjectPublicKeyInfoSHA256().size(), 64u);
    }
}

}  // namespace
