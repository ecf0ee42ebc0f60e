#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "arguments.h"
#include "compose.h"
#include "console.h"
#include "errors.h"
#include "frames.h"
#include "interruption.h"
#include "log.h"
#include "probe.h"
#include "sheet.h"
#include "text.h"
#include "waveform.h"

namespace kvffmpeg::tool {
namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

struct Options {
    bool quiet = false;
    std::int64_t timesVerbose = 0;
    ProbeOptions probe;
    FramesOptions frames;
    WaveformOptions waveform;
    SheetOptions sheet;
    TextOptions text;
    ComposeOptions compose;
};

std::string libraryVersion(unsigned version) {
    return std::to_string(version >> 16) + "." + std::to_string(version >> 8 & 0xff) + "." +
           std::to_string(version & 0xff);
}

std::string versionText() {
    return "kvffmpeg " KVFFMPEG_VERSION "\nlibavformat " + libraryVersion(avformat_version()) +
           ", libavcodec " + libraryVersion(avcodec_version());
}

/// Before the command and behind it; both count.
void addVerbosity(CLI::App& command, Options& options) {
    command.add_flag_function(
        "-v,--verbose", [&options](std::int64_t times) { options.timesVerbose += times; },
        "Tell on standard error what FFmpeg logs; -vv tells all that FFmpeg\nand the library do");
    command.add_flag_function(
        "--quiet", [&options](std::int64_t /*times*/) { options.quiet = true; },
        "Tell nothing on standard error but why the command failed");
}

Verbosity verbosityOf(const Options& options) {
    if (options.quiet && options.timesVerbose > 0)
        throw UsageError("--quiet and --verbose exclude each other");
    if (options.quiet) return Verbosity::quiet;
    if (options.timesVerbose == 0) return Verbosity::normal;
    return options.timesVerbose == 1 ? Verbosity::verbose : Verbosity::debug;
}

void addInput(CLI::App& command, InputOptions& input, Options& options) {
    command.add_option("INPUT", input.url, "File, URL, or - for standard input")->required();
    command.add_option("--format", input.format, "Input format, such as mpegts, instead of probing")
        ->type_name("NAME");
    addVerbosity(command, options);
}

CLI::App* addProbe(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("probe", "Describe an input: format, tracks, metadata");
    addInput(*command, options.probe.input, options);
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

void addAlgorithm(CLI::App& command, std::string& algorithm) {
    command
        .add_option("--algorithm", algorithm,
                    "How to scale: fast_bilinear, bilinear, bicubic, x, point, area,\n"
                    "bicublin, gauss, sinc, lanczos or spline")
        ->type_name("NAME")
        ->capture_default_str();
}

void addPictureOptions(CLI::App& command, FramesOptions& frames) {
    command
        .add_option("-o,--output", frames.output,
                    "Names of the pictures: one %d, %5d or %05d for the number, from 1 on;\n"
                    "%% is a percent sign. The ending (.png, .jpg, .bmp) is the format.\n"
                    "Files that exist are overwritten; folders are not made. - alone is a\n"
                    "Y4M stream on standard output")
        ->required()
        ->type_name("PATTERN");
    command
        .add_option("--filter", frames.filter,
                    "Send the pictures through these filters before they are scaled:\n"
                    "a filter graph in FFmpeg's syntax, such as crop=200:100,hflip")
        ->type_name("SPEC");
    command
        .add_option_function<std::string>(
            "--size", [&frames](const std::string& text) { frames.size = parseSize(text); },
            "Scale to this size; a side of -1 keeps the proportions")
        ->type_name("WxH");
    addAlgorithm(command, frames.algorithm);
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

/// How texts look. `style.given` becomes one of those that are given.
void addTextStyle(CLI::App& command, TextStyleOptions& style) {
    command
        .add_option_function<std::string>(
            "--font",
            [&style](const std::string& text) {
                style.font = text;
                style.given = "--font";
            },
            "Font file for texts; otherwise one is looked for in the folder fonts of\n"
            "$XDG_DATA_HOME (~/.local/share) and $XDG_DATA_DIRS (/usr/share and the like).\n"
            "What it lacks is drawn as a question mark")
        ->type_name("FILE");
    command
        .add_option_function<std::string>(
            "--font-size",
            [&style](const std::string& text) {
                style.size = static_cast<int>(parseNumber("--font-size", text, 1, largestFontSize));
                style.given = "--font-size";
            },
            "Height of the font in pixels; 24 otherwise")
        ->type_name("N");
    command
        .add_option_function<std::string>(
            "--font-color",
            [&style](const std::string& text) {
                style.color = text;
                style.given = "--font-color";
            },
            "Colour of texts; white otherwise. In frames a half-transparent one makes\n"
            "pictures that have alpha half-transparent there")
        ->type_name("COLOR");
    command
        .add_option_function<std::string>(
            "--background-color",
            [&style](const std::string& text) {
                style.background = text;
                style.given = "--background-color";
            },
            "Colour of a rectangle behind texts; there is none otherwise, nor with an alpha\n"
            "of 0. In frames it replaces what is there instead of blending with it")
        ->type_name("COLOR");
    command
        .add_option_function<std::string>(
            "--padding",
            [&style](const std::string& text) {
                style.padding = parsePadding(text);
                style.given = "--padding";
            },
            "Space around texts: left, top, right and bottom")
        ->type_name("L,T,R,B");
}

/// The notes are what is true of some pictures only.
void addDrawnOptions(CLI::App& command, DrawingOptions& drawing, const std::string& noteOnFills,
                     const std::string& noteOnTexts) {
    command
        .add_option("--fill", drawing.fills,
                    "Fill a rectangle, replacing what is there, also by a transparent colour.\n"
                    "May be given several times" +
                        noteOnFills)
        ->type_name("X,Y,W,H,COLOR")
        ->allow_extra_args(false);
    command
        .add_option("--overlay", drawing.overlays,
                    "Draw this picture by its alpha, its top left corner at X,Y, which may be\n"
                    "negative. May be given several times")
        ->type_name("FILE@X,Y")
        ->allow_extra_args(false);
    command
        .add_option("--text", drawing.texts,
                    "Write this text, its top left corner at X,Y, which may be negative; the\n"
                    "last @ in it is the one. " +
                        noteOnTexts + "May be given several times")
        ->type_name("TEXT@X,Y")
        ->allow_extra_args(false);
    addTextStyle(command, drawing.textStyle);
}

void addDrawingOptions(CLI::App& command, DrawingOptions& drawing) {
    command
        .add_option("--key", drawing.key,
                    "Replace what has about this colour by --background. SIMILARITY, 0 to 1\n"
                    "(0.2), is how far other colours may be from it, BLEND, 0 to 1 (0.02),\n"
                    "how softly the edge fades. Brightness does not count")
        ->type_name("COLOR[:SIMILARITY[:BLEND]]");
    command
        .add_option("--background", drawing.background,
                    "What shows where --key matches: a picture, which is scaled to the size\n"
                    "of the others, or a colour. A file of that name comes before a colour")
        ->type_name("FILE|COLOR");
    addDrawnOptions(command, drawing,
                    ". In 4:2:0, as most video is, and with --key\n"
                    "its edges are rounded down to even numbers",
                    "{pts} in the text is the picture's time from the\n"
                    "start of the input on, as HH:MM:SS.mmm. ");
}

CLI::App* addFrames(CLI::App& app, Options& options) {
    CLI::App* command = app.add_subcommand("frames", "Save the pictures of a video track as files");
    addInput(*command, options.frames.input, options);
    addPictureOptions(*command, options.frames);
    addDrawingOptions(*command, options.frames.drawing);
    addSelectionOptions(*command, options.frames);
    command->footer(
        "Decoders of video with B-frames hold pictures back, and are not drained at the end of the\n"
        "input: the last pictures of such video do not come out. Rotation is not applied.\n"
        "\n"
        "Every picture that goes into the filters gives one at most; what they still hold at the end\n"
        "does not come out. They see microseconds as if these were seconds: begin with\n"
        "settb=1/1000000,setpts=PTS/1000000 where time matters, as it does to fps. A graph is trusted:\n"
        "there are filters that read and write files.\n"
        "\n"
        "What is given is applied in this order: --filter, --size, --key over --background, every --fill,\n"
        "every --overlay, every --text, each in the order in which they are given. Positions are pixels\n"
        "of the pictures that are saved. Colours are names or hexadecimal: white, 0x00b140, red@0.5.\n"
        "Pictures that are drawn on become 4:2:0 if they are 4:2:0 or keyed, and RGBA otherwise.\n"
        "\n"
        "-o - writes a YUV4MPEG2 stream (Y4M) of 8-bit 4:2:0, 4:2:2 or 4:4:4, as the first picture is;\n"
        "later pictures get its size. Other formats become the one of these that has all of their chroma:\n"
        "gray 4:2:0, 4:1:1 4:2:2, 4:4:0, RGB and palettes 4:4:4, those of more bits the one of 8; alpha is\n"
        "left out. The rate is the track's average, or 25 where it has none, whatever --filter does.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg frames clip.mp4 -o thumbnail%d.jpg --start 1.5 --count 1 --size 320x-1\n"
        "  mkdir -p pictures && kvffmpeg frames clip.mp4 -o pictures/%05d.png\n"
        "  kvffmpeg frames clip.mp4 -o framed%d.png --filter \"crop=200:100,pad=220:120:10:10:white\"\n"
        "  kvffmpeg frames clip.mp4 -o titled%d.png --fill 0,140,320,40,navy --overlay logo.png@8,144\n"
        "  kvffmpeg frames studio.mp4 -o beach%d.jpg --key 0x00b140 --background beach.jpg\n"
        "  kvffmpeg frames clip.mp4 -o timed%d.png --text \"Take 3, {pts}@8,8\" --background-color black\n"
        "  kvffmpeg frames clip.mp4 -o - --text \"Take 3@8,8\" | ffmpeg -i - take3.mkv");
    return command;
}

void addOutput(CLI::App& command, PictureOutputOptions& output) {
    command
        .add_option("-o,--output", output.path,
                    "Name of the picture; its ending (.png, .jpg, .bmp) is the format.\n"
                    "A file that exists is overwritten. - is standard output")
        ->required()
        ->type_name("FILE");
    command
        .add_option_function<std::string>(
            "--to", [&output](const std::string& text) { output.format = text; },
            "Format of the picture on standard output, such as jpg or bmp; png otherwise")
        ->type_name("FORMAT");
}

CLI::App* addWaveform(CLI::App& app, Options& options) {
    WaveformOptions& waveform = options.waveform;
    CLI::App* command = app.add_subcommand("waveform", "Save a picture of the sound of an audio track");
    addInput(*command, waveform.input, options);
    addOutput(*command, waveform.output);
    command
        ->add_option_function<std::string>(
            "--size", [&waveform](const std::string& text) { waveform.size = parseExactSize(text); },
            "Size of the picture; 1280x240 otherwise")
        ->type_name("WxH");
    command
        ->add_option_function<std::string>(
            "--rate",
            [&waveform](const std::string& text) {
                constexpr unsigned int least = 100;
                constexpr unsigned int most = 768000;
                waveform.rate = parseNumber("--rate", text, least, most);
            },
            "Draw the sound resampled to this rate, 100 to 768000; 8000 otherwise. What\n"
            "is above half of it cannot be seen")
        ->type_name("HZ");
    command
        ->add_option_function<std::string>(
            "--track",
            [&waveform](const std::string& text) { waveform.track = parseNumber("--track", text, 0); },
            "Index of the audio track; the first one otherwise")
        ->type_name("I");
    command->footer(
        "The channels are mixed. Every column spans from the least to the greatest of its samples; the\n"
        "edges are full scale, and turn red where samples are clipped; the faint lines are at half of\n"
        "that, 6 dB below. Sound whose channels have no places (left, right, ...) is not drawn.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg waveform clip.mp4 -o wave.png\n"
        "  kvffmpeg waveform song.mp3 -o song.png --size 4000x400 --rate 44100");
    return command;
}

CLI::App* addSheet(CLI::App& app, Options& options) {
    SheetOptions& sheet = options.sheet;
    CLI::App* command =
        app.add_subcommand("sheet", "Save one picture of many pictures of a video track with their times");
    addInput(*command, sheet.input, options);
    addOutput(*command, sheet.output);
    command
        ->add_option_function<std::string>(
            "--grid", [&sheet](const std::string& text) { sheet.grid = parseGrid(text); },
            "Columns and rows, 1 to 100 each; 4x4 otherwise")
        ->type_name("CxR");
    command
        ->add_option_function<std::string>(
            "--width",
            [&sheet](const std::string& text) {
                sheet.width = static_cast<int>(parseNumber("--width", text, 1, longestSide));
            },
            "Width of the sheet in pixels; 1280 otherwise")
        ->type_name("W");
    command
        ->add_option("--font", sheet.font,
                     "Font file for the times; otherwise one is looked for in the folder fonts\n"
                     "of $XDG_DATA_HOME (~/.local/share) and $XDG_DATA_DIRS (/usr/share and\n"
                     "the like)")
        ->type_name("FILE");
    command
        ->add_option_function<std::string>(
            "--track", [&sheet](const std::string& text) { sheet.track = parseNumber("--track", text, 0); },
            "Index of the video track; the first one that is no cover picture otherwise")
        ->type_name("I");
    command->footer(
        "The pictures are evenly spaced, and are found by seeking. Where that does not give enough of\n"
        "them, as in inputs that cannot seek or do not know their duration, all of the input is read, and\n"
        "they are evenly spaced by number. An input with fewer pictures than there are places gives a\n"
        "smaller sheet. Times are HH:MM:SS.mmm from the start of the input on; where a picture is too\n"
        "small for its time, there is none. The first picture decides on the shape of all places.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg sheet clip.mp4 -o sheet.png\n"
        "  kvffmpeg sheet film.mkv -o film.jpg --grid 6x8 --width 1920");
    return command;
}

CLI::App* addText(CLI::App& app, Options& options) {
    TextOptions& text = options.text;
    CLI::App* command = app.add_subcommand("text", "Save a picture of a text");
    command->add_option("TEXT", text.text, "The text, in UTF-8; line feeds begin new lines")->required();
    addVerbosity(*command, options);
    addOutput(*command, text.output);
    addTextStyle(*command, text.style);
    command
        ->add_option("--raster-font", text.rasterFont,
                     "Picture of 16x16 equal cells, one for each byte of the text, in place of\n"
                     "--font and all else that says how texts look")
        ->type_name("FILE");
    command->footer(
        "The picture is as large as the text and its padding. Without --background-color it is transparent\n"
        "where no text is.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg text \"Hello, world!\" -o hello.png --font-size 48 --font-color gold\n"
        "  kvffmpeg text 3:2 -o score.jpg --background-color navy --padding 16,4,16,4\n"
        "  kvffmpeg text READY -o ready.png --raster-font glyphs.png");
    return command;
}

CLI::App* addCompose(CLI::App& app, Options& options) {
    ComposeOptions& compose = options.compose;
    CLI::App* command = app.add_subcommand("compose", "Put pictures and texts on a picture, and save that");
    command->add_option("BACKGROUND", compose.background.url,
                        "Picture file, URL, or - for standard input; of video its first picture.\n"
                        "Without it there is a canvas of one colour");
    command
        ->add_option("--format", compose.background.format,
                     "Format of the background, such as png_pipe, instead of probing")
        ->type_name("NAME");
    addVerbosity(*command, options);
    addOutput(*command, compose.output);
    command
        ->add_option_function<std::string>(
            "--size", [&compose](const std::string& text) { compose.size = text; },
            "Scale the background to this size; a side of -1 keeps the proportions.\n"
            "Without a background the size of the canvas")
        ->type_name("WxH");
    command
        ->add_option_function<std::string>(
            "--color", [&compose](const std::string& text) { compose.color = text; },
            "Colour of the canvas; transparent otherwise")
        ->type_name("COLOR");
    addAlgorithm(*command, compose.algorithm);
    addDrawnOptions(*command, compose.drawing, "", "");
    command->footer(
        "What is given is applied in this order: --size, every --fill, every --overlay, every --text, each\n"
        "in the order in which they are given. All is drawn in RGBA. Fills replace what is there; what is\n"
        "transparent in overlays and texts, and in the background of texts, shows what is below.\n"
        "Colours are names or hexadecimal: white, 0x00b140, red@0.5.\n"
        "\n"
        "Examples:\n"
        "  kvffmpeg compose beach.jpg -o card.png --overlay logo.png@16,16 --text \"Summer@16,200\"\n"
        "  kvffmpeg compose -o tile.png --size 320x180 --color navy --overlay badge.png@130,60\n"
        "  kvffmpeg compose beach.jpg -o - --to jpg --size 320x-1 --fill 0,0,320,24,black > small.jpg");
    return command;
}

/// Newer releases of CLI11 break the lines of help texts anew unless they are told not to; older ones have
/// nothing to tell.
template <typename Formatter>
auto keepLines(Formatter& formatter, int /*preferred*/)
    -> decltype(formatter.enable_footer_formatting(false), formatter.right_column_width(0)) {
    constexpr std::size_t longerThanAnyLine = 200;
    formatter.enable_footer_formatting(false);
    formatter.right_column_width(longerThanAnyLine);
}
template <typename Formatter>
void keepLines(Formatter& /*formatter*/, long /*otherwise*/) {}

void execute(int argc, char** argv) {
    Options options;
    CLI::App app("Describes media, saves pictures from video, and draws sound, text and pictures.",
                 "kvffmpeg");
    keepLines(*app.get_formatter(), 0);  // the commands' too
    app.set_version_flag("--version", versionText(), "Print the version and exit");
    addVerbosity(app, options);
    app.require_subcommand(1);
    const CLI::App* probeCommand = addProbe(app, options);
    const CLI::App* framesCommand = addFrames(app, options);
    const CLI::App* sheetCommand = addSheet(app, options);
    const CLI::App* waveformCommand = addWaveform(app, options);
    const CLI::App* textCommand = addText(app, options);
    addCompose(app, options);
    app.footer(
        "Run \"kvffmpeg COMMAND --help\" for its options and examples.\n"
        "\n"
        "Exit codes: 0 done, 1 the input or the output failed, 2 wrong usage, 128 + the signal that ended\n"
        "it: 130 for Ctrl-C, 141 when nobody reads its standard output any more.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {  // --help and --version
        app.exit(request, std::cout, std::cerr);
        return flushOutput();
    }
    setUpLogging(verbosityOf(options));
    if (probeCommand->parsed()) return probe(options.probe);
    if (framesCommand->parsed()) return saveFrames(options.frames);
    if (sheetCommand->parsed()) return saveSheet(options.sheet);
    if (waveformCommand->parsed()) return saveWaveform(options.waveform);
    if (textCommand->parsed()) return saveText(options.text);
    savePictureOfPictures(options.compose);
}

int fail(const std::string& text, int exitCode) {
    endLogLine();
    const std::string reason = takeGathered();
    report("kvffmpeg: " + text + (reason.empty() ? "" : ": " + reason));
    return exitCode;
}

int endInterrupted() {
    endLogLine();
    report("Interrupted");
    return 128 + receivedSignal();
}

int run(int argc, char** argv) {
    try {
        occupyStandardStreams();
        installSignalHandlers();
        execute(argc, argv);
        const std::string warning = takeGathered();
        if (!warning.empty()) report("kvffmpeg: warning: " + warning);
        return 0;
    } catch (const Interrupted&) {
        return endInterrupted();
    } catch (const BrokenPipe&) {
        return 128 + SIGPIPE;  // as if the signal had ended it, and as quietly
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
