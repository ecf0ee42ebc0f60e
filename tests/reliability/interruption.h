#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/loopback_server.h"

namespace kvffmpeg::reliability {

/// A peer on the loopback interface that keeps an input waiting, one way or another.
struct Waiting {
    enum class For {
        answer,      ///< It accepts and says nothing.
        header,      ///< It sends half a header.
        body,        ///< It sends a header and some of the body: `open` returns, reading waits.
        connection,  ///< It accepts nobody.
    };

    For what = For::answer;
    std::string protocol;  ///< "tcp" or "http".
    std::string name;      ///< Such as "half a header, http".
};

/// For the names of tests.
inline void PrintTo(const Waiting& waiting, std::ostream* out) {
    *out << waiting.name;
}

/// Each way, over each protocol.
const std::vector<Waiting>& waitings();

/// Such a peer, for one connection.
class Peer {
public:
    explicit Peer(const Waiting& waiting);

    std::string url() const;
    /// It has been connected to, as far as it lets that happen, and has sent all that it sends.
    bool isReached() const;

private:
    std::string protocol_;
    std::unique_ptr<test::StalledServer> stalled_;
    std::unique_ptr<test::FullServer> full_;
};

/// How an input ended that was interrupted.
struct Ending {
    bool opened = false;       ///< `open` had returned.
    bool interrupted = false;  ///< It did not end by itself, before.
    std::string text;          ///< Of the std::runtime_error.
    double milliseconds = 0;   ///< From the interrupt to the exception.
};

/// Opens an input that waits and reads it to its end, and interrupts it once, from another thread, `delay`
/// after it was seen to have got as far as it can. An exception of any other type passes through.
Ending interruptOnce(const Waiting& waiting, std::chrono::microseconds delay);

/// What a thread did with its inputs when they were interrupted at random moments.
struct Tally {
    std::uint64_t rounds = 0;
    std::uint64_t interrupts = 0;
    std::map<std::string, std::uint64_t> moments;  ///< Interrupts by what the input was doing.
    std::map<std::string, std::uint64_t> endings;  ///< Rounds by how they ended.

    Tally& operator+=(const Tally& other);
};

/// Opens, reads, decodes, seeks, moves, closes, reopens and destroys inputs, the files and the peers above,
/// on `threads` threads, each with another one that interrupts its inputs at random moments, until that was
/// done `interrupts` times. An exception that no input may throw is an ending of its own, "unexpected ...".
/// The order of things is the machine's; only choices and delays follow from the seed.
Tally interruptAtRandom(std::uint64_t interrupts, std::uint64_t seed, unsigned threads,
                        const std::vector<std::string>& files);

}  // namespace kvffmpeg::reliability
