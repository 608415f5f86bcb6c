#include "X509CertificateImpl.hpp"
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PublicKeyInfo.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>

#include <algorithm>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PublicKeyInfo;
using fc::X509Certificate;
using testsupport::KeyKind;

namespace {

X509Certificate certificateWith(KeyKind kind) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(kind);
    return X509Certificate(testsupport::makeCertificate(recipe).get());
}

// The key's bytes appear as they are in the certificate's SubjectPublicKeyInfo.
bool inDER(const X509Certificate& certificate, const ByteArray& bytes) {
    const ByteArray der = certificate.getAsBytes();
    return std::search(der.begin(), der.end(), bytes.begin(), bytes.end()) != der.end();
}

TEST(PublicKeyInfoOfCertificates, RSA) {
    const X509Certificate certificate = certificateWith(KeyKind::RSA2048);
    const PublicKeyInfo info = certificate.getPublicKeyInfo();
    EXPECT_EQ(info.getType(), fc::KeyType::RSA);
    EXPECT_EQ(info.getKeySize(), 2048u);
    EXPECT_EQ(certificate.getKeySize(), 2048u);
    EXPECT_EQ(certificate.getPublicExponent(), (ByteArray{0x01, 0x00, 0x01}));
    EXPECT_EQ(certificate.getModulus().size(), 256u);
    EXPECT_TRUE(inDER(certificate, certificate.getModulus()));
    EXPECT_THROW_MSG(info.getECCPublicPoint(), fc::NotECCKey,
                     "Cannot get the public point from the key because it is not an ECC key");
    EXPECT_THROW_MSG(info.getECCCurve(), fc::NotECCKey,
                     "Cannot get the elliptic curve from the key because it is not an ECC key");
}

TEST(PublicKeyInfoOfCertificates, P256AndEd25519) {
    const X509Certificate certificate = certificateWith(KeyKind::P256);
    const PublicKeyInfo info = certificate.getPublicKeyInfo();
    EXPECT_EQ(info.getType(), fc::KeyType::ECC);
    EXPECT_EQ(info.getKeySize(), 256u);
    EXPECT_EQ(info.getECCCurve(), fc::EllipticCurve::Prime256v1);
    const ByteArray point = info.getECCPublicPoint();
    ASSERT_EQ(point.size(), 65u);
    EXPECT_EQ(point[0], 0x04);
    EXPECT_TRUE(inDER(certificate, point));
    EXPECT_THROW_MSG(certificate.getPublicExponent(), fc::NotRSAKey,
                     "Cannot get the public exponent from the key because it is not an RSA key");
    EXPECT_THROW_MSG(certificate.getModulus(), fc::NotRSAKey,
                     "Cannot get the modulus from the key because it is not an RSA key");

    const X509Certificate ed25519 = certificateWith(KeyKind::Ed25519);
    const PublicKeyInfo edInfo = ed25519.getPublicKeyInfo();
    EXPECT_EQ(edInfo.getType(), fc::KeyType::ECC);
    EXPECT_EQ(edInfo.getECCCurve(), fc::EllipticCurve::Ed25519);
    // OpenSSL 3.0 reports 256 bits for Ed25519 (other versions say 253): whatever it says.
    EXPECT_EQ(
        edInfo.getKeySize(),
        static_cast<std::uint64_t>(EVP_PKEY_get_bits(testsupport::sharedKey(KeyKind::Ed25519))));
    EXPECT_EQ(edInfo.getECCPublicPoint().size(), 32u);  // the raw key
    EXPECT_TRUE(inDER(ed25519, edInfo.getECCPublicPoint()));
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
    const ByteArray e{0x01, 0x00, 0x01}, n{0xc0, 0xff, 0xee}, point{0x04, 0x01};
    EXPECT_THROW_MSG(PublicKeyInfo(2048, ByteArray{}, n), fc::CertificateException,
                     "Empty public exponent in public key");
    EXPECT_THROW_MSG(PublicKeyInfo(2048, e, ByteArray{}), fc::CertificateException,
                     "Empty modulus in public key");
    EXPECT_THROW_MSG(PublicKeyInfo(256, ByteArray{}, fc::EllipticCurve::Prime256v1),
                     fc::CertificateException, "Empty public point in public key");

    const PublicKeyInfo rsa(2048, e, n), ec(256, point, fc::EllipticCurve::Prime256v1);
    EXPECT_EQ(rsa, PublicKeyInfo(2048, e, n));
    EXPECT_NE(rsa, PublicKeyInfo(2048, e, ByteArray{0xc0, 0xff, 0xef}));
    EXPECT_NE(rsa, PublicKeyInfo(3072, e, n));
    EXPECT_NE(rsa, PublicKeyInfo(2048, e, fc::EllipticCurve::Prime256v1));  // same bytes, ECC
    EXPECT_EQ(ec, PublicKeyInfo(256, point, fc::EllipticCurve::Prime256v1));
    EXPECT_NE(ec, PublicKeyInfo(256, point, fc::EllipticCurve::Ed25519));
}

}  // namespace
