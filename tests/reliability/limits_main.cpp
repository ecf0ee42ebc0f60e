// Measures what memory and time pictures from strangers take, and what opening, decoding and closing leave
// behind.
//
//     kvffmpeg_limits [--cycles N] [--memory-limit MB] [--time-limit-ms N] [--only TEXT] [--leak BYTES]
//     kvffmpeg_limits --write FOLDER
//
//   --cycles N          so often each file is opened, decoded and closed (1000)
//   --memory-limit MB   by which resident memory grows at most for one picture (300)
//   --time-limit-ms N   of processor time that one picture takes at most (2000)
//   --only TEXT         only the pictures with this in their name, and no cycles
//   --leak BYTES        leaks so much in every cycle: to see that it would be found
//   --write FOLDER      writes the pictures there, and does nothing else
//
// Prints tables in Markdown. Ends with 1 when something took more, died, or was left behind, with 2 when it
// was called wrongly, and with 77 under sanitizers, whose own memory hides that of the library.

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "bombs.h"
#include "logger/logger.h"
#include "measured_child.h"
#include "support/media.h"
#include "support/temporary_folder.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kvffmpeg::reliability {
namespace {

constexpr double megabyte = 1e6;

struct Options {
    unsigned cycles = 1000;
    double memoryLimit = 300;
    double timeLimit = 2000;
    std::size_t leak = 0;
    std::string only;
    std::string write;
};

unsigned numberOf(const std::string& option, const std::string& text) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument(option + " wants a number, and not \"" + text + "\"");
    }
    return number;
}

Options parsed(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string& name = arguments[i];
        if (i + 1 == arguments.size()) throw std::invalid_argument(name + " wants a value");
        const std::string& value = arguments[i + 1];
        if (name == "--cycles") {
            options.cycles = numberOf(name, value);
        } else if (name == "--memory-limit") {
            options.memoryLimit = numberOf(name, value);
        } else if (name == "--time-limit-ms") {
            options.timeLimit = numberOf(name, value);
        } else if (name == "--leak") {
            options.leak = numberOf(name, value);
        } else if (name == "--only") {
            options.only = value;
        } else if (name == "--write") {
            options.write = value;
        } else {
            throw std::invalid_argument("there is no option " + name);
        }
    }
    return options;
}

void writePictures(const std::string& folder) {
    unsigned number = 0;
    for (const Bomb& bomb : pictureBombs()) {
        const std::string path = folder + "/bomb" + std::to_string(++number) + "." + bomb.ending;
        test::writeFile(path, bomb.make());
        std::printf("%s: %s\n", path.c_str(), bomb.name.c_str());
    }
}

bool measurePictures(const Options& options) {
    const test::TemporaryFolder folder;
    bool allWell = true;
    unsigned count = 0;
    std::printf("| picture | file, bytes | result | memory, MB | time, ms | |\n|-|-:|-|-:|-:|-|\n");
    for (const Bomb& bomb : pictureBombs()) {
        if (bomb.name.find(options.only) == std::string::npos) continue;
        ++count;
        const std::string path = folder.file("bomb." + bomb.ending);
        std::size_t size = 0;
        {
            const std::vector<std::uint8_t> bytes = bomb.make();
            size = bytes.size();
            test::writeFile(path, bytes);
        }
        const Measured measured = measureInChild([&] { return pictureInWords(path); });
        const double memory = static_cast<double>(measured.peakGrowth) / megabyte;
        const double milliseconds = measured.seconds * 1000;
        const bool well =
            !measured.died && memory <= options.memoryLimit && milliseconds <= options.timeLimit;
        std::printf("| %s | %zu | %s | %.0f | %.0f | %s |\n", bomb.name.c_str(), size,
                    measured.outcome.c_str(), memory, milliseconds, well ? "" : "too much");
        std::fflush(stdout);
        if (!well) allWell = false;
    }
    if (count == 0) throw std::invalid_argument("there is no such picture");
    return allWell;
}

bool measureCycles(const Options& options) {
    constexpr unsigned warmUp = 30;
    bool allWell = true;
    std::printf("\n| %u cycles of | memory, kB | descriptors | threads | |\n|-|-:|-:|-:|-|\n",
                options.cycles);
    for (const char* const name : {"clip.mp4", "raster_font.png"}) {
        const std::string path = test::exampleMedia(name);
        const Growth growth = growthOver(options.cycles, warmUp, [&] {
            decodeAll(path);
            if (options.leak == 0) return;
            static volatile char* lost = nullptr;
            lost = static_cast<volatile char*>(std::malloc(options.leak));
            for (std::size_t i = 0; lost && i < options.leak; ++i) lost[i] = 1;
        });
        const bool well = growth.residentBytes < 1000000 && growth.descriptors == 0 && growth.threads == 0;
        std::printf("| %s | %+.0f | %+td | %+td | %s |\n", name,
                    static_cast<double>(growth.residentBytes) / 1000, growth.descriptors, growth.threads,
                    well ? "" : "left behind");
        std::fflush(stdout);
        if (!well) allWell = false;
    }
    return allWell;
}

int run(const Options& options) {
    if (!options.write.empty()) {
        writePictures(options.write);
        return 0;
    }
    if (const std::string reason = reasonNotToMeasureMemory(); !reason.empty()) {
        std::printf("Nothing is measured: %s.\n", reason.c_str());
        return 77;
    }
    bool allWell = measurePictures(options);
    if (options.only.empty()) allWell = measureCycles(options) && allWell;
    return allWell ? 0 : 1;
}

}  // namespace
}  // namespace kvffmpeg::reliability

int main(int argc, char** argv) {
    using namespace kvffmpeg::reliability;
    try {
        av_log_set_level(AV_LOG_QUIET);
        logger::setSink([](logger::Level, const std::string&) {});
        return run(parsed({argv + 1, argv + argc}));
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
