#include "OpenSSLErrors.hpp"

#include <openssl/err.h>

namespace foundation::certificates::detail {

std::string getOpenSSLErrorReason() {
    const char* reason = ERR_reason_error_string(ERR_get_error());
    return reason != nullptr ? std::string(reason) : std::string();
}

LoaderErrorQueueGuard::LoaderErrorQueueGuard() noexcept { ERR_clear_error(); }
LoaderErrorQueueGuard::~LoaderErrorQueueGuard() { ERR_pop_to_mark(); }

ScopedErrorQueueMark::ScopedErrorQueueMark() noexcept { ERR_set_mark(); }
ScopedErrorQueueMark::~ScopedErrorQueueMark() { ERR_pop_to_mark(); }

}  // namespace foundation::certificates::detail
