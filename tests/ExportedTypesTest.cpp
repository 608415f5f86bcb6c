// Links the shared library as an application does. Catching by type across the library boundary
// works only if each exception's type information is exported from the library.
#include <foundation/certificates.hpp>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <type_traits>

namespace fc = foundation::certificates;

namespace {

template <typename Caught, typename Thrower>
bool catchesAs(Thrower&& thrower) {
    try {
        thrower();
    } catch (const Caught&) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

template <typename T>
class CertificateExceptionTypes : public ::testing::Test {};

using CertificateFamily =
    ::testing::Types<fc::CertificateException, fc::InvalidArgument, fc::NotImplemented,
                     fc::X509CertificateException, fc::X509CertificateChainException,
                     fc::PKCS7CertificateException, fc::PKCS12CertificateException,
                     fc::CertificateRevocationListException, fc::IncorrectPassphrase, fc::NotRSAKey,
                     fc::NotECCKey, fc::UnsupportedKeyType, fc::UnsupportedEllipticCurve>;
struct TypeNames {
    template <typename T>
    static std::string GetName(int index) {
        return std::to_string(index);
    }
};
TYPED_TEST_SUITE(CertificateExceptionTypes, CertificateFamily, TypeNames);

TYPED_TEST(CertificateExceptionTypes, CaughtByOwnTypeAndEveryBase) {
    const auto thrower = [] { throw TypeParam("message of " + std::to_string(sizeof(TypeParam))); };
    EXPECT_TRUE(catchesAs<TypeParam>(thrower));
    EXPECT_TRUE(catchesAs<fc::CertificateException>(thrower));
    EXPECT_TRUE(catchesAs<std::runtime_error>(thrower));
    EXPECT_FALSE(catchesAs<fc::TrustStoreException>(thrower));
    try {
        thrower();
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), ("message of " + std::to_string(sizeof(TypeParam))).c_str());
    }
}

TEST(ExportedTypes, TrustStoreExceptionIsOutsideTheCertificateFamily) {
    const auto thrower = [] { throw fc::TrustStoreException("store"); };
    EXPECT_TRUE(catchesAs<fc::TrustStoreException>(thrower));
    EXPECT_TRUE(catchesAs<std::runtime_error>(thrower));
    EXPECT_FALSE(catchesAs<fc::CertificateException>(thrower));
    static_assert(!std::is_base_of_v<fc::CertificateException, fc::TrustStoreException>);
    static_assert(std::is_base_of_v<fc::CertificateException, fc::IncorrectPassphrase>);
    static_assert(!std::is_base_of_v<fc::PKCS12CertificateException, fc::IncorrectPassphrase>);
}

// Thrown inside the library, caught here.
TEST(ExportedTypes, LibraryThrowsAreCaughtByTheirBases) {
    EXPECT_TRUE(catchesAs<fc::InvalidArgument>([] { fc::hexDecode("abc"); }));
    EXPECT_TRUE(catchesAs<fc::CertificateException>([] { fc::hexDecode("zz"); }));
    EXPECT_TRUE(catchesAs<fc::CertificateException>([] { fc::makeEC_POINTUPtr(nullptr); }));

    const fc::EVP_PKEYUPtr ed448 =
        fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"));
    ASSERT_TRUE(ed448);
    EXPECT_TRUE(catchesAs<fc::UnsupportedEllipticCurve>([&] { fc::getKeyType(ed448.get()); }));
    EXPECT_TRUE(catchesAs<fc::CertificateException>([&] { fc::getKeyType(ed448.get()); }));

    const fc::EVP_PKEYUPtr x25519 =
        fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
    ASSERT_TRUE(x25519);
    EXPECT_TRUE(catchesAs<fc::UnsupportedKeyType>([&] { fc::getKeyType(x25519.get()); }));

    EXPECT_TRUE(catchesAs<fc::CertificateRevocationListException>(
        [] { fc::CertificateRevocationList(std::string("not a list")); }));
}

}  // namespace
