#include "support/TestHttpServers.hpp"

#include "support/TemporaryFileProbe.hpp"

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

namespace fs = std::filesystem;

namespace {

sockaddr_in socketAddress(const std::string& address, unsigned short port) {
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr);
    return socketAddress;
}

sockaddr_in port80(const std::string& address) { return socketAddress(address, 80); }

std::string requestPath(const std::string& request) {
    const std::size_t start = request.find(' ');
    const std::size_t end = request.find(' ', start + 1);
    return start == std::string::npos || end == std::string::npos
               ? std::string()
               : request.substr(start + 1, end - start - 1);
}

bool accepting(const std::string& address) {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in target = port80(address);
    const bool connected =
        connect(probe, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0;
    close(probe);
    return connected;
}

fs::path makeTemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "foundation-http-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

}  // namespace

std::string cannotBindPort80(const std::string& address) {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in target = port80(address);
    std::string reason;
    if (bind(probe, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        reason = "cannot bind " + address + ":80 (" + std::strerror(errno) +
                 "); revocation tests need to run as root";
    }
    close(probe);
    return reason;
}

std::vector<std::string> leftoverCrlFiles() { return leftoverTemporaryFiles("/tmp/certCRL_"); }

StaticHttpServer::StaticHttpServer(std::string address) : address_(std::move(address)) {
    failure_ = cannotBindPort80(address_);
    if (!failure_.empty()) return;
    directory_ = makeTemporaryDirectory();
    fs::create_directories(directory_ / "root");
    const std::string root = (directory_ / "root").string();
    const std::string log = (directory_ / "server.log").string();

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execlp("python3", "python3", "-u", "-m", "http.server", "--bind", address_.c_str(),
               "--directory", root.c_str(), "80", static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (!accepting(address_)) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_ ||
            std::chrono::steady_clock::now() > deadline) {
            std::ifstream in(log);
            failure_ = "the Python HTTP server did not start: " +
                       std::string(std::istreambuf_iterator<char>(in), {});
            if (waitpid(pid_, &status, WNOHANG) == 0) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
            }
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

StaticHttpServer::~StaticHttpServer() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    if (!directory_.empty()) {
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }
}

void StaticHttpServer::put(const std::string& path,
                           const foundation::certificates::ByteArray& content) {
    put(path, std::string(content.begin(), content.end()));
}

void StaticHttpServer::put(const std::string& path, const std::string& content) {
    const fs::path file = directory_ / "root" / path;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

std::string StaticHttpServer::url(const std::string& path) const {
    return "http://" + address_ + "/" + path;
}

std::vector<std::string> StaticHttpServer::requestedPaths() const {
    std::ifstream in(directory_ / "server.log");
    const std::regex request("\"GET ([^ ]*) HTTP");
    std::vector<std::string> paths;
    std::string line;
    while (std::getline(in, line)) {
        std::smatch match;
        if (std::regex_search(line, match, request)) paths.push_back(match[1].str());
    }
    return paths;
}

ScriptedHttpServer::ScriptedHttpServer(std::string address, std::string response, Mode mode,
                                       unsigned short port)
    : address_(std::move(address)), response_(std::move(response)), mode_(mode), port_(port) {
    if (port_ == 80) {
        failure_ = cannotBindPort80(address_);
        if (!failure_.empty()) return;
    }
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in target = socketAddress(address_, port_);
    socklen_t length = sizeof target;
    sockaddr_in bound{};
    // A backlog of one is full after the fillers below: further connections are never set up.
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0 ||
        listen(listener_, mode_ == Mode::NeverAccept ? 0 : 16) != 0 || pipe(stopPipe_) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        failure_ = std::string("cannot listen: ") + std::strerror(errno);
        close(listener_);
        listener_ = -1;
        return;
    }
    port_ = ntohs(bound.sin_port);
    if (mode_ == Mode::NeverAccept) {
        for (int i = 0; i < 2; ++i) {
            const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            connect(filler, reinterpret_cast<const sockaddr*>(&bound), sizeof bound);
            fillers_.push_back(filler);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    thread_ = std::thread([this] { serve(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    if (listener_ < 0) return;
    const char stop = 's';
    [[maybe_unused]] const ssize_t written = write(stopPipe_[1], &stop, 1);
    thread_.join();
    for (const int connection : heldConnections_) close(connection);
    for (const int filler : fillers_) close(filler);
    close(listener_);
    close(stopPipe_[0]);
    close(stopPipe_[1]);
}

std::string ScriptedHttpServer::url(const std::string& path) const {
    return "http://" + address_ + (port_ == 80 ? "" : ":" + std::to_string(port_)) + "/" + path;
}

void ScriptedHttpServer::respond(const std::string& path, std::string response) {
    const std::lock_guard<std::mutex> lock(mutex_);
    byPath_.emplace_back(path, std::move(response));
}

void ScriptedHttpServer::delay(std::chrono::milliseconds pause) {
    const std::lock_guard<std::mutex> lock(mutex_);
    delay_ = pause;
}

std::vector<std::string> ScriptedHttpServer::requests() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

bool ScriptedHttpServer::stopping(std::chrono::milliseconds wait) const {
    pollfd stop{stopPipe_[0], POLLIN, 0};
    return poll(&stop, 1, static_cast<int>(wait.count())) != 0;
}

void ScriptedHttpServer::send(int connection, const std::string& bytes) const {
    const auto give = [connection](const char* data, std::size_t size) {
        std::size_t sent = 0;
        while (sent < size) {
            const ssize_t n = ::send(connection, data + sent, size - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += static_cast<std::size_t>(n);
        }
        return true;
    };
    if (mode_ != Mode::Drip) {
        give(bytes.data(), bytes.size());
        return;
    }
    const auto limit = std::chrono::steady_clock::now() + kMisbehaviourLimit;
    for (const char byte : bytes) {
        if (!give(&byte, 1) || stopping(kDripInterval) ||
            std::chrono::steady_clock::now() > limit) {
            return;
        }
    }
}

void ScriptedHttpServer::stream(int connection) const {
    send(connection, "HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n\r\n");
    const std::string block(16 * 1024, '\x30');
    const auto limit = std::chrono::steady_clock::now() + kMisbehaviourLimit;
    while (std::chrono::steady_clock::now() < limit) {
        pollfd watched[2] = {{connection, POLLOUT, 0}, {stopPipe_[0], POLLIN, 0}};
        if (poll(watched, 2, 1000) < 0 || watched[1].revents != 0) return;
        if ((watched[0].revents & (POLLERR | POLLHUP)) != 0) return;
        if ((watched[0].revents & POLLOUT) != 0 &&
            ::send(connection, block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
            errno != EAGAIN) {
            return;
        }
    }
}

void ScriptedHttpServer::serve() {
    if (mode_ == Mode::NeverAccept) {
        while (!stopping(std::chrono::milliseconds(-1))) {
        }
        return;  // the full backlog was never drained
    }
    for (;;) {
        pollfd watched[2] = {{listener_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (poll(watched, 2, -1) < 0) continue;
        if (watched[1].revents != 0) return;
        const int connection = accept(listener_, nullptr, nullptr);
        if (connection < 0) continue;

        std::string request;
        char buffer[1024];
        while (request.find("\r\n\r\n") == std::string::npos) {
            pollfd readable{connection, POLLIN, 0};
            if (poll(&readable, 1, 5000) <= 0) break;
            const ssize_t received = recv(connection, buffer, sizeof buffer, 0);
            if (received <= 0) break;
            request.append(buffer, static_cast<std::size_t>(received));
        }
        std::string response = response_;
        std::chrono::milliseconds pause{0};
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
            for (const auto& [path, answer] : byPath_) {
                if (path == requestPath(request)) response = answer;
            }
            pause = delay_;
        }
        if (pause.count() > 0 && stopping(pause)) {
            close(connection);
            return;
        }
        if (mode_ == Mode::NeverAnswer) {
            heldConnections_.push_back(connection);  // open, silent, until the server stops
            continue;
        }
        if (mode_ == Mode::Endless) {
            stream(connection);
        } else {
            send(connection, response);
        }
        shutdown(connection, SHUT_RDWR);
        close(connection);
    }
}

}  // namespace testsupport
