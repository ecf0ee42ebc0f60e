#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "arguments.h"
#include "console.h"
#include "errors.h"
#include "frames.h"
#include "interruption.h"
#include "logger/logger.h"
#include "probe.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kvffmpeg::tool {
namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

struct Options {
    bool verbose = false;
    ProbeOptions probe;
    FramesOptions frames;
};

std::string libraryVersion(unsigned version) {
    return std::to_string(version >> 16) + "." + std::to_string(version >> 8 & 0xff) + "." +
           std::to_string(version & 0xff);
}

std::string versionText() {
    return "kvffmpeg " KVFFMPEG_VERSION "\nlibavformat " + libraryVersion(avformat_version()) +
           ", libavcodec " + libraryVersion(avcodec_version());
}

void addVerbose(CLI::App& command, bool& verbose) {
    command.add_flag("-v,--verbose", verbose, "Log what the library and FFmpeg do");
}

void addInput(CLI::App& command, InputOptions& input, bool& verbose) {
    command.add_option("INPUT", input.url, "File, URL, or - for standard input")->required();
    command.add_option("--format", input.format, "Input format, such as mpegts, instead of probing")
        ->type_name("NAME");
    addVerbose(command, verbose);
}

CLI::App* addProbe(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("probe", "Describe an input: format, tracks, metadata");
    addInput(*command, options.probe.input, options.verbose);
    command->add_flag("--json", options.probe.json, "Write JSON");
    command->add_flag("--packets", options.probe.countPackets,
                      "Read the whole input, and count packets and key frames.\n"
                      "H.264 packets are key frames when they carry SPS, PPS and IDR slice\n"
                      "behind start codes (in MP4 none do); other video packets always are");
    command->footer(
        "JSON: input, format, format_description, duration, start, time_origin, bit_rate, streamed,\n"
        "metadata, tracks[]: index, type, codec, bit_rate, duration, default, language, title, metadata;\n"
        "of video: width, height, pixel_format, color_range, frame_rate, frame_rate_fraction,\n"
        "attached_picture; of audio: sample_rate, channels, channel_layout, sample_format;\n"
        "with --packets: packets, key_frames. Times are in seconds, and under KEY_us in microseconds.\n"
        "What is not known is null.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg probe clip.mp4\n"
        "  kvffmpeg probe --json --packets clip.mp4\n"
        "  kvffmpeg probe --format mpegts udp://239.0.0.1:1234");
    return command;
}

void addPictureOptions(CLI::App& command, FramesOptions& frames) {
    command
        .add_option("-o,--output", frames.output,
                    "Names of the pictures: one %d, %5d or %05d for the number, from 1 on;\n"
                    "%% is a percent sign. The ending (.png, .jpg, .bmp) is the format.\n"
                    "Files that exist are overwritten; folders are not made")
        ->required()
        ->type_name("PATTERN");
    command
        .add_option_function<std::string>(
            "--size", [&frames](const std::string& text) { frames.size = parseSize(text); },
            "Scale to this size; a side of -1 keeps the proportions")
        ->type_name("WxH");
    command
        .add_option("--algorithm", frames.algorithm,
                    "How to scale: fast_bilinear, bilinear, bicubic, x, point, area,\n"
                    "bicublin, gauss, sinc, lanczos or spline")
        ->type_name("NAME")
        ->capture_default_str();
}

void addSelectionOptions(CLI::App& command, FramesOptions& frames) {
    command
        .add_option_function<std::string>(
            "--start", [&frames](const std::string& text) { frames.start = parseTime(text); },
            "Skip what is before this time, counted from the start of the input:\n"
            "seconds or [HH:]MM:SS[.mmm]")
        ->type_name("TIME");
    command
        .add_option_function<std::string>(
            "--count", [&frames](const std::string& text) { frames.count = parseNumber("--count", text, 1); },
            "Save this many pictures at most")
        ->type_name("N");
    command
        .add_option_function<std::string>(
            "--track", [&frames](const std::string& text) { frames.track = parseNumber("--track", text, 0); },
            "Index of the video track; the first one that is no cover picture otherwise")
        ->type_name("I");
}

CLI::App* addFrames(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("frames", "Save the pictures of a video track as files");
    addInput(*command, options.frames.input, options.verbose);
    addPictureOptions(*command, options.frames);
    addSelectionOptions(*command, options.frames);
    command->footer(
        "Decoders of video with B-frames hold pictures back, and are not drained at the end of the\n"
        "input: the last pictures of such video do not come out. Rotation is not applied.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg frames clip.mp4 -o pictures/%05d.png\n"
        "  kvffmpeg frames clip.mp4 -o thumbnail%d.jpg --start 1:30 --count 1 --size 320x-1");
    return command;
}

void writeMessage(logger::Level level, const std::string& text) {
    const char* kind = level <= logger::Level::error     ? "error: "
                       : level <= logger::Level::warning ? "warning: "
                                                         : "";
    report(std::string("kvffmpeg: ") + kind + text);
}

void setUpLogging(bool verbose) {
    logger::setSink(writeMessage);
    if (verbose) logger::setThreshold(logger::Level::debug);
    // What FFmpeg calls errors are its reasons for what is reported in one line here.
    av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_FATAL);
}

void execute(int argc, char** argv) {
    Options options;
    CLI::App app("Describes media, and saves pictures from video.", "kvffmpeg");
    app.set_version_flag("--version", versionText(), "Print the version and exit");
    addVerbose(app, options.verbose);
    app.require_subcommand(1);
    const CLI::App* probeCommand = addProbe(app, options);
    addFrames(app, options);
    app.footer("Run \"kvffmpeg COMMAND --help\" for its options and examples.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {  // --help and --version
        app.exit(request, std::cout, std::cerr);
        return flushOutput();
    }
    setUpLogging(options.verbose);
    return probeCommand->parsed() ? probe(options.probe) : saveFrames(options.frames);
}

int fail(const std::string& text, int exitCode) {
    report("kvffmpeg: " + text);
    return exitCode;
}

int endInterrupted() {
    report("Interrupted");
    return 128 + receivedSignal();
}

int run(int argc, char** argv) {
    try {
        occupyStandardStreams();
        installSignalHandlers();
        execute(argc, argv);
        return 0;
    } catch (const Interrupted&) {
        return endInterrupted();
    } catch (const CLI::ParseError& error) {
        return fail(std::string(error.what()) + " (see kvffmpeg --help)", exitUsage);
    } catch (const UsageError& error) {
        return fail(error.what(), exitUsage);
    } catch (const std::bad_alloc&) {
        return fail("Out of memory", exitFailure);
    } catch (const std::exception& error) {
        // A signal may end a write, too.
        return receivedSignal() != 0 ? endInterrupted() : fail(error.what(), exitFailure);
    }
}

}  // namespace
}  // namespace kvffmpeg::tool

int main(int argc, char** argv) {
    return kvffmpeg::tool::run(argc, argv);
}
