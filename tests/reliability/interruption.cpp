#include "interruption.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "kvffmpeg/format_context.h"

namespace kvffmpeg::reliability {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

void append(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void appendLittleEndian(Bytes& bytes, std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

constexpr std::uint32_t waveDataBytes = 10000000;
/// Of which so many are sent. The demuxer looks at the first 65536 for what is not sound.
constexpr std::size_t sentDataBytes = 100000;

/// The header of a WAVE file of 16-bit stereo.
Bytes waveHeader() {
    Bytes bytes;
    append(bytes, "RIFF");
    appendLittleEndian(bytes, waveDataBytes + 36, 4);
    append(bytes, "WAVEfmt ");
    appendLittleEndian(bytes, 16, 4);
    appendLittleEndian(bytes, 1, 2);
    appendLittleEndian(bytes, 2, 2);
    appendLittleEndian(bytes, 48000, 4);
    appendLittleEndian(bytes, 48000 * 4, 4);
    appendLittleEndian(bytes, 4, 2);
    appendLittleEndian(bytes, 16, 2);
    append(bytes, "data");
    appendLittleEndian(bytes, waveDataBytes, 4);
    return bytes;
}

/// Without "Accept-Ranges": libavformat does not try to reach the end by a connection of its own.
Bytes httpHeader() {
    Bytes bytes;
    append(bytes, "HTTP/1.1 200 OK\r\nContent-Type: audio/wav\r\nContent-Length: ");
    append(bytes, std::to_string(waveHeader().size() + waveDataBytes) + "\r\n\r\n");
    return bytes;
}

Bytes greetingOf(const Waiting& waiting) {
    if (waiting.what == Waiting::For::answer) return {};
    Bytes bytes = waiting.protocol == "http" ? httpHeader() : Bytes();
    if (waiting.what == Waiting::For::body || bytes.empty()) {
        const Bytes header = waveHeader();
        bytes.insert(bytes.end(), header.begin(), header.end());
    }
    if (waiting.what == Waiting::For::header) {
        bytes.resize(bytes.size() / 2);
    } else {
        bytes.resize(bytes.size() + sentDataBytes, 0x11);
    }
    return bytes;
}

std::vector<Waiting> makeWaitings() {
    // The peers are on this machine; libavformat would ask a proxy for them, though.
    unsetenv("http_proxy");
    const std::pair<Waiting::For, const char*> ways[] = {{Waiting::For::answer, "silent peer"},
                                                         {Waiting::For::header, "half a header"},
                                                         {Waiting::For::body, "stalled body"},
                                                         {Waiting::For::connection, "full backlog"}};
    std::vector<Waiting> result;
    for (const auto& [what, name] : ways) {
        for (const char* const protocol : {"tcp", "http"}) {
            result.push_back({what, protocol, std::string(name) + ", " + protocol});
        }
    }
    return result;
}

}  // namespace

const std::vector<Waiting>& waitings() {
    static const std::vector<Waiting> all = makeWaitings();
    return all;
}

Peer::Peer(const Waiting& waiting) : protocol_(waiting.protocol) {
    if (waiting.what == Waiting::For::connection) {
        full_ = std::make_unique<test::FullServer>();
    } else {
        stalled_ = std::make_unique<test::StalledServer>(greetingOf(waiting));
    }
}

std::string Peer::url() const {
    return full_ ? full_->url(protocol_) : stalled_->url(protocol_);
}

bool Peer::isReached() const {
    return full_ ? full_->isWaitedFor() : stalled_->hasGreeted();
}

Ending interruptOnce(const Waiting& waiting, std::chrono::microseconds delay) {
    const Peer peer(waiting);
    FormatContext context(peer.url());
    context.setInterruptCallback();
    std::atomic<bool> opened{false};
    std::atomic<bool> ended{false};
    std::atomic<bool> interrupted{false};
    Clock::time_point start;
    std::thread interrupter([&] {
        // An interrupt before `open` has begun would be lost, and one before it has ended would end it.
        while (!ended && !(peer.isReached() && (opened || waiting.what != Waiting::For::body))) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(delay);
        if (ended) return;
        start = Clock::now();
        interrupted = true;
        context.interrupt();
    });
    Ending ending;
    std::exception_ptr other;
    try {
        context.open("wav", false);
        ending.opened = true;
        opened = true;
        while (context.readPacket()) {
        }
    } catch (const std::runtime_error& error) {
        ending.text = error.what();
    } catch (...) {
        other = std::current_exception();
    }
    const Clock::time_point end = Clock::now();
    ended = true;
    ending.interrupted = interrupted;
    interrupter.join();
    if (other) std::rethrow_exception(other);
    ending.milliseconds = std::chrono::duration<double, std::milli>(end - start).count();
    return ending;
}

}  // namespace kvffmpeg::reliability
