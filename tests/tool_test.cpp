#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/loopback_server.h"
#include "support/media.h"
#include "support/tool_fixture.h"

namespace kvffmpeg {
namespace {

using nlohmann::json;
using test::Arguments;
using test::Descriptor;
using test::expectRefusal;
using test::Fifo;
using test::linesOf;
using test::Result;
using test::run;
using test::ToolProcess;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class ToolTest : public test::ToolFixture {};

// General.

TEST_F(ToolTest, VersionNamesToolAndLibraries) {
    const Result result = run({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, StartsWith("kvffmpeg " KVFFMPEG_VERSION "\nlibavformat "));
    EXPECT_EQ(result.err, "");
}

TEST_F(ToolTest, HelpNamesTheCommands) {
    const Result result = run({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out,
                AllOf(HasSubstr("probe"), HasSubstr("frames"), HasSubstr("sheet"), HasSubstr("waveform"),
                      HasSubstr("text"), HasSubstr("compose"), HasSubstr("--quiet")));
    EXPECT_EQ(result.err, "");
}

TEST_F(ToolTest, EachCommandHasHelpWithExamples) {
    for (const std::string command : {"probe", "frames", "sheet", "waveform", "text", "compose"}) {
        const Result result = run({command, "--help"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.out, HasSubstr("Examples:\n  kvffmpeg " + command));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(ToolTest, HelpOfFramesSaysThatTheLastPicturesOfBFrameVideoAreMissing) {
    EXPECT_THAT(run({"frames", "--help"}).out, HasSubstr("the last pictures of such video do not come out"));
}

TEST_F(ToolTest, MistakesInTheCommandLineGiveTwoAndOneLine) {
    const std::string clip = makeSound("sound.wav");
    const std::vector<Arguments> mistakes = {
        {},
        {"convert", clip},
        {"probe"},
        {"probe", "--colour", clip},
        {"probe", clip, clip},
        {"probe", "--format", "nosuch", clip},
        {"probe", "--format", "nosuch", file("missing")},
        {"frames", clip},
        {"waveform", clip},
        {"waveform", "-o", file("wave.png")},
        {"compose", clip},
        {"compose", clip, clip, "-o", file("out.png")},
    };
    for (const Arguments& arguments : mistakes) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(linesOf(result.err), ElementsAre(StartsWith("kvffmpeg: ")));
    }
}

TEST_F(ToolTest, MissingInputGivesOneAndOneLine) {
    for (const Arguments& arguments :
         {Arguments{"probe", file("missing")}, Arguments{"frames", file("missing"), "-o", file("%d.png")}}) {
        expectRefusal(run(arguments), 1, file("missing") + ": can't open input file");
    }
}

TEST_F(ToolTest, FileThatIsNoMediaGivesOneAndOneLine) {
    test::writeFile(file("text"), std::vector<std::uint8_t>(5000, 'x'));
    expectRefusal(run({"probe", file("text")}), 1, file("text") + ": can't open input file");
}

TEST_F(ToolTest, ControlCharactersOfArgumentsDoNotReachTheTerminal) {
    expectRefusal(run({"probe", "no\x1b[31m\nsuch\xff"}), 1,
                  "no\xEF\xBF\xBD[31m such\xEF\xBF\xBD: can't open input file");
}

TEST_F(ToolTest, OutputThatDoesNotGetThroughIsAFailure) {
    const std::string sound = makeSound("sound.wav");
    const std::string expected = "kvffmpeg: Could not write to standard output\n";
    {
        SCOPED_TRACE("full");
        const Descriptor full(open("/dev/full", O_WRONLY));
        const Result result = ToolProcess({"probe", sound}, {{full.get(), STDOUT_FILENO}}).wait();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, expected);
    }
    {
        SCOPED_TRACE("closed");
        const Result result = ToolProcess({"--help"}, {}, {STDOUT_FILENO}).wait();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, expected);
    }
}

// probe.

TEST_F(ToolTest, ProbeWritesAlignedText) {
    const std::string sound = makeSound("sound.wav");
    const Result result = run({"probe", "--packets", sound});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(linesOf(result.out),
                ElementsAre("Input:       " + sound,                              //
                            "Format:      wav (WAV / WAVE (Waveform Audio))",     //
                            "Duration:    00:00:00.500",                          //
                            StartsWith("Start:       "),                          //
                            "Track 0:     audio, pcm_s16le, 8000 Hz, mono, s16",  //
                            testing::MatchesRegex("             [0-9]+ packets?, [0-9]+ key frames?")));
}

TEST_F(ToolTest, ProbeTextNamesTracksAndMetadata) {
    const std::string clip = makeClip("clip.mkv",
                                      "-c:v mpeg4 -metadata title=Grays -metadata:s:a language=deu "
                                      "-metadata:s:v title=Steps");
    const Result result = run({"probe", clip});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr("\nTrack 0:     video, mpeg4, 64x48, yuv420p, 10 fps, \"Steps\""),
                                  HasSubstr("\nTrack 1:     audio, mp2, 48000 Hz, mono, "),
                                  HasSubstr(", deu"), HasSubstr("\n  title:   Grays\n")));
}

TEST_F(ToolTest, ProbeTextHasNoControlCharactersOfTheInput) {
    const std::string sound = makeSound("sound.mkv", "-metadata title=\"$(printf 'a\\033[31mb\\nc')\"");
    EXPECT_THAT(run({"probe", sound}).out, HasSubstr(" a\xEF\xBF\xBD[31mb c\n"));
}

TEST_F(ToolTest, ProbeWritesJson) {
    const std::string clip =
        // Sound without a delay of the encoder: newer releases let such sound begin before 0.
        makeClip("clip.mkv", "-c:v mpeg4 -c:a pcm_s16le -metadata:s:a language=deu -metadata title=Grays");
    const Result result = run({"probe", "--json", clip});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    const json description = json::parse(result.out);
    EXPECT_EQ(description.at("input"), clip);
    EXPECT_EQ(description.at("format"), "matroska,webm");
    EXPECT_EQ(description.at("start_us"), 0);
    EXPECT_TRUE(description.at("time_origin").is_null());
    EXPECT_TRUE(description.at("time_origin_us").is_null());
    EXPECT_FALSE(description.at("streamed").get<bool>());
    EXPECT_EQ(description.at("metadata").at("title"), "Grays");
    ASSERT_EQ(description.at("tracks").size(), 2u);
    EXPECT_FALSE(description.at("tracks")[0].contains("packets"));
}

/// The keys of an object, in their order.
std::vector<std::string> keysOf(const nlohmann::ordered_json& object) {
    std::vector<std::string> keys;
    for (const auto& entry : object.items()) keys.push_back(entry.key());
    return keys;
}

// What is documented in the manual page: whoever changes these changes what programs rely on.
TEST_F(ToolTest, ProbeJsonHasTheseKeys) {
    const std::string subtitles = file("subtitles.srt");
    const std::string text = "1\n00:00:00,000 --> 00:00:01,000\nHello\n";
    test::writeFile(subtitles, {text.begin(), text.end()});
    const std::string clip = file("clip.mkv");
    test::runFFmpeg("-i " + makeClip("plain.mkv") + " -i " + subtitles +
                    " -map 0 -map 1 -c:v copy -c:a copy -c:s srt " + clip);
    const std::vector<std::string> start{"index", "type", "codec"};
    const std::vector<std::string> video{"width",           "height",     "pixel_format",
                                         "color_range",     "frame_rate", "frame_rate_fraction",
                                         "attached_picture"};
    const std::vector<std::string> audio{"sample_rate", "channels", "channel_layout", "sample_format"};
    const std::vector<std::string> end{"bit_rate", "duration", "duration_us", "default",
                                       "language", "title",    "metadata"};
    const std::vector<std::string> counts{"packets", "key_frames"};
    for (const bool counted : {false, true}) {
        Arguments arguments{"probe", "--json", clip};
        if (counted) arguments.emplace_back("--packets");
        const auto description = nlohmann::ordered_json::parse(run(arguments).out);
        EXPECT_THAT(keysOf(description),
                    ElementsAre("input", "format", "format_description", "duration", "duration_us", "start",
                                "start_us", "time_origin", "time_origin_us", "bit_rate", "streamed",
                                "metadata", "tracks"));
        const auto& tracks = description.at("tracks");
        ASSERT_EQ(tracks.size(), 3u);
        const std::vector<std::vector<std::string>> own{video, audio, {}};
        for (std::size_t i = 0; i < own.size(); ++i) {
            std::vector<std::string> wanted = start;
            wanted.insert(wanted.end(), own[i].begin(), own[i].end());
            wanted.insert(wanted.end(), end.begin(), end.end());
            if (counted) wanted.insert(wanted.end(), counts.begin(), counts.end());
            EXPECT_EQ(keysOf(tracks[i]), wanted) << i;
        }
    }
}

TEST_F(ToolTest, ProbeJsonDescribesVideo) {
    const std::string clip = makeClip("clip.mkv", "-c:v mpeg4 -metadata:s:v title=Steps");
    const json track = json::parse(run({"probe", "--json", clip}).out).at("tracks")[0];
    EXPECT_EQ(track.at("index"), 0);
    EXPECT_EQ(track.at("type"), "video");
    EXPECT_EQ(track.at("codec"), "mpeg4");
    EXPECT_EQ(track.at("width"), 64);
    EXPECT_EQ(track.at("height"), 48);
    EXPECT_EQ(track.at("pixel_format"), "yuv420p");
    EXPECT_EQ(track.at("frame_rate"), 10.0);
    EXPECT_EQ(track.at("frame_rate_fraction"), "10/1");
    EXPECT_EQ(track.at("title"), "Steps");
    EXPECT_TRUE(track.at("language").is_null());
    EXPECT_FALSE(track.contains("sample_rate"));
}

TEST_F(ToolTest, ProbeJsonDescribesAudio) {
    const std::string clip = makeClip("clip.mkv", "-c:v mpeg4 -ac 2 -metadata:s:a language=deu");
    const json track = json::parse(run({"probe", "--json", clip}).out).at("tracks")[1];
    EXPECT_EQ(track.at("type"), "audio");
    EXPECT_EQ(track.at("codec"), "mp2");
    EXPECT_EQ(track.at("sample_rate"), 48000);
    EXPECT_EQ(track.at("channels"), 2);
    EXPECT_EQ(track.at("channel_layout"), "stereo");
    EXPECT_EQ(track.at("language"), "deu");
    EXPECT_EQ(track.at("metadata").at("language"), "deu");
    EXPECT_FALSE(track.contains("width"));
}

TEST_F(ToolTest, ProbeJsonHasSecondsAndExactMicroseconds) {
    const json description = json::parse(run({"probe", "--json", makeSound("sound.wav")}).out);
    EXPECT_TRUE(description.at("duration").is_number_float());
    EXPECT_EQ(description.at("duration"), 0.5);
    EXPECT_TRUE(description.at("duration_us").is_number_integer());
    EXPECT_EQ(description.at("duration_us"), 500000);
}

TEST_F(ToolTest, ProbeJsonHasNullForWhatIsNotKnown) {
    test::runFFmpeg("-f lavfi -i color=red:size=8x8 -frames:v 1 " + file("still.png"));
    const json description = json::parse(run({"probe", "--json", file("still.png")}).out);
    EXPECT_TRUE(description.at("bit_rate").is_null());
    EXPECT_TRUE(description.at("tracks")[0].at("language").is_null());
}

TEST_F(ToolTest, ProbeJsonIsValidWhateverTheBytesOfTheInput) {
    const std::string sound = makeSound("sound.mkv", "-metadata title=xyz");
    std::vector<std::uint8_t> bytes = test::readFile(sound);
    const std::string title = "xyz";
    const auto position = std::search(bytes.begin(), bytes.end(), title.begin(), title.end());
    ASSERT_NE(position, bytes.end());
    *(position + 1) = 0xff;
    test::writeFile(sound, bytes);
    const Result result = run({"probe", "--json", sound});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(json::parse(result.out).at("metadata").at("title"), "x\xEF\xBF\xBDz");
}

TEST_F(ToolTest, ProbeTellsTheTimeOrigin) {
    const std::string clip = makeClip("clip.mkv", "-c:v mpeg4 -metadata timeorigin=1500000000000001");
    const json description = json::parse(run({"probe", "--json", clip}).out);
    EXPECT_EQ(description.at("time_origin_us"), 1500000000000001);
    EXPECT_DOUBLE_EQ(description.at("time_origin").get<double>(), 1500000000.000001);
    EXPECT_THAT(run({"probe", clip}).out, HasSubstr("\nTime origin: 1500000000.000001 s\n"));
}

TEST_F(ToolTest, ProbeCountsPacketsAndKeyFrames) {
    const std::string clip = makeClip("clip.ts", "-c:v mpeg4 -g 5");
    const json tracks = json::parse(run({"probe", "--json", "--packets", clip}).out).at("tracks");
    EXPECT_EQ(tracks[0].at("packets"), 20);
    EXPECT_EQ(tracks[0].at("key_frames"), 20);  // the library's rule for video other than H.264
    EXPECT_EQ(tracks[1].at("packets"), 84);
    EXPECT_EQ(tracks[1].at("key_frames"), 84);
}

TEST_F(ToolTest, ProbeCountsKeyFramesOfRealH264) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const json annexB =
        json::parse(run({"probe", "--json", "--packets", test::sampleMedia("h264.ts")}).out).at("tracks")[0];
    EXPECT_EQ(annexB.at("packets"), 30);
    EXPECT_EQ(annexB.at("key_frames"), 3);
    const json lengths =
        json::parse(run({"probe", "--json", "--packets", test::sampleMedia("h264_pyramid.mp4")}).out)
            .at("tracks")[0];
    EXPECT_EQ(lengths.at("packets"), 120);
    EXPECT_EQ(lengths.at("key_frames"), 0);
}

TEST_F(ToolTest, ProbeReadsStandardInput) {
    const Descriptor sound(open(makeSound("sound.wav").c_str(), O_RDONLY));
    const Result result = ToolProcess({"probe", "-", "--json"}, {{sound.get(), STDIN_FILENO}}).wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(json::parse(result.out).at("format"), "wav");
}

TEST_F(ToolTest, FormatReplacesProbing) {
    const Result result = run({"probe", "--json", "--format", "s16le", makeSound("sound.wav")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(json::parse(result.out).at("format"), "s16le");
}

// Verbosity.

TEST_F(ToolTest, VeryVerboseTellsWhatTheLibraryDoes) {
    const std::string sound = makeSound("sound.wav");
    for (const Arguments& arguments :
         {Arguments{"-vv", "probe", sound}, Arguments{"probe", sound, "-vv"},
          Arguments{"-v", "probe", sound, "--verbose"}, Arguments{"-vvv", "probe", sound}}) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(linesOf(result.err), testing::Contains("kvffmpeg: " + sound + " opened, time origin 0"));
    }
}

TEST_F(ToolTest, VerboseTellsWhyFFmpegFailed) {
    const std::string clip = makeClip("clip.mkv");
    const std::string failure = "kvffmpeg: --filter \"nosuch\": Cannot parse filter spec";
    const Arguments command{"frames", clip, "-o", file("%d.png"), "--filter", "nosuch"};
    EXPECT_THAT(linesOf(run(command).err), ElementsAre(failure));
    Arguments before = command;
    before.insert(before.begin(), "-v");
    Arguments behind = command;
    behind.emplace_back("--verbose");
    for (const Arguments& arguments : {before, behind}) {
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, AllOf(HasSubstr("FFmpeg: error: No such filter: 'nosuch'\n"),
                                      EndsWith("\n" + failure + "\n")));
    }
}

TEST_F(ToolTest, VerboseLeavesTheDetailsOut) {
    const std::string sound = makeSound("sound.wav");
    EXPECT_THAT(run({"-v", "probe", sound}).err, testing::Not(HasSubstr("opened, time origin")));
}

TEST_F(ToolTest, PiecesOfFFmpegsLinesAreJoined) {
    // The filter logs a line for each picture, in pieces.
    const Result result = run(
        {"-v", "frames", makeClip("clip.mkv"), "-o", file("%d.png"), "--count", "3", "--filter", "showinfo"});
    EXPECT_EQ(result.exitCode, 0);
    std::vector<std::string> pictures;
    for (const std::string& line : linesOf(result.err)) {
        EXPECT_THAT(line, AllOf(StartsWith("FFmpeg: "), testing::Not("FFmpeg: ")));
        if (line.find(" pts:") != std::string::npos) pictures.push_back(line);
    }
    const auto line = [](const std::string& number) {
        return AllOf(HasSubstr("n:   " + number + " "), HasSubstr("plane_checksum:["), HasSubstr("] mean:["));
    };
    EXPECT_THAT(pictures, ElementsAre(line("0"), line("1"), line("2")));
}

TEST_F(ToolTest, QuietLeavesWarningsOut) {
    const Arguments loud{"waveform", makeDamagedSound("damaged.mka"), "-o", file("wave.png")};
    EXPECT_THAT(run(loud).err, StartsWith("kvffmpeg: warning: Could not decode audio from "));
    for (const bool before : {true, false}) {
        Arguments arguments = loud;
        arguments.insert(before ? arguments.begin() : arguments.end(), "--quiet");
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.out, StartsWith(file("wave.png") + ": "));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(ToolTest, QuietTellsErrors) {
    expectRefusal(run({"--quiet", "probe", file("missing")}), 1, file("missing") + ": can't open input file");
    expectRefusal(run({"--quiet", "frames", makeClip("clip.mkv"), "-o", "%s.png"}), 2,
                  "--output \"%s.png\": only %d, %5d, %05d and %% can follow a percent sign");
}

TEST_F(ToolTest, QuietAndVerboseExcludeEachOther) {
    const std::string sound = makeSound("sound.wav");
    for (const Arguments& arguments :
         {Arguments{"--quiet", "probe", sound, "-v"}, Arguments{"probe", sound, "-vv", "--quiet"}}) {
        expectRefusal(run(arguments), 2, "--quiet and --verbose exclude each other");
    }
}

// Progress.

TEST_F(ToolTest, ProgressIsShownOnATerminal) {
    const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(terminal.get()), 0);
    ASSERT_EQ(unlockpt(terminal.get()), 0);
    const Descriptor line(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY));
    const Result result =
        ToolProcess({"probe", "--packets", makeSound("sound.wav")}, {{line.get(), STDERR_FILENO}}).wait();
    EXPECT_EQ(result.exitCode, 0);
    char text[4096] = {};
    ASSERT_GT(read(terminal.get(), text, sizeof text - 1), 0);
    // Drawn, and taken away at the end.
    EXPECT_THAT(std::string(text), AllOf(StartsWith("\r1 packet"), EndsWith("\r\033[K")));
}

