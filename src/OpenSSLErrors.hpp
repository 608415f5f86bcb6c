// OpenSSL error-queue discipline, written once.
//
// Loaders start from a clean queue and leave it empty on every exit; the trust store keeps
// whatever the caller had queued. Both are guards made on an operation's first line, so the
// rule holds on exceptions too.
#pragma once

#include <string>

namespace foundation::certificates::detail {

// Removes the earliest queued error of this thread and returns OpenSSL's reason text for it,
// or the empty string when the queue is empty or OpenSSL has no text for the code.
std::string getOpenSSLErrorReason();

// Loader pattern: clears the queue on entry; on exit pops to a mark that was never set, which
// empties the queue.
class LoaderErrorQueueGuard {
  public:
    LoaderErrorQueueGuard() noexcept;
    ~LoaderErrorQueueGuard();
    LoaderErrorQueueGuard(const LoaderErrorQueueGuard&) = delete;
    LoaderErrorQueueGuard& operator=(const LoaderErrorQueueGuard&) = delete;
};

// Scoped pattern: errors raised inside the scope are discarded, the caller's earlier ones stay.
class ScopedErrorQueueMark {
  public:
    ScopedErrorQueueMark() noexcept;
    ~ScopedErrorQueueMark();
    ScopedErrorQueueMark(const ScopedErrorQueueMark&) = delete;
    ScopedErrorQueueMark& operator=(const ScopedErrorQueueMark&) = delete;
};

}  // namespace foundation::certificates::detail
