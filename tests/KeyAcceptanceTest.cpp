// The process-wide key acceptance on every path that meets a key: classification, certificates,
// chains, PKCS#7 and PKCS#12 containers, validation and the trust anchors it wraps.
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS12.hpp"
#include "support/TestPKCS7.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>

#include <functional>

namespace fc = foundation::certificates;
using fc::KeyAcceptance;
using fc::X509Certificate;
using testsupport::KeyKind;
using testsupport::ScopedKeyAcceptance;
using Options = fc::CertificateValidationOptions;

namespace {

struct ExtendedKind {
    KeyKind kind;
    fc::EllipticCurve curve;
    std::uint64_t bits;
    std::size_t publicBytes;  // uncompressed point or raw key
    const char* refusal;      // the Standard acceptance's message
};

const ExtendedKind kExtendedKinds[] = {
    {KeyKind::P384, fc::EllipticCurve::Secp384r1, 384, 97,
     "ECC-based key is not using supported ECC Curve. Curve: secp384r1"},
    {KeyKind::P521, fc::EllipticCurve::Secp521r1, 521, 133,
     "ECC-based key is not using supported ECC Curve. Curve: secp521r1"},
    {KeyKind::Ed448, fc::EllipticCurve::Ed448, 456, 57,
     "Key uses Ed448, which is not currently supported"},
};

std::string nameOf(const ::testing::TestParamInfo<ExtendedKind>& info) {
    return testsupport::keyKindName(info.param.kind);
}

const Options kStrict(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                      Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                      Options::DownloadCRL::No);

// The private key as PrivateKeyInfo should carry it: the NIST curves' integer as a magnitude,
// Edwards keys' raw bytes.
fc::PrivateKeyInfo expectedPrivateKey(EVP_PKEY* key, fc::EllipticCurve curve) {
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC) {
        BIGNUM* raw = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &raw), 1);
        const fc::BNUPtr integer = fc::makeBNUPtr(raw);
        return fc::PrivateKeyInfo(fc::bnToByteArray(integer.get()), curve);
    }
    fc::ByteArray bytes(64);
    std::size_t length = bytes.size();
    EXPECT_EQ(EVP_PKEY_get_raw_private_key(key, bytes.data(), &length), 1);
    bytes.resize(length);
    return fc::PrivateKeyInfo(bytes, curve);
}

class KeyAcceptanceTest : public ::testing::TestWithParam<ExtendedKind> {
  protected:
    const testsupport::TestPKI& pki = testsupport::pkiOf(GetParam().kind);
    const std::string rootPem = testsupport::toPEM(pki.root.get());
    const std::string intermediatePem = testsupport::toPEM(pki.intermediate.get());
    const std::string leafPem = testsupport::toPEM(pki.leaf.get());

    fc::ByteArray bundleDER() const {
        return testsupport::pkcs7ToDER(
            testsupport::makeCertificateBundle({pki.leaf.get(), pki.root.get()}).get());
    }
    fc::ByteArray pkcs12() const {
        return testsupport::makePKCS12(
            {pki.leafKey.get(), pki.leaf.get(), {pki.intermediate.get(), pki.root.get()}});
    }
};

