// The library's one logger, named "foundation::certificates".
//
// The library writes a single kind of record: when system certificates are imported without
// throwing and one of them is rejected, a record "Exception caught: " plus the diagnostic text
// of the exception, at severity 16. Route it with Boost.Log sinks (see DiagnosticLogger.hpp).
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/log/DiagnosticLogger.hpp>

namespace foundation::certificates {

// Severity of the records this library writes.
inline constexpr foundation::log::severity_type kLogSeverityError = 16;

// The process-wide logger, constructed when the library is loaded. Safe from any thread.
FOUNDATION_CERTIFICATES_EXPORT foundation::log::basic_diagnostic_logger<char>& getLogger();

}  // namespace foundation::certificates
