#include "support/Expectations.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using testsupport::KeyKind;
using testsupport::sharedKey;

namespace {

TEST(GetKeyType, ClassifiesTheSupportedFamilies) {
    for (const auto& [kind, type] :
         {std::pair{KeyKind::RSA1024, fc::KeyType::RSA}, std::pair{KeyKind::P256, fc::KeyType::ECC},
          std::pair{KeyKind::P384, fc::KeyType::ECC},
          std::pair{KeyKind::Ed25519, fc::KeyType::ECC}}) {
        EXPECT_EQ(fc::getKeyType(sharedKey(kind)), type) << testsupport::keyKindName(kind);
    }
}

TEST(GetKeyType, RejectsUnsupportedAlgorithms) {
    EXPECT_THROW_MSG(fc::getKeyType(nullptr), fc::CertificateException,
                     "Failed to sanity check EVP_PKEY. Argument is nullptr");
    EXPECT_THROW_MSG(fc::getKeyType(sharedKey(KeyKind::Ed448)), fc::UnsupportedEllipticCurve,
                     "Key uses Ed448, which is not currently supported");
    EXPECT_THROW_MSG(fc::getKeyType(sharedKey(KeyKind::RSAPSS)), fc::UnsupportedKeyType,
                     "Key is not currently supported. OpenSSL type id: 912");
    EXPECT_THROW_MSG(fc::getKeyType(sharedKey(KeyKind::X25519)), fc::UnsupportedKeyType,
                     "Key is not currently supported. OpenSSL type id: 1034");
    EXPECT_THROW_MSG(fc::getKeyType(sharedKey(KeyKind::DSA)), fc::UnsupportedKeyType,
                     "Key is not currently supported. OpenSSL type id: 116");
}

TEST(GetEllipticCurve, NamesTheTwoSupportedCurves) {
    EXPECT_EQ(fc::getEllipticCurve(sharedKey(KeyKind::P256)), fc::EllipticCurve::Prime256v1);
    EXPECT_EQ(fc::getEllipticCurve(sharedKey(KeyKind::Ed25519)), fc::EllipticCurve::Ed25519);
}

TEST(GetEllipticCurve, RejectsOtherKeys) {
    EXPECT_THROW_MSG(fc::getEllipticCurve(nullptr), fc::CertificateException,
                     "Failed to sanity check EVP_PKEY. Argument is nullptr");
    EXPECT_THROW_MSG(fc::getEllipticCurve(sharedKey(KeyKind::RSA1024)), fc::CertificateException,
                     "Expected the EVP_PKEY to be ECC-based. It is not.");
    EXPECT_THROW_MSG(fc::getEllipticCurve(sharedKey(KeyKind::P384)), fc::UnsupportedEllipticCurve,
                     "ECC-based key is not using supported ECC Curve. Curve: secp384r1");
    EXPECT_THROW_MSG(fc::getEllipticCurve(sharedKey(KeyKind::Secp256k1)),
                     fc::UnsupportedEllipticCurve,
                     "ECC-based key is not using supported ECC Curve. Curve: secp256k1");
    EXPECT_THROW_MSG(fc::getEllipticCurve(sharedKey(KeyKind::Ed448)), fc::UnsupportedEllipticCurve,
                     "Key uses Ed448, which is not currently supported");
}

// P-256's field and coefficients with 2G as generator: a valid group that OpenSSL cannot match to
// a named curve, so the key carries explicit parameters and no group name.
fc::EVP_PKEYUPtr makeExplicitCurveKey() {
    const fc::EC_GROUPUPtr named =
        fc::makeEC_GROUPUPtr(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    const fc::BN_CTXUPtr bnContext = fc::makeBN_CTXUPtr(BN_CTX_new());
    fc::BNUPtr p = fc::makeBNUPtr(BN_new()), a = fc::makeBNUPtr(BN_new()),
               b = fc::makeBNUPtr(BN_new());
    EXPECT_EQ(EC_GROUP_get_curve(named.get(), p.get(), a.get(), b.get(), bnContext.get()), 1);
    const fc::EC_POINTUPtr generator = fc::makeEC_POINTUPtr(EC_POINT_new(named.get()));
    EXPECT_EQ(EC_POINT_dbl(named.get(), generator.get(), EC_GROUP_get0_generator(named.get()),
                           bnContext.get()),
              1);
    const ByteArray generatorBytes = fc::EC_POINTToByteArray(generator.get(), named.get());
    const ByteArray publicBytes = generatorBytes;  // any point of the group will do

    std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                            OSSL_PARAM_BLD_free);
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_EC_FIELD_TYPE, "prime-field", 0);
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_EC_P, p.get());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_EC_A, a.get());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_EC_B, b.get());
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_EC_GENERATOR,
                                     generatorBytes.data(), generatorBytes.size());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_EC_ORDER,
                           EC_GROUP_get0_order(named.get()));
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_EC_COFACTOR, BN_value_one());
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, publicBytes.data(),
                                     publicBytes.size());
    const fc::OSSL_PARAMUPtr params =
        fc::makeOSSL_PARAMUPtr(OSSL_PARAM_BLD_to_param(builder.get()));

    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()), 1);
    return fc::makeEVP_PKEYUPtr(key);
}

