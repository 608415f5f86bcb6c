#include "support/TestLogging.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/make_shared.hpp>

namespace testsupport {

namespace flog = foundation::log;
namespace logging = boost::log;

void CapturingBackend::consume(const logging::record_view& record) {
    CapturedRecord captured;
    captured.logger = logging::extract<std::string>(flog::logger_attribute_name, record).get();
    captured.severity =
        logging::extract<flog::severity_type>(flog::severity_attribute_name, record).get();
    captured.message = *record[logging::expressions::smessage];
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(captured));
}

std::vector<CapturedRecord> CapturingBackend::records() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

LogCapture::LogCapture()
    : backend_(boost::make_shared<CapturingBackend>()),
      sink_(boost::make_shared<logging::sinks::synchronous_sink<CapturingBackend>>(backend_)) {
    logging::core::get()->add_sink(sink_);
}

LogCapture::~LogCapture() { logging::core::get()->remove_sink(sink_); }

}  // namespace testsupport
