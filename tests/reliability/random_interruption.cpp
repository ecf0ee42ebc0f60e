#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include "interruption.h"
#include "kvffmpeg/format_context.h"

namespace kvffmpeg::reliability {
namespace {

/// What an input is doing, as the thread that interrupts it gets to know.
enum Moment : std::size_t { waiting, opening, reading, decoding, seeking, moving, closing, momentCount };
constexpr std::array<const char*, momentCount> momentNames = {
    "between calls", "open", "readPacket", "decodePacket", "seek", "moving", "close"};

/// Interrupts the inputs that it is given, at random moments, from a thread of its own.
class RandomInterrupter {
public:
    RandomInterrupter(std::uint64_t seed, std::atomic<std::uint64_t>& interrupts)
        : interrupts_(interrupts), random_(seed), thread_([this] { run(); }) {}
    ~RandomInterrupter() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    RandomInterrupter(const RandomInterrupter&) = delete;
    RandomInterrupter& operator=(const RandomInterrupter&) = delete;

    /// Either may be null. The first interrupt comes within `longestDelay`; others follow, as one before
    /// `open` is lost. `release` must come before they are destroyed.
    void take(FormatContext* first, FormatContext* second, std::chrono::microseconds longestDelay) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            targets_ = {first, second};
            longestDelay_ = longestDelay;
            ++change_;
        }
        changed_.notify_one();
    }
    void release() { take(nullptr, nullptr, laterDelay); }
    /// Relaxed, as anything more would put this thread's steps and the other's in an order that hides races.
    void tell(Moment moment) noexcept { moment_.store(moment, std::memory_order_relaxed); }
    /// After the last `release`.
    std::array<std::uint64_t, momentCount> moments() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return moments_;
    }

private:
    static constexpr std::chrono::microseconds laterDelay{50000};

    void run() {
        // Only against the objects' destruction: the thread that uses them does not take it otherwise.
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            const std::uint64_t change = change_;
            const auto delay = std::chrono::microseconds(
                std::uniform_int_distribution<std::int64_t>(0, longestDelay_.count())(random_));
            // Not `wait_for`, whose clock the thread sanitizers of older compilers do not know.
            if (changed_.wait_until(lock, std::chrono::system_clock::now() + delay,
                                    [&] { return stop_ || change_ != change; })) {
                continue;
            }
            longestDelay_ = laterDelay;
            for (FormatContext* const target : targets_) {
                if (!target) continue;
                ++moments_[moment_.load(std::memory_order_relaxed)];
                interrupts_.fetch_add(1, std::memory_order_relaxed);
                target->interrupt();
            }
        }
    }

    std::atomic<std::uint64_t>& interrupts_;
    std::mt19937_64 random_;
    std::mutex mutex_;
    std::array<FormatContext*, 2> targets_{};
    std::array<std::uint64_t, momentCount> moments_{};
    std::condition_variable changed_;
    std::uint64_t change_ = 0;  ///< Counts the changes of the targets.
    std::chrono::microseconds longestDelay_ = laterDelay;
    bool stop_ = false;
    std::atomic<std::size_t> moment_{waiting};
    std::thread thread_;
};

/// The thread that uses the inputs.
class Reader {
public:
    Reader(std::uint64_t seed, const std::vector<std::string>& files, std::atomic<std::uint64_t>& interrupts)
        : files_(files), random_(seed), interrupter_(seed + 1, interrupts) {}

