#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kvffmpeg::test {
namespace {

constexpr int pollMilliseconds = 20;

bool isReady(int socket, short event) {
    pollfd wanted{socket, event, 0};
    return poll(&wanted, 1, pollMilliseconds) > 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

struct Listener {
    int socket;
    int port;
};

/// @throws std::runtime_error.
Listener listenOnLoopback(int backlog) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, backlog) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listener >= 0) close(listener);
        throw std::runtime_error("cannot listen on the loopback interface");
    }
    return {listener, ntohs(address.sin_port)};
}

std::string urlOf(const std::string& protocol, int port) {
    return protocol + "://127.0.0.1:" + std::to_string(port);
}

}  // namespace

StalledServer::StalledServer(std::vector<std::uint8_t> greeting) {
    const Listener listener = listenOnLoopback(1);
    listener_ = listener.socket;
    port_ = listener.port;
    thread_ = std::thread([this, sent = std::move(greeting)] { serve(sent); });
}

StalledServer::~StalledServer() {
    stop_ = true;
    thread_.join();
    close(listener_);
}

std::string StalledServer::url(const std::string& protocol) const {
    return urlOf(protocol, port_);
}

void StalledServer::waitUntilGreeted() const {
    while (!greeted_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void StalledServer::serve(const std::vector<std::uint8_t>& greeting) {
    while (!stop_ && !isReady(listener_, POLLIN)) {
    }
    if (stop_) return;
    const int connection = accept(listener_, nullptr, nullptr);
    for (std::size_t sent = 0; sent < greeting.size() && !stop_;) {
        const ssize_t count =
            send(connection, greeting.data() + sent, greeting.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) sent += static_cast<std::size_t>(count);
        if (count <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    greeted_ = true;
    while (!stop_) std::this_thread::sleep_for(std::chrono::milliseconds(pollMilliseconds));
    close(connection);
}

FullServer::FullServer() {
    const Listener listener = listenOnLoopback(0);
    listener_ = listener.socket;
    port_ = listener.port;
    // How many fit is the system's business: until one has to wait.
    for (bool fits = true; fits;) {
        const int queued = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (queued < 0 || queue_.size() == 100) {
            close();
            throw std::runtime_error("cannot fill a queue of connections");
        }
        queue_.push_back(queued);
        const sockaddr_in address = loopback(port_);
        const int result = connect(queued, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        fits = result == 0 || isReady(queued, POLLOUT);
    }
    ownAttempts_ = attempts();
    if (ownAttempts_ == 0) {
        close();
        throw std::runtime_error("cannot see who connects");
    }
}

FullServer::~FullServer() {
    close();
}

void FullServer::close() noexcept {
    for (const int queued : queue_) ::close(queued);
    ::close(listener_);
}

std::string FullServer::url(const std::string& protocol) const {
    return urlOf(protocol, port_);
}

int FullServer::attempts() const {
    // Each line: number, local address, remote address and state, in hexadecimal digits.
    std::ifstream table("/proc/net/tcp");
    int count = 0;
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string local;
        std::string remote;
        std::string state;
        fields >> number >> local >> remote >> state;
        const std::size_t colon = remote.find(':');
        if (state != "02" || colon == std::string::npos) continue;  // SYN_SENT
        if (std::strtol(remote.c_str() + colon + 1, nullptr, 16) == port_) ++count;
    }
    return count;
}

bool FullServer::isWaitedFor() const {
    return attempts() > ownAttempts_;
}

void FullServer::waitUntilWaitedFor() const {
    while (!isWaitedFor()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace kvffmpeg::test
