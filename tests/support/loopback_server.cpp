#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <utility>

namespace kvffmpeg::test {
namespace {

constexpr int pollMilliseconds = 20;

bool isReadable(int socket) {
    pollfd wanted{socket, POLLIN, 0};
    return poll(&wanted, 1, pollMilliseconds) > 0;
}

}  // namespace

StalledServer::StalledServer(std::vector<std::uint8_t> greeting)
    : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen on the loopback interface");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, sent = std::move(greeting)] { serve(sent); });
}

StalledServer::~StalledServer() {
    stop_ = true;
    thread_.join();
    close(listener_);
}

std::string StalledServer::url() const {
    return "tcp://127.0.0.1:" + std::to_string(port_);
}

void StalledServer::waitUntilGreeted() const {
    while (!greeted_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void StalledServer::serve(const std::vector<std::uint8_t>& greeting) {
    while (!stop_ && !isReadable(listener_)) {
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

}  // namespace kvffmpeg::test
