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

sockaddr_in port80(const std::string& address) {
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(80);
    inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr);
    return socketAddress;
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

ScriptedHttpServer::ScriptedHttpServer(std::string address, std::string response, Mode mode)
    : address_(std::move(address)), response_(std::move(response)), mode_(mode) {
    failure_ = cannotBindPort80(address_);
    if (!failure_.empty()) return;
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in target = port80(address_);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0 ||
        listen(listener_, 16) != 0 || pipe(stopPipe_) != 0) {
        failure_ = std::string("cannot listen: ") + std::strerror(errno);
        close(listener_);
        listener_ = -1;
        return;
    }
    thread_ = std::thread([this] { serve(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    if (listener_ < 0) return;
    const char stop = 's';
    [[maybe_unused]] const ssize_t written = write(stopPipe_[1], &stop, 1);
    thread_.join();
    for (const int connection : heldConnections_) close(connection);
    close(listener_);
    close(stopPipe_[0]);
    close(stopPipe_[1]);
}

std::string ScriptedHttpServer::url(const std::string& path) const {
    return "http://" + address_ + "/" + path;
}

std::vector<std::string> ScriptedHttpServer::requests() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void ScriptedHttpServer::serve() {
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
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
        }
        if (mode_ == Mode::NeverAnswer) {
            heldConnections_.push_back(connection);  // open, silent, until the server stops
            continue;
        }
        std::size_t sent = 0;
        while (sent < response_.size()) {
            const ssize_t n =
                send(connection, response_.data() + sent, response_.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) break;
            sent += static_cast<std::size_t>(n);
        }
        shutdown(connection, SHUT_RDWR);
        close(connection);
    }
}

}  // namespace testsupport
