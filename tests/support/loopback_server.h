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

    /// For libavformat: "tcp://127.0.0.1:port", for example.
    std::string url(const std::string& protocol = "tcp") const;
    /// Waits until the greeting is sent.
    void waitUntilGreeted() const;
    bool hasGreeted() const noexcept { return greeted_; }

private:
    void serve(const std::vector<std::uint8_t>& greeting);

    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> greeted_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// A TCP port on the loopback interface whose queue of connections is full, and which accepts none: whoever
/// connects waits.
class FullServer {
public:
    FullServer();
    ~FullServer();
    FullServer(const FullServer&) = delete;
    FullServer& operator=(const FullServer&) = delete;

    std::string url(const std::string& protocol = "tcp") const;
    /// Someone else than the server itself is trying to connect.
    bool isWaitedFor() const;
    /// Waits until someone tries to connect.
    void waitUntilWaitedFor() const;

private:
    /// Connections to this port that the port has not taken.
    int attempts() const;
    void close() noexcept;

    int listener_ = -1;
    int port_ = 0;
    std::vector<int> queue_;
    int ownAttempts_ = 0;
};

}  // namespace kvffmpeg::test
