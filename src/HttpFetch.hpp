// One bounded HTTP GET of a revocation list: deadlines on connecting and on the exchange, a cap
// on the body, redirects between http:// locations, chunked bodies.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

struct HttpLocation {
    std::string host;       // as resolved: without the brackets of an IPv6 literal
    std::string port;       // "80" unless the URI names one
    std::string authority;  // as written in the URI; the Host header
    std::string path;       // starts with "/"
};

// An http:// URI, the scheme in any case, with an optional port. Nothing for other schemes,
// bad ports, or bytes that have no place in a request line.
std::optional<HttpLocation> parseHttpUri(const std::string& uri);

struct FetchLimits {
    std::chrono::milliseconds connectTimeout{0};   // 0: no limit
    std::chrono::milliseconds exchangeTimeout{0};  // 0: no limit
    std::size_t maxBodyBytes = 0;                  // 0: no limit
};

struct FetchResult {
    std::string body;     // when failure is empty
    std::string failure;  // the download message
};

// Never throws for what the network or the server does; the failure says what happened.
// Redirects count against the same deadlines and cap: the exchange deadline starts with the
// first connection and covers every hop.
FetchResult fetchHttp(const HttpLocation& location, const FetchLimits& limits);

// The host's addresses as "address:port" text, resolved as fetchHttp resolves them (empty when
// the name is unknown); nothing when the limit passes first.
std::optional<std::vector<std::string>> resolveAddresses(
    const std::string& host, const std::string& port,
    std::optional<std::chrono::milliseconds> within);

}  // namespace foundation::certificates::detail
