// Real HTTP servers on loopback addresses, started and stopped by the tests that use them.
//
// Default downloads fetch revocation lists from port 80 only, so each fixture binds 127.0.0.N:80
// with an N of its own, which keeps parallel test runs apart. Binding port 80 needs privileges;
// when a server cannot bind, `failure()` says why and the test skips. Downloads under fetch
// settings honour the URI's port, so their servers take any free port.
#pragma once

#include <foundation/certificates/Types.hpp>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// Python's standard HTTP server over a temporary directory: serves files put into it.
class StaticHttpServer {
  public:
    explicit StaticHttpServer(std::string address);
    ~StaticHttpServer();
    StaticHttpServer(const StaticHttpServer&) = delete;
    StaticHttpServer& operator=(const StaticHttpServer&) = delete;

    bool running() const { return pid_ > 0; }
    const std::string& failure() const { return failure_; }

    // Serves the bytes under the path ("dir/name.crl").
    void put(const std::string& path, const foundation::certificates::ByteArray& content);
    void put(const std::string& path, const std::string& content);
    // "http://<address>/<path>"
    std::string url(const std::string& path) const;
    // The request paths served so far, in order (from the server's log).
    std::vector<std::string> requestedPaths() const;

  private:
    std::string address_;
    std::filesystem::path directory_;
    int pid_ = -1;
    std::string failure_;
};

// A server that answers every connection with fixed bytes, or misbehaves in one of the ways a
// download must survive. Every way ends by itself: when the server stops, or at the latest after
// kMisbehaviourLimit.
class ScriptedHttpServer {
  public:
    enum class Mode {
        Respond,      // the response (by request path, see respond()), then close
        NeverAnswer,  // reads the request, keeps the connection open, says nothing
        NeverAccept,  // its backlog is full, so connections are never even established
        Drip,         // the response one byte at a time, kDripInterval apart
        Endless,      // a 200 header, then body bytes until the client gives up
    };
    static constexpr std::chrono::milliseconds kDripInterval{50};
    static constexpr std::chrono::seconds kMisbehaviourLimit{30};

    // Port 0 picks a free one (no privileges needed); see url().
    ScriptedHttpServer(std::string address, std::string response, Mode mode = Mode::Respond,
                       unsigned short port = 80);
    ~ScriptedHttpServer();
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    bool running() const { return listener_ >= 0; }
    const std::string& failure() const { return failure_; }
    unsigned short port() const { return port_; }
    // "http://<address>[:<port>]/<path>", the port only when it is not 80.
    std::string url(const std::string& path) const;
    // Answers requests for the path ("/a.crl") with this response instead.
    void respond(const std::string& path, std::string response);
    // Waits this long before each answer.
    void delay(std::chrono::milliseconds pause);
    // The raw requests received so far (up to the blank line).
    std::vector<std::string> requests() const;

  private:
    void serve();
    bool stopping(std::chrono::milliseconds wait) const;
    void send(int connection, const std::string& bytes) const;
    void stream(int connection) const;

    std::string address_;
    std::string response_;
    Mode mode_;
    unsigned short port_ = 0;
    int listener_ = -1;
    int stopPipe_[2] = {-1, -1};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> byPath_;
    std::chrono::milliseconds delay_{0};
    std::vector<std::string> requests_;
    std::vector<int> heldConnections_;
    std::vector<int> fillers_;
    std::string failure_;
};

// Whether 127.0.0.N:80 can be bound here; the reason when not.
std::string cannotBindPort80(const std::string& address);

// Files of this process's revocation-list downloads that were left behind.
std::vector<std::string> leftoverCrlFiles();

}  // namespace testsupport
