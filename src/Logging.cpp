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

void logCurrentException() {
    getLogger().write(kLogSeverityError, [] {
        return "Exception caught: " + boost::current_exception_diagnostic_information(true);
    });
}

}  // namespace detail
}  // namespace foundation::certificates
