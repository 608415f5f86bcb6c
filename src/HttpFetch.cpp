#include "HttpFetch.hpp"

#include "ValidationRecorder.hpp"

#include "CrlMessages.hpp"
#include "HttpResponseReader.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace foundation::certificates::detail {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;

constexpr int kMaxRedirects = 3;
constexpr std::size_t kReadSize = 16 * 1024;

bool startsWithIgnoringCase(const std::string& text, const char* prefix) {
    const std::size_t length = std::char_traits<char>::length(prefix);
    if (text.size() < length) return false;
    for (std::size_t i = 0; i < length; ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
    }
    return true;
}

// Spaces, controls and bytes above ASCII would let a URI write its own request lines.
bool requestSafe(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > 0x20 && byte < 0x7f;
    });
}

std::optional<HttpLocation> parseAuthority(const std::string& authority, std::string path) {
    if (authority.empty() || !requestSafe(authority) || !requestSafe(path) ||
        authority.find('@') != std::string::npos) {
        return std::nullopt;
    }
    HttpLocation location{authority, "80", authority, std::move(path)};
    std::string portText;
    if (authority.front() == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos) return std::nullopt;
        location.host = authority.substr(1, close - 1);
        const std::string rest = authority.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':') return std::nullopt;
            portText = rest.substr(1);
        }
    } else if (const std::size_t colon = authority.rfind(':'); colon != std::string::npos) {
        location.host = authority.substr(0, colon);
        portText = authority.substr(colon + 1);
    }
    if (location.host.empty()) return std::nullopt;
    if (!portText.empty() || authority.back() == ':') {
        if (portText.empty() || portText.size() > 5 ||
            !std::all_of(portText.begin(), portText.end(),
                         [](char c) { return c >= '0' && c <= '9'; })) {
            return std::nullopt;
        }
        const int port = std::stoi(portText);
        if (port < 1 || port > 65535) return std::nullopt;
        location.port = std::to_string(port);
    }
    return location;
}

// Where a redirect points: another http:// location, or the failure that refuses it.
std::optional<HttpLocation> redirectTarget(const HttpLocation& from,
                                           const std::optional<std::string>& target,
                                           std::string& failure) {
    failure = crlmessage::kInvalidRedirect;
    if (!target || target->empty()) return std::nullopt;
    if (startsWithIgnoringCase(*target, "https://")) {
        failure = crlmessage::kRedirectToHttps;
        return std::nullopt;
    }
    if (target->compare(0, 2, "//") == 0) return parseHttpUri("http:" + *target);
    if (target->front() == '/') return parseAuthority(from.authority, *target);
    return parseHttpUri(*target);
}

// Starts an operation and runs it until it completes or the deadline passes; then the socket
// is closed, which cancels it. False when the deadline passed.
template <typename Start>
bool runWithin(asio::io_context& io, tcp::socket& socket, const Deadline& deadline, Start&& start) {
    bool finished = false;
    start(finished);
    io.restart();
    if (deadline) {
        io.run_until(*deadline);
    } else {
        io.run();
    }
    if (finished) return true;
    boost::system::error_code ignored;
    socket.close(ignored);
    io.restart();
    io.run();  // lets the cancelled operation finish
    return false;
}

Deadline earlier(const Deadline& a, const Deadline& b) {
    if (!a) return b;
    if (!b) return a;
    return std::min(*a, *b);
}

struct Resolution {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::vector<tcp::endpoint> endpoints;
    boost::system::error_code error;
};

std::vector<tcp::endpoint> endpointsOf(const tcp::resolver::results_type& results) {
    std::vector<tcp::endpoint> endpoints;
    for (const auto& entry : results) endpoints.push_back(entry.endpoint());
    return endpoints;
}

