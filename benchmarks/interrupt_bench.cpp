// How long interrupt() takes to end a wait for a peer that says nothing, and what the question costs that
// FFmpeg asks all the time.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kvffmpeg/format_context.h"

namespace {

using Clock = std::chrono::steady_clock;
using kvffmpeg::FormatContext;

/// Connections to a listener that nobody accepts from are made all the same, and hear nothing.
class SilentPeer {
public:
    SilentPeer() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(socket_, 64) != 0 ||
            getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen on the loopback interface");
        }
        url_ = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~SilentPeer() { close(socket_); }
    SilentPeer(const SilentPeer&) = delete;
    SilentPeer& operator=(const SilentPeer&) = delete;

    const std::string& url() const { return url_; }

private:
    int socket_ = socket(AF_INET, SOCK_STREAM, 0);
    std::string url_;
};

void interruptOfAnOpen(benchmark::State& state) {
    double longest = 0;
    for (auto unused : state) {
        static_cast<void>(unused);
        const SilentPeer peer;
        FormatContext context(peer.url());
        context.setInterruptCallback();
        std::atomic<Clock::time_point> interrupted{};
        std::thread interrupter([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            interrupted = Clock::now();
            context.interrupt();
        });
        try {
            context.open();
            state.SkipWithError("a silent peer was opened");
        } catch (const std::runtime_error&) {  // as it should
        }
        const std::chrono::duration<double> taken = Clock::now() - interrupted.load();
        interrupter.join();
        state.SetIterationTime(taken.count());
        longest = std::max(longest, taken.count());
    }
    state.counters["longest_ms"] = longest * 1e3;
}
BENCHMARK(interruptOfAnOpen)->UseManualTime()->Iterations(30)->Unit(benchmark::kMillisecond);

/// The argument is the number of contexts that live.
void interruptCallback(benchmark::State& state) {
    std::vector<std::unique_ptr<FormatContext>> contexts;
    for (int i = 0; i < state.range(0); ++i) contexts.push_back(std::make_unique<FormatContext>());
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(interrupt_cb(contexts.back().get()));
    }
}
BENCHMARK(interruptCallback)->Arg(1)->Arg(1000);

}  // namespace
