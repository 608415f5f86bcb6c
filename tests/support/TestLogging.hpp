// Captures the records of every Boost.Log logger while an object of LogCapture lives.
#pragma once

#include <foundation/log/DiagnosticLogger.hpp>

#include <boost/log/core/record_view.hpp>
#include <boost/log/expressions/filter.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/shared_ptr.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

struct CapturedRecord {
    std::string logger;
    foundation::log::severity_type severity = 0;
    std::string message;
};

class CapturingBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
  public:
    void consume(const boost::log::record_view& record);
    std::vector<CapturedRecord> records() const;

  private:
    mutable std::mutex mutex_;
    std::vector<CapturedRecord> records_;
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedRecord> records() const { return backend_->records(); }
    void setFilter(const boost::log::filter& filter) { sink_->set_filter(filter); }

  private:
    boost::shared_ptr<CapturingBackend> backend_;
    boost::shared_ptr<boost::log::sinks::synchronous_sink<CapturingBackend>> sink_;
};

}  // namespace testsupport
