#include <foundation/log/DiagnosticLogger.hpp>

#include <boost/log/attributes/constant.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sources/record_ostream.hpp>

#include <mutex>

namespace foundation::log {

template <typename CharT>
basic_diagnostic_logger<CharT>::basic_diagnostic_logger(string_type name,
                                                        std::uint32_t enabled_severities)
    : name_(std::move(name)), enabled_severities_(enabled_severities), severity_(0) {
    attributes_.insert(logger_attribute_name, boost::log::attributes::constant<string_type>(name_));
    attributes_.insert(severity_attribute_name, severity_);
}

template <typename CharT>
basic_diagnostic_logger<CharT>::~basic_diagnostic_logger() = default;

template <typename CharT>
std::uint32_t basic_diagnostic_logger<CharT>::enabled_severities() const noexcept {
    return enabled_severities_.load(std::memory_order_relaxed);
}

template <typename CharT>
void basic_diagnostic_logger<CharT>::set_enabled_severities(std::uint32_t mask) noexcept {
    enabled_severities_.store(mask, std::memory_order_relaxed);
}

template <typename CharT>
bool basic_diagnostic_logger<CharT>::is_enabled(severity_type severity) const noexcept {
    return severity <= max_severity && (enabled_severities() & (1u << severity)) != 0;
}

template <typename CharT>
boost::log::record basic_diagnostic_logger<CharT>::open_record(severity_type severity) {
    const auto core = boost::log::core::get();
    if (!core->get_logging_enabled()) return {};
    std::unique_lock lock(mutex_);
    severity_.set(severity);
    // The core freezes the attribute values into the record, so later changes of the shared
    // severity attribute do not reach records already opened.
    return core->open_record(attributes_);
}

template <typename CharT>
void basic_diagnostic_logger<CharT>::push_record(boost::log::record&& record,
                                                 const string_type& message) {
    {
        boost::log::basic_record_ostream<CharT> stream(record);
        stream << message;
        stream.flush();
    }
    boost::log::core::get()->push_record(std::move(record));
}

template class basic_diagnostic_logger<char>;

}  // namespace foundation::log
