#include "support/Expectations.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PrivateKeyInfo.hpp>

#include <gtest/gtest.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::EllipticCurve;
using fc::PrivateKeyInfo;

namespace {

const ByteArray kBytes{0x01, 0x02, 0x03};

TEST(PrivateKeyInfo, FamiliesStayApart) {
    const PrivateKeyInfo rsa(kBytes);
    const PrivateKeyInfo ecc(kBytes, EllipticCurve::Ed25519);
    EXPECT_EQ(rsa.getRSAPrivateExponent(), kBytes);
    EXPECT_EQ(ecc.getECCPrivateInteger(), kBytes);
    EXPECT_EQ(ecc.getECCCurve(), EllipticCurve::Ed25519);
    EXPECT_THROW_MSG(rsa.getECCPrivateInteger(), fc::NotECCKey,
                     "Cannot get the private integer from the key because it is not an ECC key.");
    EXPECT_THROW_MSG(rsa.getECCCurve(), fc::NotECCKey,
                     "Cannot get the elliptic curve from the key because it is not an ECC key.");
    EXPECT_THROW_MSG(ecc.getRSAPrivateExponent(), fc::NotRSAKey,
                     "Cannot get the private exponent from the key because it is not an RSA key.");
    EXPECT_THROW_MSG(PrivateKeyInfo(ByteArray{}), fc::CertificateException,
                     "Empty private exponent in private key.");
    EXPECT_THROW_MSG(PrivateKeyInfo(ByteArray{}, EllipticCurve::Prime256v1),
                     fc::CertificateException, "Empty private integer in private key.");

    EXPECT_EQ(rsa, PrivateKeyInfo(kBytes));
    EXPECT_NE(rsa, PrivateKeyInfo(ByteArray{0x01, 0x02}));
    EXPECT_NE(rsa, ecc);
    EXPECT_EQ(ecc, PrivateKeyInfo(kBytes, EllipticCurve::Ed25519));
    EXPECT_NE(ecc, PrivateKeyInfo(kBytes, EllipticCurve::Prime256v1));
    // Assigning over a key of the other family and length replaces all of it (through the move).
    PrivateKeyInfo assigned(ByteArray(64, 0xAA));
    assigned = ecc;
    EXPECT_EQ(assigned, ecc);
}

}  // namespace
