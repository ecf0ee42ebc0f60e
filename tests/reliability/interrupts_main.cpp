// Measures how soon `FormatContext::interrupt()` ends what waits for a peer, and interrupts at random
// moments.
//
//     kvffmpeg_interrupts [--runs N] [--limit-ms N]
//     kvffmpeg_interrupts --random N [--seed N] [--threads N]
//
//   --runs N        so many interrupts of each kind of waiting (100)
//   --limit-ms N    each ends within this time (250)
//   --random N      interrupts files and peers so many times, whatever they are doing
//   --seed N        other delays and choices (1)
//   --threads N     so many threads use inputs, each with another one that interrupts them (2)
//
// Prints tables in Markdown. Ends with 1 when something did not end, or not in time, or not as it is
// documented to; with 2 when it was called wrongly.

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "interruption.h"
#include "logger/logger.h"
#include "support/media.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kvffmpeg::reliability {
namespace {

struct Options {
    unsigned runs = 100;
    double limitMilliseconds = 250;
    std::uint64_t random = 0;
    std::uint64_t seed = 1;
    unsigned threads = 2;
};

std::uint64_t numberOf(const std::string& option, const std::string& text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > 1000000000) {
        throw std::invalid_argument(option + " wants a number, and not \"" + text + "\"");
    }
    return number;
}

Options parsed(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string& name = arguments[i];
        if (i + 1 == arguments.size()) throw std::invalid_argument(name + " wants a value");
        const std::uint64_t value = numberOf(name, arguments[i + 1]);
        if (name == "--runs") {
            options.runs = static_cast<unsigned>(value);
        } else if (name == "--limit-ms") {
            options.limitMilliseconds = static_cast<double>(value);
        } else if (name == "--random") {
            options.random = value;
        } else if (name == "--seed") {
            options.seed = value;
        } else if (name == "--threads") {
            options.threads = static_cast<unsigned>(value);
        } else {
            throw std::invalid_argument("there is no option " + name);
        }
    }
    if (options.runs == 0 || options.threads == 0) throw std::invalid_argument("nothing to do");
    return options;
}

constexpr unsigned secondsUntilGivenUp = 30;

/// A thread that waits inside FFmpeg cannot be ended in any other way than with the process.
extern "C" void giveUp(int /*signal*/) {
    constexpr char text[] = "An input was interrupted and did not end.\n";
    (void)!write(STDOUT_FILENO, text, sizeof text - 1);
    _exit(1);
}

bool measure(const Options& options) {
    std::mt19937_64 random(options.seed);
    bool allWell = true;
    std::map<std::string, unsigned> texts;
    std::printf(
        "| What the input waits for | interrupts | ended | slowest ms | median ms |\n|-|-:|-:|-:|-:|\n");
    for (const Waiting& waiting : waitings()) {
        std::vector<double> times;
        unsigned ended = 0;
        for (unsigned run = 0; run < options.runs; ++run) {
            alarm(secondsUntilGivenUp);
            const auto delay = std::chrono::microseconds(random() % 100000);
            const Ending ending = interruptOnce(waiting, delay);
            alarm(0);
            ++texts[ending.text];
            times.push_back(ending.milliseconds);
            if (ending.interrupted && ending.opened == (waiting.what == Waiting::For::body)) ++ended;
        }
        std::sort(times.begin(), times.end());
        std::printf("| %s | %u | %u | %.0f | %.0f |\n", waiting.name.c_str(), options.runs, ended,
                    times.back(), times[times.size() / 2]);
        std::fflush(stdout);
        if (ended != options.runs || times.back() > options.limitMilliseconds) allWell = false;
    }
    std::printf("\n| exception | times |\n|-|-:|\n");
    for (const auto& [text, count] : texts) std::printf("| %s | %u |\n", text.c_str(), count);
    if (!allWell) {
        std::printf("\nNot every interrupt ended its input within %.0f ms.\n", options.limitMilliseconds);
    }
    return allWell;
}

void print(const char* heading, const char* countHeading,
           const std::map<std::string, std::uint64_t>& counts) {
    std::printf("\n| %s | %s |\n|-|-:|\n", heading, countHeading);
    for (const auto& [name, count] : counts) {
        std::printf("| %s | %llu |\n", name.c_str(), static_cast<unsigned long long>(count));
    }
}

bool measureAtRandom(const Options& options) {
    const Tally tally =
        interruptAtRandom(options.random, options.seed, options.threads,
                          {test::exampleMedia("clip.mp4"), test::exampleMedia("raster_font.png")});
    std::printf("%llu interrupts in %llu rounds, %u threads that read, seed %llu\n",
                static_cast<unsigned long long>(tally.interrupts),
                static_cast<unsigned long long>(tally.rounds), options.threads,
                static_cast<unsigned long long>(options.seed));
    print("The input was at", "interrupts", tally.moments);
    print("How it ended", "rounds", tally.endings);
    bool allWell = true;
    for (const auto& [name, count] : tally.endings) {
        if (name.find("unexpected") != std::string::npos) allWell = false;
    }
    if (!allWell) std::printf("\nNot every input ended as it is documented to.\n");
    return allWell;
}

}  // namespace
}  // namespace kvffmpeg::reliability

int main(int argc, char** argv) {
    using namespace kvffmpeg::reliability;
    try {
        const Options options = parsed({argv + 1, argv + argc});
        std::signal(SIGALRM, giveUp);
        av_log_set_level(AV_LOG_QUIET);
        logger::setSink([](logger::Level, const std::string&) {});
        return (options.random > 0 ? measureAtRandom(options) : measure(options)) ? 0 : 1;
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
