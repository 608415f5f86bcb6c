#include "X509CertificateImpl.hpp"
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PublicKeyInfo.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/core_names.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PublicKeyInfo;
using fc::X509Certificate;
using testsupport::KeyKind;

namespace {

X509Certificate certificateWith(KeyKind kind) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(kind);
    return X509Certificate(testsupport::toDER(testsupport::makeCertificate(recipe).get()));
}

TEST(PublicKeyInfoOfCertificates, RSAWithTheFacadesMessagesForECC) {
    const X509Certificate certificate = certificateWith(KeyKind::RSA2048);
    const PublicKeyInfo info = certificate.getPublicKeyInfo();
    EXPECT_EQ(info.getType(), fc::KeyType::RSA);
    EXPECT_EQ(info.getKeySize(), 2048u);
    EXPECT_EQ(certificate.getKeySize(), 2048u);
    EXPECT_EQ(certificate.getPublicExponent(), (ByteArray{0x01, 0x00, 0x01}));
    BIGNUM* n = nullptr;
    ASSERT_EQ(
        EVP_PKEY_get_bn_param(testsupport::sharedKey(KeyKind::RSA2048), OSSL_PKEY_PARAM_RSA_N, &n),
        1);
    const fc::BNUPtr modulus = fc::makeBNUPtr(n);
    ByteArray bytes(static_cast<std::size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, bytes.data());
    EXPECT_EQ(certificate.getModulus(), bytes);
    EXPECT_THROW_MSG(info.getECCPublicPoint(), fc::NotECCKey,
                     "Cannot get the public point from the key because it is not an ECC key");
    EXPECT_THROW_MSG(info.getECCCurve(), fc::NotECCKey,
                     "Cannot get the elliptic curve from the key because it is not an ECC key");
}

TEST(PublicKeyInfoOfCertificates, P256WithTheFacadesMessagesForRSA) {
    const X509Certificate certificate = certificateWith(KeyKind::P256);
    const PublicKeyInfo info = certificate.getPublicKeyInfo();
    EXPECT_EQ(info.getType(), fc::KeyType::ECC);
    EXPECT_EQ(info.getKeySize(), 256u);
    EXPECT_EQ(info.getECCCurve(), fc::EllipticCurve::Prime256v1);
    const ByteArray point = info.getECCPublicPoint();
    ASSERT_EQ(point.size(), 65u);
    EXPECT_EQ(point[0], 0x04);
    EXPECT_THROW_MSG(certificate.getPublicExponent(), fc::NotRSAKey,
                     "Cannot get the public exponent from the key because it is not an RSA key");
    EXPECT_THROW_MSG(certificate.getModulus(), fc::NotRSAKey,
                     "Cannot get the modulus from the key because it is not an RSA key");
}

TEST(PublicKeyInfoOfCertificates, Ed25519) {
    EVP_PKEY* key = testsupport::sharedKey(KeyKind::Ed25519);
    const PublicKeyInfo info = certificateWith(KeyKind::Ed25519).getPublicKeyInfo();
    EXPECT_EQ(info.getType(), fc::KeyType::ECC);
    EXPECT_EQ(info.getECCCurve(), fc::EllipticCurve::Ed25519);
    // OpenSSL 3.0 reports 256 bits for Ed25519 (other versions say 253): whatever it says.
    EXPECT_EQ(info.getKeySize(), static_cast<std::uint64_t>(EVP_PKEY_get_bits(key)));
    ByteArray raw(32);
    std::size_t length = raw.size();
    ASSERT_EQ(EVP_PKEY_get_raw_public_key(key, raw.data(), &length), 1);
    EXPECT_EQ(info.getECCPublicPoint(), raw);
}

TEST(PublicKeyInfoOfCertificates, ImplementationAccessorsNameTheCertificate) {
    const fc::X509CertificateImpl ec(testsupport::toDER(testsupport::ecPKI().leaf.get()));
    EXPECT_THROW_MSG(ec.getRSAPublicExponent(), fc::NotRSAKey,
                     "Cannot get public exponent because the certificate does not contain an "
                     "RSA key");
    EXPECT_THROW_MSG(ec.getRSAModulus(), fc::NotRSAKey,
                     "Cannot get modulus because the certificate does not contain an RSA key");
    const fc::X509CertificateImpl rsa(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    EXPECT_THROW_MSG(rsa.getECCCurve(), fc::CertificateException,
                     "Expected the EVP_PKEY to be ECC-based. It is not.");
}

TEST(PublicKeyInfoValue, ConstructorsRefuseEmptyPartsAndEqualityComparesEverything) {
    EXPECT_THROW_MSG(PublicKeyInfo(2048, ByteArray{}, ByteArray{}), fc::CertificateException,
                     "Empty public exponent in public key");
    EXPECT_THROW_MSG(PublicKeyInfo(2048, ByteArray{0x03}, ByteArray{}), fc::CertificateException,
                     "Empty modulus in public key");
    EXPECT_THROW_MSG(PublicKeyInfo(256, ByteArray{}, fc::EllipticCurve::Prime256v1),
                     fc::CertificateException, "Empty public point in public key");

    const ByteArray e{0x01, 0x00, 0x01};
    const PublicKeyInfo rsa(2048, e, ByteArray{0xc0, 0xff, 0xee});
    const PublicKeyInfo ec(256, ByteArray{0x04, 0x01}, fc::EllipticCurve::Prime256v1);
    EXPECT_EQ(rsa, PublicKeyInfo(2048, e, ByteArray{0xc0, 0xff, 0xee}));
    EXPECT_NE(rsa, PublicKeyInfo(2048, e, ByteArray{0xc0, 0xff, 0xef}));
    EXPECT_NE(rsa, PublicKeyInfo(3072, e, ByteArray{0xc0, 0xff, 0xee}));
    EXPECT_NE(rsa, PublicKeyInfo(2048, e, fc::EllipticCurve::Prime256v1));  // same bytes, ECC
    EXPECT_EQ(ec, PublicKeyInfo(256, ByteArray{0x04, 0x01}, fc::EllipticCurve::Prime256v1));
    EXPECT_NE(ec, PublicKeyInfo(256, ByteArray{0x04, 0x01}, fc::EllipticCurve::Ed25519));
}

}  // namespace