// The system resolver cannot be interrupted, so under a deadline it runs on a thread of its
// own that the caller stops waiting for; the thread ends when the resolver answers.
bool resolve(asio::io_context& io, const std::string& host, const std::string& port,
             const Deadline& deadline, std::vector<tcp::endpoint>& endpoints,
             boost::system::error_code& error) {
    boost::system::error_code notAnAddress;
    const asio::ip::address address = asio::ip::make_address(host, notAnAddress);
    if (!notAnAddress) {
        endpoints = {tcp::endpoint(address, static_cast<unsigned short>(std::stoi(port)))};
        return true;
    }
    if (!deadline) {
        tcp::resolver resolver(io);
        endpoints = endpointsOf(resolver.resolve(host, port, error));
        return true;
    }
    const auto state = std::make_shared<Resolution>();
    std::thread([state, host, port] {
        asio::io_context own;
        tcp::resolver resolver(own);
        boost::system::error_code error;
        std::vector<tcp::endpoint> found = endpointsOf(resolver.resolve(host, port, error));
        const std::lock_guard<std::mutex> lock(state->mutex);
        state->endpoints = std::move(found);
        state->error = error;
        state->finished = true;
        state->done.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(state->mutex);
    if (!state->done.wait_until(lock, *deadline, [&] { return state->finished; })) return false;
    endpoints = state->endpoints;
    error = state->error;
    return true;
}

std::string request(const HttpLocation& location) {
    return "GET " + location.path + " HTTP/1.0\r\nHost: " + location.authority +
           "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

}  // namespace

std::optional<HttpLocation> parseHttpUri(const std::string& uri) {
    if (!startsWithIgnoringCase(uri, "http://")) return std::nullopt;
    const std::string rest = uri.substr(7);
    const std::size_t slash = rest.find('/');
    if (slash == std::string::npos) return parseAuthority(rest, "/");
    return parseAuthority(rest.substr(0, slash), rest.substr(slash));
}

FetchResult fetchHttp(const HttpLocation& start, const FetchLimits& limits) {
    asio::io_context io;
    Deadline exchangeDeadline;
    HttpLocation location = start;
    const auto timedOut = [&](const Deadline& connectDeadline) {
        // Whichever limit was the nearer one ran out.
        return FetchResult{
            {},
            exchangeDeadline && (!connectDeadline || *exchangeDeadline <= *connectDeadline)
                ? crlmessage::kResponseTimedOut
                : crlmessage::kConnectTimedOut};
    };

    for (int hop = 0;; ++hop) {
        const Deadline connectLimit = limits.connectTimeout.count() > 0
                                          ? Deadline(Clock::now() + limits.connectTimeout)
                                          : std::nullopt;
        const Deadline connectDeadline = earlier(connectLimit, exchangeDeadline);
        tcp::socket socket(io);

        std::vector<tcp::endpoint> endpoints;
        boost::system::error_code error;
        if (!resolve(io, location.host, location.port, connectDeadline, endpoints, error)) {
            return timedOut(connectLimit);
        }
        if (!error) {
            const bool connected = runWithin(io, socket, connectDeadline, [&](bool& finished) {
                asio::async_connect(socket, endpoints,
                                    [&](const boost::system::error_code& e, const tcp::endpoint&) {
                                        error = e;
                                        finished = true;
                                    });
            });
            if (!connected) return timedOut(connectLimit);
        }
        if (error) {
            return {{}, crlmessage::wrapped(crlmessage::kUnableToConnect + error.message() + "\n")};
        }
        if (!exchangeDeadline && limits.exchangeTimeout.count() > 0) {
            exchangeDeadline = Clock::now() + limits.exchangeTimeout;
        }

        const std::string text = request(location);
        const bool sent = runWithin(io, socket, exchangeDeadline, [&](bool& finished) {
            asio::async_write(socket, asio::buffer(text),
                              [&](const boost::system::error_code& e, std::size_t) {
                                  error = e;
                                  finished = true;
                              });
        });
        if (!sent) return {{}, crlmessage::kResponseTimedOut};

        // A peer that stopped listening may still have answered, so a failed send goes on to
        // read what is there.
        HttpResponseReader reader(limits.maxBodyBytes);
        std::array<char, kReadSize> buffer;
        while (reader.progress() == HttpResponseReader::Progress::NeedMore) {
            std::size_t received = 0;
            const bool read = runWithin(io, socket, exchangeDeadline, [&](bool& finished) {
                socket.async_read_some(asio::buffer(buffer),
                                       [&](const boost::system::error_code& e, std::size_t n) {
                                           error = e;
                                           received = n;
                                           finished = true;
                                       });
            });
            if (!read) return {{}, crlmessage::kResponseTimedOut};
            reader.feed(buffer.data(), received);
            if (error) reader.finish();
        }
        if (reader.progress() == HttpResponseReader::Progress::Failed) {
            return {{}, reader.failure()};
        }

        const unsigned status = reader.status();
        FetchRecord::noteHttpStatus(static_cast<int>(status));
        if (status == 301 || status == 302 || status == 307 || status == 308) {
            if (hop == kMaxRedirects) return {{}, crlmessage::kTooManyRedirects};
            std::string failure;
            const std::optional<HttpLocation> next =
                redirectTarget(location, reader.header("Location"), failure);
            if (!next) return {{}, failure};
            location = *next;
            continue;
        }
        if (status != 200) {
            return {{},
                    crlmessage::wrapped(crlmessage::kStatusCode + std::to_string(status) + "\n")};
        }
        if (reader.body().empty()) return {{}, crlmessage::wrapped(crlmessage::kEmptyBody)};
        return {reader.takeBody(), {}};
    }
}

std::optional<std::vector<std::string>> resolveAddresses(
    const std::string& host, const std::string& port,
    std::optional<std::chrono::milliseconds> within) {
    asio::io_context io;
    std::vector<tcp::endpoint> endpoints;
    boost::system::error_code error;
    if (!resolve(io, host, port, within ? Deadline(Clock::now() + *within) : std::nullopt,
                 endpoints, error)) {
        return std::nullopt;
    }
    std::vector<std::string> addresses;
    for (const tcp::endpoint& endpoint : endpoints) {
        addresses.push_back(endpoint.address().to_string() + ":" + std::to_string(endpoint.port()));
    }
    return addresses;
}

}  // namespace foundation::certificates::detail
