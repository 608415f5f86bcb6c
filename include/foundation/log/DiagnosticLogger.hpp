// A named diagnostic logger on top of Boost.Log.
//
// Records reach the Boost.Log core carrying two attributes, so an application routes and
// formats them with ordinary Boost.Log sinks and filters:
//   "Logger"    std::string            the logger's name
//   "Severity"  foundation::log::severity_type (0 to 31)
//
// Example: keep only this library's records of severity 16 and above.
//   namespace expr = boost::log::expressions;
//   sink->set_filter(expr::attr<std::string>("Logger") == "foundation::certificates" &&
//                    expr::attr<foundation::log::severity_type>("Severity") >= 16);
#pragma once

#include <foundation/certificates/Export.hpp>

#include <boost/log/attributes/attribute_set.hpp>
#include <boost/log/attributes/mutable_constant.hpp>
#include <boost/log/core/record.hpp>

#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include <string>

namespace foundation::log {

using severity_type = std::uint32_t;

// Severity values index the bits of a 32-bit enabled-severity mask.
inline constexpr severity_type max_severity = 31;
inline constexpr std::uint32_t all_severities = 0xFFFFFFFFu;

inline constexpr char logger_attribute_name[] = "Logger";
inline constexpr char severity_attribute_name[] = "Severity";

template <typename CharT>
class basic_diagnostic_logger {
  public:
    using char_type = CharT;
    using string_type = std::basic_string<CharT>;

    explicit basic_diagnostic_logger(string_type name,
                                     std::uint32_t enabled_severities = all_severities);
    ~basic_diagnostic_logger();

    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    const string_type& name() const noexcept { return name_; }

    std::uint32_t enabled_severities() const noexcept;
    void set_enabled_severities(std::uint32_t mask) noexcept;

    // False for severities outside 0..31 and for those whose mask bit is clear.
    bool is_enabled(severity_type severity) const noexcept;

    // Opens a record with this logger's attributes and the given severity. Returns an empty
    // record when logging is disabled in the core or the core's filter rejects it.
    // The severity attribute is shared, so it is set and the record opened under the write lock.
    boost::log::record open_record(severity_type severity);

    // Streams the message into an open record and hands it to the core.
    void push_record(boost::log::record&& record, const string_type& message);

    // The whole sequence: mask test, core test, open, stream, push. The message is produced
    // only once a record is open, so disabled logging costs no formatting.
    template <typename MessageFn>
    void write(severity_type severity, MessageFn&& make_message) {
        if (!is_enabled(severity)) return;
        boost::log::record record = open_record(severity);
        if (!record) return;
        push_record(std::move(record), make_message());
    }

  private:
    string_type name_;
    std::atomic<std::uint32_t> enabled_severities_;
    std::shared_mutex mutex_;  // guards the severity attribute while a record is opened
    boost::log::attribute_set attributes_;
    boost::log::attributes::mutable_constant<severity_type> severity_;
};

extern template class FOUNDATION_CERTIFICATES_EXPORT basic_diagnostic_logger<char>;

using diagnostic_logger = basic_diagnostic_logger<char>;

}  // namespace foundation::log