TEST_P(KeyAcceptanceTest, StandardRefusesEveryPathAsBefore) {
    const ScopedKeyAcceptance standard(KeyAcceptance::Standard);
    const std::string refusal = GetParam().refusal;
    if (GetParam().kind == KeyKind::Ed448) {
        EXPECT_THROW_MSG(fc::getKeyType(pki.leafKey.get()), fc::UnsupportedEllipticCurve, refusal);
    } else {
        EXPECT_EQ(fc::getKeyType(pki.leafKey.get()), fc::KeyType::ECC);
    }
    EXPECT_THROW_MSG(fc::getEllipticCurve(pki.leafKey.get()), fc::UnsupportedEllipticCurve,
                     refusal);
    EXPECT_THROW_MSG(X509Certificate{leafPem}, fc::UnsupportedEllipticCurve, refusal);
    EXPECT_THROW_MSG(X509Certificate{pki.root.get()}, fc::UnsupportedEllipticCurve, refusal);
    EXPECT_THROW_MSG(
        fc::X509CertificateChain{intermediatePem + rootPem}, fc::X509CertificateChainException,
        "Error: Unable to parse X509 certificate inside X509 certificate chain." + refusal);
    EXPECT_THROW_MSG(
        fc::PKCS7Certificate{bundleDER()}, fc::PKCS7CertificateException,
        "Error: Unable to parse X509 certificate(s) inside PKCS7 certificate." + refusal);
    EXPECT_THROW_MSG(fc::PKCS12Certificate(pkcs12(), testsupport::kPKCS12Passphrase),
                     fc::UnsupportedEllipticCurve,
                     "Unsupported elliptic curve in X509 Certificate in PKCS12: " + refusal);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_P(KeyAcceptanceTest, ExtendedAcceptsEveryPath) {
    const ScopedKeyAcceptance extended(KeyAcceptance::Extended);
    const ExtendedKind& expected = GetParam();
    EXPECT_EQ(fc::getKeyType(pki.leafKey.get()), fc::KeyType::ECC);
    EXPECT_EQ(fc::getEllipticCurve(pki.leafKey.get()), expected.curve);

    const X509Certificate leaf(leafPem), root(pki.root.get());
    const fc::PublicKeyInfo info = leaf.getPublicKeyInfo();
    EXPECT_EQ(info.getECCCurve(), expected.curve);
    EXPECT_EQ(info.getKeySize(), expected.bits);
    const fc::ByteArray point = info.getECCPublicPoint();
    ASSERT_EQ(point.size(), expected.publicBytes);
    if (expected.kind != KeyKind::Ed448) {
        EXPECT_EQ(point.front(), 0x04);
    }
    EXPECT_EQ(leaf.getKeySize(), expected.bits);
    EXPECT_THROW(leaf.getModulus(), fc::NotRSAKey);

    const fc::X509CertificateChain chain(intermediatePem);
    EXPECT_EQ(fc::X509CertificateChain(intermediatePem + rootPem).getNumCertificates(), 2u);
    const fc::PKCS7Certificate bundle(bundleDER());
    EXPECT_EQ(bundle.getCertificates(), (std::vector<X509Certificate>{leaf, root}));

    const fc::PKCS12Certificate container(pkcs12(), testsupport::kPKCS12Passphrase);
    EXPECT_EQ(container.getCertificate(), leaf);
    EXPECT_EQ(container.getCAChain().getNumCertificates(), 2u);
    EXPECT_EQ(container.getPrivateKeyInfo(), expectedPrivateKey(pki.leafKey.get(), expected.curve));

    // The whole chain verifies, and the anchor that validation wraps is accepted too.
    fc::TrustStore trusted;
    trusted.addCertificate(root);
    EXPECT_EQ(leaf.validateCertificate(chain, kStrict, trusted).getCertificateChainStatus(),
              fc::CertificateChainStatus::Valid);
    EXPECT_EQ(leaf.getRootCACertificate(chain, trusted), root);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

// Objects loaded under Extended stay loaded; what classifies their key follows the setting.
TEST_P(KeyAcceptanceTest, LoadedObjectsClassifyByTheCurrentSetting) {
    std::optional<X509Certificate> leaf;
    {
        const ScopedKeyAcceptance extended(KeyAcceptance::Extended);
        leaf.emplace(leafPem);
    }
    EXPECT_EQ(leaf->getSHA256Fingerprint().size(), 64u);
    EXPECT_THROW_MSG(leaf->getPublicKeyInfo(), fc::UnsupportedEllipticCurve, GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(Curves, KeyAcceptanceTest, ::testing::ValuesIn(kExtendedKinds), nameOf);

// Real bundles hold P-384 roots above RSA intermediates: such a chain loads under either setting,
// but only Extended accepts the platform's anchor that validation hands back.
TEST(KeyAcceptancePlatformTrust, RSAChainUnderAP384Root) {
    testsupport::CertificateRecipe rootRecipe;
    rootRecipe.subject = {{"CN", "P-384 Root"}};
    rootRecipe.key = testsupport::sharedKey(KeyKind::P384);
    rootRecipe.ca = true;
    const fc::X509UPtr root = testsupport::makeCertificate(rootRecipe);
    testsupport::CertificateRecipe leafRecipe;
    leafRecipe.subject = {{"CN", "leaf.example.test"}};
    leafRecipe.key = testsupport::sharedKey(KeyKind::RSA2048);
    leafRecipe.issuer = root.get();
    leafRecipe.issuerKey = rootRecipe.key;
    const X509Certificate leaf(testsupport::makeCertificate(leafRecipe).get());

    testsupport::ScopedTrustBundle bundle;
    bundle.write(testsupport::toPEM(root.get()));
    const fc::X509CertificateChain none;
    {
        const ScopedKeyAcceptance standard(KeyAcceptance::Standard);
        EXPECT_THROW_MSG(leaf.validateCertificate(none, kStrict, fc::TrustStore()),
                         fc::UnsupportedEllipticCurve,
                         "ECC-based key is not using supported ECC Curve. Curve: secp384r1");
    }
    const ScopedKeyAcceptance extended(KeyAcceptance::Extended);
    EXPECT_EQ(leaf.validateCertificate(none, kStrict, fc::TrustStore()).getCertificateChainStatus(),
              fc::CertificateChainStatus::Valid);
    EXPECT_EQ(leaf.getRootCACertificate(none, fc::TrustStore()), X509Certificate(root.get()));
}

TEST(KeyAcceptanceSetting, StandardUntilSetAndRSAFloorUnchanged) {
    EXPECT_EQ(fc::getKeyAcceptance(), KeyAcceptance::Standard);
    const ScopedKeyAcceptance extended(KeyAcceptance::Extended);
    EXPECT_EQ(fc::getKeyAcceptance(), KeyAcceptance::Extended);
    testsupport::CertificateRecipe weak;
    weak.key = testsupport::sharedKey(KeyKind::RSA1023);
    EXPECT_THROW_MSG(X509Certificate{testsupport::makeCertificate(weak).get()},
                     fc::X509CertificateException,
                     "RSA key size does not meet minimum cryptographic requirements");
    EXPECT_THROW_MSG(fc::getKeyType(testsupport::sharedKey(KeyKind::X25519)),
                     fc::UnsupportedKeyType,
                     "Key is not currently supported. OpenSSL type id: 1034");
    EXPECT_THROW_MSG(fc::getEllipticCurve(testsupport::sharedKey(KeyKind::Secp256k1)),
                     fc::UnsupportedEllipticCurve,
                     "ECC-based key is not using supported ECC Curve. Curve: secp256k1");
}

}  // namespace