    void round() {
        std::optional<Peer> peer;
        if (below(2) == 0) peer.emplace(waitings()[below(waitings().size())]);
        const std::string url = peer ? peer->url() : files_[below(files_.size())];
        // Opening a file takes less than a millisecond, and reading it less than a hundred.
        constexpr std::array<int, 3> fileDelays = {500, 5000, 50000};
        const std::chrono::microseconds delay(peer ? 50000 : fileDelays[below(fileDelays.size())]);

        auto context = std::make_unique<FormatContext>(url);
        std::unique_ptr<FormatContext> moved;
        context->setInterruptCallback();
        interrupter_.take(context.get(), nullptr, delay);
        std::string ending = use(*context, url, peer.has_value());
        if (context->isOpened() && below(4) == 0) {
            interrupter_.tell(moving);
            moved = std::make_unique<FormatContext>(std::move(*context));
            // The input goes on asking the source, which may be gone; then nothing ends a wait.
            const bool keepsSource = peer.has_value() || below(2) == 0;
            interrupter_.take(moved.get(), keepsSource ? context.get() : nullptr, delay);
            if (!keepsSource) context.reset();
            ending = "moved; " + attempt([&] { return read(*moved, peer.has_value()); });
        } else if (!peer && below(3) == 0) {
            close(*context);
            ending = "reopened; " + use(*context, url, false);
        }
        FormatContext* const last = moved ? moved.get() : context.get();
        if (below(3) != 0) close(*last);
        interrupter_.tell(waiting);
        interrupter_.release();
        ++tally_.rounds;
        ++tally_.endings[(peer ? "peer: " : "file: ") + ending];
    }

    Tally tally() {
        const auto moments = interrupter_.moments();
        for (std::size_t i = 0; i < momentCount; ++i) {
            tally_.moments[momentNames[i]] = moments[i];
            tally_.interrupts += moments[i];
        }
        return tally_;
    }

private:
    std::size_t below(std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
    }

    template <typename Function>
    std::string attempt(Function function) {
        try {
            return function();
        } catch (const std::runtime_error& error) {
            return error.what();
        } catch (const std::exception& error) {
            return std::string("unexpected exception, ") + error.what();
        }
    }

    std::string use(FormatContext& context, const std::string& url, bool isPeer) {
        return attempt([&] {
            interrupter_.tell(opening);
            context.setUrl(url);
            context.open(isPeer ? "wav" : "", !isPeer && below(2) == 0);
            return read(context, isPeer && below(4) != 0);
        });
    }

    std::string read(FormatContext& context, bool toTheEnd) {
        for (std::size_t left = 1 + below(200); toTheEnd || left > 0; --left) {
            interrupter_.tell(reading);
            const std::shared_ptr<Packet> packet = context.readPacket();
            if (!packet) return "read to the end";
            if (below(2) == 0) {
                interrupter_.tell(decoding);
                context.decodePacket(packet);
            }
            if (!toTheEnd && below(20) == 0) {
                interrupter_.tell(seeking);
                context.seek(Timestamp(static_cast<long>(below(3000000))));
            }
        }
        return "read in part";
    }

    void close(FormatContext& context) {
        interrupter_.tell(closing);
        context.close();
    }

    const std::vector<std::string>& files_;
    std::mt19937_64 random_;
    RandomInterrupter interrupter_;
    Tally tally_;
};

}  // namespace

Tally& Tally::operator+=(const Tally& other) {
    rounds += other.rounds;
    interrupts += other.interrupts;
    for (const auto& [name, count] : other.moments) moments[name] += count;
    for (const auto& [name, count] : other.endings) endings[name] += count;
    return *this;
}

Tally interruptAtRandom(std::uint64_t interrupts, std::uint64_t seed, unsigned threads,
                        const std::vector<std::string>& files) {
    (void)waitings();  // made before there are threads, as it changes the environment
    std::atomic<std::uint64_t> done{0};
    std::mutex mutex;
    Tally total;
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < threads; ++i) {
        readers.emplace_back([&, i] {
            Reader reader(seed + 1000 * i, files, done);
            while (done.load(std::memory_order_relaxed) < interrupts) reader.round();
            const std::lock_guard<std::mutex> lock(mutex);
            total += reader.tally();
        });
    }
    for (std::thread& reader : readers) reader.join();
    return total;
}

}  // namespace kvffmpeg::reliability