TEST_F(ToolTest, QuietShowsNoProgress) {
    const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(terminal.get()), 0);
    ASSERT_EQ(unlockpt(terminal.get()), 0);
    const Descriptor line(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY | O_NONBLOCK));
    const Result result =
        ToolProcess({"--quiet", "probe", "--packets", makeSound("sound.wav")}, {{line.get(), STDERR_FILENO}})
            .wait();
    EXPECT_EQ(result.exitCode, 0);
    ASSERT_EQ(fcntl(terminal.get(), F_SETFL, O_NONBLOCK), 0);
    char text[4096] = {};
    EXPECT_LE(read(terminal.get(), text, sizeof text - 1), 0) << text;
}

// Signals.

TEST_F(ToolTest, SignalsEndAStalledRead) {
    const std::vector<std::uint8_t> clip = test::readFile(makeClip("clip.ts"));
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const Fifo fifo(file("pipe" + std::to_string(signal)));
        ToolProcess tool({"probe", "--packets", fifo.path()});
        fifo.write({clip.begin(), clip.begin() + 1880});
        ASSERT_TRUE(test::waitUntil([&] { return fifo.isDrained(); }));
        tool.send(signal);
        const Result result = tool.wait();
        EXPECT_EQ(result.exitCode, 128 + signal);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "Interrupted\n");
    }
}

TEST_F(ToolTest, InterruptEndsAReadFromAPeerThatSaysNothing) {
    const test::StalledServer server({'x'});
    ToolProcess tool({"frames", "--format", "mpegts", server.url(), "-o", file("%d.png")});
    server.waitUntilGreeted();
    tool.send(SIGINT);
    const Result result = tool.wait();
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.err, "Interrupted\n");
}

}  // namespace
}  // namespace kvffmpeg
