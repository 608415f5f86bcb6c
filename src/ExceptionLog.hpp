// The library's one kind of log record.
#pragma once

#include <string>
#include <vector>

namespace foundation::certificates::detail {

// Writes "Exception caught: " and the full diagnostic text of the exception being handled.
// Call only from inside a catch block.
void logCurrentException();

// While one lives on a thread, the texts of the records that thread writes are also kept here,
// whether or not logging lets them through, so that the same records can be written again.
class LogRecordCapture {
  public:
    LogRecordCapture();
    ~LogRecordCapture();
    LogRecordCapture(const LogRecordCapture&) = delete;
    LogRecordCapture& operator=(const LogRecordCapture&) = delete;

    const std::vector<std::string>& records() const { return records_; }

  private:
    friend void logCurrentException();

    std::vector<std::string> records_;
    LogRecordCapture* previous_;
};

// Writes the records again, as logCurrentException wrote them.
void writeLogRecords(const std::vector<std::string>& records);

}  // namespace foundation::certificates::detail
