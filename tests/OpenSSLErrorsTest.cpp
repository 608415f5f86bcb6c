#include "OpenSSLErrors.hpp"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace detail = foundation::certificates::detail;

namespace {

void queueError(int library, int reason) { ERR_raise(library, reason); }

TEST(OpenSSLErrorReason, TakesTheEarliestError) {
    ERR_clear_error();
    queueError(ERR_LIB_PEM, PEM_R_NO_START_LINE);
    queueError(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    EXPECT_EQ(detail::getOpenSSLErrorReason(), "no start line");
    EXPECT_EQ(detail::getOpenSSLErrorReason(), "cert already in hash table");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(OpenSSLErrorReason, IsEmptyForAnEmptyQueue) {
    ERR_clear_error();
    EXPECT_EQ(detail::getOpenSSLErrorReason(), "");
}

TEST(OpenSSLErrorReason, IsEmptyForACodeWithoutText) {
    ERR_clear_error();
    queueError(ERR_LIB_USER, 4000);
    EXPECT_EQ(detail::getOpenSSLErrorReason(), "");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(LoaderErrorQueueGuard, StartsCleanAndLeavesTheQueueEmpty) {
    queueError(ERR_LIB_USER, 1);
    {
        const detail::LoaderErrorQueueGuard guard;
        EXPECT_EQ(ERR_peek_error(), 0u);
        queueError(ERR_LIB_PEM, PEM_R_NO_START_LINE);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(LoaderErrorQueueGuard, EmptiesTheQueueWhenAnExceptionLeaves) {
    try {
        const detail::LoaderErrorQueueGuard guard;
        queueError(ERR_LIB_PEM, PEM_R_NO_START_LINE);
        throw std::runtime_error("load failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(ScopedErrorQueueMark, KeepsTheCallersErrorsAndDropsItsOwn) {
    ERR_clear_error();
    queueError(ERR_LIB_USER, 7);
    const unsigned long callers = ERR_peek_error();
    try {
        const detail::ScopedErrorQueueMark mark;
        queueError(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
        throw std::runtime_error("store operation failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(ERR_get_error(), callers);
    EXPECT_EQ(ERR_get_error(), 0u);
}

}  // namespace
