#include <foundation/certificates/Logging.hpp>

#include "ExceptionLog.hpp"

#include <boost/exception/diagnostic_information.hpp>

namespace foundation::certificates {

namespace {
// Constructed during the library's static initialisation, destroyed at exit.
foundation::log::basic_diagnostic_logger<char> libraryLogger("foundation::certificates");
}  // namespace

foundation::log::basic_diagnostic_logger<char>& getLogger() { return libraryLogger; }

namespace detail {

namespace {
thread_local LogRecordCapture* activeCapture = nullptr;
}  // namespace

LogRecordCapture::LogRecordCapture() : previous_(activeCapture) { activeCapture = this; }

LogRecordCapture::~LogRecordCapture() { activeCapture = previous_; }

void logCurrentException() {
    const auto message = [] {
        return "Exception caught: " + boost::current_exception_diagnostic_information(true);
    };
    if (activeCapture == nullptr) {
        getLogger().write(kLogSeverityError, message);
        return;
    }
    activeCapture->records_.push_back(message());
    getLogger().write(kLogSeverityError, [] { return activeCapture->records_.back(); });
}

void writeLogRecords(const std::vector<std::string>& records) {
    for (const std::string& record : records) {
        getLogger().write(kLogSeverityError, [&record] { return record; });
    }
}

}  // namespace detail
}  // namespace foundation::certificates
