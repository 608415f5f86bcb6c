#include "support/Expectations.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <atomic>
#include <functional>

namespace fc = foundation::certificates;

namespace {

TEST(OpenSSLHandles, PermissiveFactoriesWrapNull) {
    EXPECT_FALSE(fc::makeBIOUPtr(nullptr));
    EXPECT_FALSE(fc::makeX509UPtr(nullptr));
    EXPECT_FALSE(fc::makeX509CRLUPtr(nullptr));
    EXPECT_FALSE(fc::makeEVP_PKEYUPtr(nullptr));
    EXPECT_FALSE(fc::makeBNUPtr(nullptr));
    EXPECT_FALSE(fc::makeX509SPtr(nullptr));
    EXPECT_FALSE(fc::makeX509StackUPtr(nullptr));
    EXPECT_FALSE(fc::makeX509INFOStackUPtr(nullptr));
}

TEST(OpenSSLHandles, StrictFactoriesRefuseNull) {
    EXPECT_THROW_MSG(fc::makeOSSL_PARAMUPtr(nullptr), fc::CertificateException,
                     "Fail to create OSSL_PARAMUPtr; the given raw pointer is NULL");
    EXPECT_THROW_MSG(fc::makeEC_GROUPUPtr(nullptr), fc::CertificateException,
                     "Fail to create EC_GROUPUPtr; the given raw pointer is NULL");
    EXPECT_THROW_MSG(fc::makeEC_POINTUPtr(nullptr), fc::CertificateException,
                     "Fail to create EC_POINTUPtr; the given raw pointer is NULL");
    EXPECT_THROW_MSG(fc::makeBN_CTXUPtr(nullptr), fc::CertificateException,
                     "Fail to create BN_CTXUPtr; the given raw pointer is NULL");
}

TEST(OpenSSLHandles, NumbersAreWipedWhenFreed) {
    EXPECT_EQ(fc::makeBNUPtr(BN_new()).get_deleter(), &BN_clear_free);
}

// Counts frees of X509 objects through an ex_data slot whose free callback OpenSSL calls when
// the certificate is destroyed.
std::atomic<int> freedCertificates{0};

void countFree(void*, void*, CRYPTO_EX_DATA*, int, long, void*) { ++freedCertificates; }

X509* newCountedCertificate() {
    static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, countFree);
    X509* certificate = X509_new();
    X509_set_ex_data(certificate, index, nullptr);
    return certificate;
}

TEST(OpenSSLHandles, StackHandleFreesItsElements) {
    freedCertificates = 0;
    {
        fc::X509StackUPtr stack = fc::makeX509StackUPtr(sk_X509_new_null());
        ASSERT_EQ(sk_X509_push(stack.get(), newCountedCertificate()), 1);
        ASSERT_EQ(sk_X509_push(stack.get(), newCountedCertificate()), 2);
    }
    EXPECT_EQ(freedCertificates, 2);
}

TEST(OpenSSLHandles, SharedCertificateIsFreedByTheLastOwner) {
    freedCertificates = 0;
    fc::X509SPtr first = fc::makeX509SPtr(newCountedCertificate());
    fc::X509SPtr second = first;
    first.reset();
    EXPECT_EQ(freedCertificates, 0);
    second.reset();
    EXPECT_EQ(freedCertificates, 1);
}

TEST(OpenSSLHandles, InfoStackHandleFreesItsRecords) {
    freedCertificates = 0;
    {
        fc::X509INFOStackUPtr stack = fc::makeX509INFOStackUPtr(sk_X509_INFO_new_null());
        X509_INFO* info = X509_INFO_new();
        info->x509 = newCountedCertificate();
        ASSERT_EQ(sk_X509_INFO_push(stack.get(), info), 1);
    }
    EXPECT_EQ(freedCertificates, 1);
}

}  // namespace
