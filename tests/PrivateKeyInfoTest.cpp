#include "support/Expectations.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PrivateKeyInfo.hpp>

#include <gtest/gtest.h>

#include <utility>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::EllipticCurve;
using fc::PrivateKeyInfo;

namespace {

const ByteArray kBytes{0x01, 0x02, 0x03};

TEST(PrivateKeyInfo, RSAGivesOnlyTheExponent) {
    const PrivateKeyInfo info(kBytes);
    EXPECT_EQ(info.getType(), fc::KeyType::RSA);
    EXPECT_EQ(info.getRSAPrivateExponent(), kBytes);
    EXPECT_THROW_MSG(info.getECCPrivateInteger(), fc::NotECCKey,
                     "Cannot get the private integer from the key because it is not an ECC key.");
    EXPECT_THROW_MSG(info.getECCCurve(), fc::NotECCKey,
                     "Cannot get the elliptic curve from the key because it is not an ECC key.");
}

TEST(PrivateKeyInfo, ECCGivesOnlyIntegerAndCurve) {
    const PrivateKeyInfo info(kBytes, EllipticCurve::Ed25519);
    EXPECT_EQ(info.getType(), fc::KeyType::ECC);
    EXPECT_EQ(info.getECCPrivateInteger(), kBytes);
    EXPECT_EQ(info.getECCCurve(), EllipticCurve::Ed25519);
    EXPECT_THROW_MSG(info.getRSAPrivateExponent(), fc::NotRSAKey,
                     "Cannot get the private exponent from the key because it is not an RSA key.");
}

TEST(PrivateKeyInfo, EmptyMaterialIsRefused) {
    EXPECT_THROW_MSG(PrivateKeyInfo(ByteArray{}), fc::CertificateException,
                     "Empty private exponent in private key.");
    EXPECT_THROW_MSG(PrivateKeyInfo(ByteArray{}, EllipticCurve::Prime256v1),
                     fc::CertificateException, "Empty private integer in private key.");
}

TEST(PrivateKeyInfo, Equality) {
    const PrivateKeyInfo rsa(kBytes);
    const PrivateKeyInfo p256(kBytes, EllipticCurve::Prime256v1);
    EXPECT_EQ(rsa, PrivateKeyInfo(kBytes));
    EXPECT_NE(rsa, PrivateKeyInfo(ByteArray{0x01, 0x02}));
    EXPECT_NE(rsa, PrivateKeyInfo(ByteArray{0x01, 0x02, 0x04}));
    // Same bytes, different family.
    EXPECT_NE(rsa, p256);
    EXPECT_NE(p256, rsa);
    EXPECT_EQ(p256, PrivateKeyInfo(kBytes, EllipticCurve::Prime256v1));
    EXPECT_NE(p256, PrivateKeyInfo(kBytes, EllipticCurve::Ed25519));
}

TEST(PrivateKeyInfo, CopiesAndMovesKeepTheWholeValue) {
    const PrivateKeyInfo original(kBytes, EllipticCurve::Ed25519);
    PrivateKeyInfo copy(original);
    EXPECT_EQ(copy, original);

    // Assigning over a key of the other family and a different length replaces all of it.
    PrivateKeyInfo assigned(ByteArray(64, 0xAA));
    assigned = original;
    EXPECT_EQ(assigned, original);
    EXPECT_EQ(assigned.getECCPrivateInteger(), kBytes);

    PrivateKeyInfo moved(std::move(copy));
    EXPECT_EQ(moved, original);
    PrivateKeyInfo moveAssigned(ByteArray{0x05});
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned, original);
    EXPECT_EQ(moveAssigned.getType(), fc::KeyType::ECC);
}

}  // namespace
