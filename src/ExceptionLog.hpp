#pragma once

namespace foundation::certificates::detail {

// Writes "Exception caught: " and the full diagnostic text of the exception being handled.
// Call only from inside a catch block.
void logCurrentException();

}  // namespace foundation::certificates::detail
