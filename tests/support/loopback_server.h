#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace kvffmpeg::test {

/// A TCP peer on the loopback interface that accepts one connection, sends some bytes, and then says nothing
/// more until it is destroyed.
class StalledServer {
public:
    explicit StalledServer(std::vector<std::uint8_t> greeting = {});
    ~StalledServer();
    StalledServer(const StalledServer&) = delete;
    StalledServer& operator=(const StalledServer&) = delete;

    /// For libavformat: "tcp://127.0.0.1:port".
    std::string url() const;
    /// Waits until the greeting is sent.
    void waitUntilGreeted() const;

private:
    void serve(const std::vector<std::uint8_t>& greeting);

    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> greeted_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kvffmpeg::test
