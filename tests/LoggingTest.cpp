#include "ExceptionLog.hpp"
#include "support/TestLogging.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/Logging.hpp>

#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace fc = foundation::certificates;
namespace flog = foundation::log;
namespace logging = boost::log;

namespace {

using testsupport::CapturedRecord;

class LoggingTest : public ::testing::Test {
  protected:
    void TearDown() override {
        logging::core::get()->set_logging_enabled(true);
        fc::getLogger().set_enabled_severities(flog::all_severities);
    }
    std::vector<CapturedRecord> records() const { return capture_.records(); }

    testsupport::LogCapture capture_;
};

void logTrustStoreFailure() {
    try {
        throw fc::TrustStoreException("Failed to add certificate to store");
    } catch (...) {
        fc::detail::logCurrentException();
    }
}

TEST_F(LoggingTest, LibraryLoggerIsNamed) {
    EXPECT_EQ(fc::getLogger().name(), "foundation::certificates");
    EXPECT_EQ(&fc::getLogger(), &fc::getLogger());
}

TEST_F(LoggingTest, CaughtExceptionBecomesOneRecord) {
    logTrustStoreFailure();
    const auto captured = records();
    ASSERT_EQ(captured.size(), 1u);
    EXPECT_EQ(captured[0].logger, "foundation::certificates");
    EXPECT_EQ(captured[0].severity, 16u);
    EXPECT_EQ(captured[0].message,
              "Exception caught: Dynamic exception type: "
              "foundation::certificates::TrustStoreException\n"
              "std::exception::what: Failed to add certificate to store\n");
}

TEST_F(LoggingTest, ClearedSeverityBitWritesNothingAndFormatsNothing) {
    fc::getLogger().set_enabled_severities(flog::all_severities & ~(1u << 16));
    bool formatted = false;
    fc::getLogger().write(16, [&] {
        formatted = true;
        return std::string("x");
    });
    logTrustStoreFailure();
    EXPECT_FALSE(formatted);
    EXPECT_TRUE(records().empty());

    fc::getLogger().write(15, [] { return std::string("other severities still pass"); });
    EXPECT_EQ(records().size(), 1u);
}

TEST_F(LoggingTest, DisabledCoreWritesNothing) {
    logging::core::get()->set_logging_enabled(false);
    logTrustStoreFailure();
    EXPECT_TRUE(records().empty());
}

TEST_F(LoggingTest, FilteredRecordIsNotOpened) {
    capture_.setFilter(
        logging::expressions::attr<flog::severity_type>(flog::severity_attribute_name) < 16u);
    logTrustStoreFailure();
    EXPECT_TRUE(records().empty());
}

TEST_F(LoggingTest, OutOfRangeSeverityIsNeverEnabled) {
    EXPECT_FALSE(fc::getLogger().is_enabled(32));
    EXPECT_TRUE(fc::getLogger().is_enabled(31));
}

// A record keeps the severity it was opened with even when the shared attribute changes before
// it is pushed.
TEST_F(LoggingTest, SeverityIsFrozenWhenTheRecordOpens) {
    flog::diagnostic_logger logger("test");
    logging::record first = logger.open_record(16);
    logging::record second = logger.open_record(3);
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    logger.push_record(std::move(second), "second");
    logger.push_record(std::move(first), "first");
    const auto captured = records();
    ASSERT_EQ(captured.size(), 2u);
    EXPECT_EQ(captured[0].message, "second");
    EXPECT_EQ(captured[0].severity, 3u);
    EXPECT_EQ(captured[1].message, "first");
    EXPECT_EQ(captured[1].severity, 16u);
    EXPECT_EQ(captured[1].logger, "test");
}

using LoggingConcurrency = LoggingTest;

TEST_F(LoggingConcurrency, WritersKeepTheirOwnSeverity) {
    flog::diagnostic_logger logger("concurrent");
    std::vector<std::thread> threads;
    for (flog::severity_type severity = 0; severity < 8; ++severity) {
        threads.emplace_back([&logger, severity] {
            for (int i = 0; i < 200; ++i) {
                logger.write(severity, [severity] { return std::to_string(severity); });
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto captured = records();
    ASSERT_EQ(captured.size(), 8u * 200u);
    for (const auto& record : captured) {
        EXPECT_EQ(record.message, std::to_string(record.severity));
    }
}

}  // namespace