TEST(GetEllipticCurve, RejectsExplicitCurveParameters) {
    const fc::EVP_PKEYUPtr key = makeExplicitCurveKey();
    ASSERT_TRUE(key);
    EXPECT_THROW_MSG(fc::getEllipticCurve(key.get()), fc::CertificateException,
                     "Expected EVP_PKEY to have group parameter since it's an EVP_PKEY_EC");
}

TEST(BnToByteArray, GivesTheBigEndianMagnitude) {
    const fc::BNUPtr number = fc::makeBNUPtr(BN_new());
    EXPECT_EQ(fc::bnToByteArray(number.get()), ByteArray{});  // zero
    BN_set_word(number.get(), 65537);
    EXPECT_EQ(fc::bnToByteArray(number.get()), (ByteArray{0x01, 0x00, 0x01}));
    BN_set_negative(number.get(), 1);
    EXPECT_EQ(fc::bnToByteArray(number.get()), (ByteArray{0x01, 0x00, 0x01}));
    BN_set_word(number.get(), 0x100);
    EXPECT_EQ(fc::bnToByteArray(number.get()), (ByteArray{0x01, 0x00}));
    EXPECT_THROW_MSG(fc::bnToByteArray(nullptr), fc::CertificateException,
                     "Failed to convert BIGNUM to ByteArray. Argument is nullptr.");
}

class EcPointConversion : public ::testing::Test {
  protected:
    fc::EC_GROUPUPtr group = fc::makeEC_GROUPUPtr(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
};

TEST_F(EcPointConversion, RoundTripsTheGenerator) {
    const ByteArray bytes =
        fc::EC_POINTToByteArray(EC_GROUP_get0_generator(group.get()), group.get());
    ASSERT_EQ(bytes.size(), 65u);
    EXPECT_EQ(bytes[0], 0x04);
    const fc::EC_POINTUPtr point = fc::ByteArrayToEC_POINT(bytes, group.get());
    EXPECT_EQ(EC_POINT_cmp(group.get(), point.get(), EC_GROUP_get0_generator(group.get()), nullptr),
              0);
}

TEST_F(EcPointConversion, AcceptsTheCompressedForm) {
    ByteArray compressed(33);
    ASSERT_EQ(EC_POINT_point2oct(group.get(), EC_GROUP_get0_generator(group.get()),
                                 POINT_CONVERSION_COMPRESSED, compressed.data(), compressed.size(),
                                 nullptr),
              33u);
    const fc::EC_POINTUPtr point = fc::ByteArrayToEC_POINT(compressed, group.get());
    EXPECT_EQ(fc::EC_POINTToByteArray(point.get(), group.get()),
              fc::EC_POINTToByteArray(EC_GROUP_get0_generator(group.get()), group.get()));
}

TEST_F(EcPointConversion, EncodesInfinityAsOneByte) {
    const fc::EC_POINTUPtr infinity = fc::makeEC_POINTUPtr(EC_POINT_new(group.get()));
    ASSERT_EQ(EC_POINT_set_to_infinity(group.get(), infinity.get()), 1);
    EXPECT_EQ(fc::EC_POINTToByteArray(infinity.get(), group.get()), ByteArray{0x00});
}

TEST_F(EcPointConversion, RejectsBadArguments) {
    EXPECT_THROW_MSG(fc::ByteArrayToEC_POINT({}, group.get()), fc::CertificateException,
                     "Failed to convert point from bytes to an EC_POINT");
    EXPECT_THROW_MSG(fc::ByteArrayToEC_POINT({0x04, 0x01, 0x02}, group.get()),
                     fc::CertificateException, "Failed to convert point from bytes to an EC_POINT");
    EXPECT_THROW_MSG(fc::ByteArrayToEC_POINT({0x04}, nullptr), fc::CertificateException,
                     "Failed to create EC_POINT from ByteArray. Argument is nullptr");
    EXPECT_THROW_MSG(fc::EC_POINTToByteArray(nullptr, group.get()), fc::CertificateException,
                     "Failed to create ByteArray from EC_POINT. Argument(s) are nullptr");
    EXPECT_THROW_MSG(fc::EC_POINTToByteArray(EC_GROUP_get0_generator(group.get()), nullptr),
                     fc::CertificateException,
                     "Failed to create ByteArray from EC_POINT. Argument(s) are nullptr");
}

}  // namespace
