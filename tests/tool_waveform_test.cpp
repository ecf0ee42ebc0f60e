#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/media.h"
#include "support/tool_fixture.h"

namespace kvffmpeg {
namespace {

using test::Descriptor;
using test::expectRefusal;
using test::Fifo;
using test::Result;
using test::run;
using test::ToolProcess;
using testing::AllOf;
using testing::Each;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

using Colour = std::array<int, 3>;

const Colour background{0x12, 0x17, 0x1f};
const Colour halfScale{0x22, 0x2b, 0x37};
const Colour middle{0x2f, 0x7d, 0x92};
const Colour wave{0x5c, 0xc8, 0xdf};
const Colour clipped{0xff, 0x4d, 0x4d};

Colour colourAt(const Picture& picture, int x, int y) {
    const unsigned char* pixel =
        picture.getPlanes()[0] + std::ptrdiff_t{y} * picture.getLinesize()[0] + std::ptrdiff_t{x} * 3;
    return {pixel[0], pixel[1], pixel[2]};
}

/// The uppermost and the lowest row of a column with something of the sound in it; {-1, -1} without any.
std::pair<int, int> soundIn(const Picture& picture, int x) {
    std::pair<int, int> rows{-1, -1};
    for (int y = 0; y < picture.height(); ++y) {
        const Colour colour = colourAt(picture, x, y);
        if (colour != wave && colour != clipped) continue;
        if (rows.first < 0) rows.first = y;
        rows.second = y;
    }
    return rows;
}

/// For columns `first` to `last`: the uppermost row, or the lowest one, with sound in it.
std::vector<int> topsOf(const Picture& picture, int first, int last) {
    std::vector<int> rows;
    for (int x = first; x <= last; ++x) rows.push_back(soundIn(picture, x).first);
    return rows;
}
std::vector<int> bottomsOf(const Picture& picture, int first, int last) {
    std::vector<int> rows;
    for (int x = first; x <= last; ++x) rows.push_back(soundIn(picture, x).second);
    return rows;
}

std::vector<int> columnsWith(const Picture& picture, const Colour& colour) {
    std::vector<int> columns;
    for (int x = 0; x < picture.width(); ++x) {
        bool found = false;
        for (int y = 0; y < picture.height(); ++y) found = found || colourAt(picture, x, y) == colour;
        if (found) columns.push_back(x);
    }
    return columns;
}

class ToolWaveformTest : public test::ToolFixture {
protected:
    /// Mono or more PCM from expressions of time t and sample number n, one for each channel.
    std::string makeWave(const std::string& name, const std::string& expressions, const std::string& duration,
                         int rate = 8000) const {
        const std::string path = file(name);
        test::runFFmpeg("-f lavfi -i \"aevalsrc=exprs='" + expressions + "':s=" + std::to_string(rate) +
                        ":d=" + duration + "\" -c:a pcm_s16le " + path);
        return path;
    }

    /// Draws it and reads the picture. `options` come last.
    Picture draw(const std::string& input, const test::Arguments& options = {}) {
        test::Arguments arguments{"waveform", input, "-o", file("wave.png")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        result_ = run(arguments);
        EXPECT_EQ(result_.exitCode, 0);
        EXPECT_EQ(result_.err, "");
        const Picture picture = loadPicture(file("wave.png"));
        EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_RGB24);
        return picture;
    }

    /// What the last `draw` wrote behind the name of the picture.
    std::string summary() const {
        const std::string start = file("wave.png") + ": ";
        EXPECT_THAT(result_.out, StartsWith(start));
        return result_.out.substr(start.size());
    }

private:
    Result result_;
};

// The picture.

TEST_F(ToolWaveformTest, SineFillsItsAmplitude) {
    const Picture picture =
        draw(makeWave("sine.wav", "0.5*sin(2*PI*440*t)", "1"), {"--size", "100x200"});  // 4 periods a column
    EXPECT_EQ(picture.size(), (rect_size_t{100, 200}));
    EXPECT_THAT(topsOf(picture, 0, 99), Each(AllOf(testing::Ge(49), testing::Le(52))));
    EXPECT_THAT(bottomsOf(picture, 0, 99), Each(AllOf(testing::Ge(147), testing::Le(149))));
    for (int y = 60; y < 140; ++y) EXPECT_EQ(colourAt(picture, 40, y), y == 99 ? middle : wave) << y;
    EXPECT_EQ(summary(), "100x200, 00:00:01.000, peak -6.0 dB\n");
}

TEST_F(ToolWaveformTest, ColumnsFollowTime) {
    const Picture picture =
        draw(makeWave("parts.wav", "if(lt(t,1), 0.9*sin(2*PI*440*t), 0)", "2"), {"--size", "200x100"});
    EXPECT_THAT(topsOf(picture, 0, 99), Each(testing::Le(6)));
    EXPECT_THAT(bottomsOf(picture, 0, 99), Each(testing::Ge(93)));
    EXPECT_THAT(topsOf(picture, 100, 199), Each(-1));
}

TEST_F(ToolWaveformTest, SilenceIsTheMiddleLine) {
    const Picture picture = draw(makeWave("silence.wav", "0", "1"));
    EXPECT_EQ(picture.size(), (rect_size_t{1280, 240}));
    for (int y = 0; y < 240; ++y) {
        const Colour expected = y == 119 ? middle : y == 60 || y == 179 ? halfScale : background;
        for (const int x : {0, 1, 640, 1279}) ASSERT_EQ(colourAt(picture, x, y), expected) << x << ", " << y;
    }
    EXPECT_THAT(columnsWith(picture, wave), testing::IsEmpty());
    EXPECT_EQ(summary(), "1280x240, 00:00:01.000, silent\n");
}

TEST_F(ToolWaveformTest, ConstantSoundIsALineOfOnePixel) {
    const Picture picture = draw(makeWave("constant.wav", "0.25", "1"), {"--size", "64x160"});
    EXPECT_THAT(topsOf(picture, 0, 63), Each(59));
    EXPECT_THAT(bottomsOf(picture, 0, 63), Each(59));
}

TEST_F(ToolWaveformTest, ClippedSamplesAreRedAtTheEdges) {
    // Above in the first half, below in the second.
    const Picture picture =
        draw(makeWave("loud.wav", "if(lt(t,0.5), 2, -2)*abs(sin(2*PI*5*t))", "1"), {"--size", "100x200"});
    const std::vector<int> columns = columnsWith(picture, clipped);
    EXPECT_THAT(columns, testing::SizeIs(testing::Ge(60u)));
    for (const int x : columns) {
        EXPECT_EQ(colourAt(picture, x, x < 50 ? 0 : 199), clipped) << x;
        EXPECT_NE(colourAt(picture, x, x < 50 ? 199 : 0), clipped) << x;
        EXPECT_NE(colourAt(picture, x, x < 50 ? 5 : 194), clipped) << x;
    }
    EXPECT_THAT(summary(), MatchesRegex("100x200, 00:00:01\\.000, peak 0\\.0 dB, [0-9]+ clipped samples\n"));
}

TEST_F(ToolWaveformTest, CountsClippedSamples) {
    draw(makeWave("spike.wav", "if(eq(n,100), -2, 0)", "1"));
    EXPECT_EQ(summary(), "1280x240, 00:00:01.000, peak 0.0 dB, 1 clipped sample\n");
    draw(makeWave("spikes.wav", "if(eq(n,100), -2, if(eq(n,200), 2, 0.1))", "1"));
    EXPECT_EQ(summary(), "1280x240, 00:00:01.000, peak 0.0 dB, 2 clipped samples\n");
}

TEST_F(ToolWaveformTest, SteepWavesAreUnbroken) {
    // Ten columns for each sample.
    const Picture picture =
        draw(makeWave("steps.wav", "if(mod(n,2), 0.8, -0.8)", "0.002"), {"--size", "160x100"});
    std::pair<int, int> previous = soundIn(picture, 0);
    for (int x = 1; x < picture.width(); ++x) {
        const std::pair<int, int> rows = soundIn(picture, x);
        EXPECT_LE(rows.first, previous.second + 1) << x;
        EXPECT_GE(rows.second, previous.first - 1) << x;
        EXPECT_EQ(rows.second - rows.first > 50, x % 10 == 0) << x;
        previous = rows;
    }
}

TEST_F(ToolWaveformTest, LongSoundsStayInPlace) {
    // Longer than what is kept sample by sample.
    const Picture picture =
        draw(makeWave("long.wav", "if(eq(n,1200000), 0.9, 0)", "200"), {"--size", "1000x100"});
    EXPECT_THAT(columnsWith(picture, wave), testing::ElementsAre(750));
    EXPECT_EQ(summary(), "1000x100, 00:03:20.000, peak -0.9 dB\n");
}

TEST_F(ToolWaveformTest, TakesTheSmallestSizes) {
    const std::string sound = makeSound("sound.wav");
    for (const std::string size : {"1x1", "1x100", "100x1", "3x2"}) {
        const Picture picture = draw(sound, {"--size", size});
        EXPECT_EQ(std::to_string(picture.width()) + "x" + std::to_string(picture.height()), size);
    }
}

TEST_F(ToolWaveformTest, TakesTheFormatFromTheEnding) {
    ASSERT_EQ(run({"waveform", makeSound("sound.wav"), "-o", file("wave.jpg")}).exitCode, 0);
    const std::vector<std::uint8_t> bytes = test::readFile(file("wave.jpg"));
    ASSERT_GT(bytes.size(), 2u);
    EXPECT_EQ(bytes[0], 0xff);
    EXPECT_EQ(bytes[1], 0xd8);
}

// The sound.

TEST_F(ToolWaveformTest, RateLimitsWhatCanBeSeen) {
    const std::string sound = makeWave("high.wav", "0.5*sin(2*PI*6000*t)", "1", 44100);
    const test::Arguments size{"--size", "100x200"};
    EXPECT_THAT(topsOf(draw(sound, {"--size", "100x200", "--rate", "44100"}), 5, 95),
                Each(AllOf(testing::Ge(49), testing::Le(52))));
    // Above half of 8000 Hz, but for what the edges of the sound let through.
    EXPECT_THAT(topsOf(draw(sound, size), 5, 95), Each(testing::AnyOf(-1, testing::Ge(98))));
}

TEST_F(ToolWaveformTest, ResamplingKeepsTheLength) {
    const std::string sound = makeWave("sound.wav", "0.5*sin(2*PI*100*t)", "1", 44100);
    for (const std::string rate : {"4000", "8000", "44100", "48000", "192000"}) {
        const Picture picture = draw(sound, {"--size", "50x200", "--rate", rate});
        EXPECT_THAT(summary(), MatchesRegex("50x200, 00:00:01\\.00[01], peak -6\\.[01] dB\n")) << rate;
        EXPECT_THAT(topsOf(picture, 1, 48), Each(AllOf(testing::Ge(49), testing::Le(52)))) << rate;
    }
}

TEST_F(ToolWaveformTest, SamplesThatTheResamplerHoldsBackAreDrawn) {
    // Each sample at this rate takes more of the input than a packet has.
    draw(makeWave("slow.wav", "0.5*sin(2*PI*2*t)", "2", 96000), {"--rate", "100"});
    EXPECT_THAT(summary(), MatchesRegex("1280x240, 00:00:02\\.0[01]0, peak -[56]\\.[0-9] dB\n"));
}

TEST_F(ToolWaveformTest, MixesTheChannels) {
    const std::string opposite = makeWave("opposite.wav", "0.5*sin(2*PI*440*t)|-0.5*sin(2*PI*440*t)", "1");
    draw(opposite);
    EXPECT_EQ(summary(), "1280x240, 00:00:01.000, silent\n");
}

TEST_F(ToolWaveformTest, MixesThePlanesOfPlanarSound) {
    // ALAC decodes to one plane for each channel.
    test::runFFmpeg("-f lavfi -i \"aevalsrc='0|0.5*sin(2*PI*440*t)':s=8000:d=1\" -c:a alac " +
                    file("right.m4a"));
    draw(file("right.m4a"));
    EXPECT_THAT(summary(), EndsWith(", peak -12.0 dB\n"));
}

TEST_F(ToolWaveformTest, DrawsAllBuffersOfAPacket) {
    // The demuxer gives several blocks of ADPCM at once, the decoder one buffer for each.
    test::runFFmpeg("-f lavfi -i \"aevalsrc='0.5*sin(2*PI*440*t)':s=22050:d=10\" -c:a adpcm_ima_wav " +
                    file("blocks.wav"));
    const Picture picture = draw(file("blocks.wav"), {"--size", "100x200"});
    EXPECT_THAT(summary(), MatchesRegex("100x200, 00:00:10\\.0[0-9]+, peak -[56]\\.[0-9] dB\n"));
    EXPECT_THAT(topsOf(picture, 1, 98), Each(AllOf(testing::Ge(45), testing::Le(55))));
}

TEST_F(ToolWaveformTest, FirstPacketThatGivesNothingIsNoWarning) {
    draw(test::exampleMedia("clip.mp4"));  // which looks at standard error
}

TEST_F(ToolWaveformTest, DamagedPacketsAreLeftOutWithAWarning) {
    const std::string sound = makeDamagedSound("damaged.mka");
    const Result result = run({"waveform", sound, "-o", file("wave.png"), "--size", "100x100"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "kvffmpeg: warning: Could not decode audio from " + sound + ":0\n");
    EXPECT_THAT(result.out, MatchesRegex(".*100x100, 00:00:00\\.9[0-9]+, peak -[56]\\.[0-9] dB\n"));
}

TEST_F(ToolWaveformTest, FollowsAChangeOfRate) {
    const std::string loud = file("loud.mp2");
    const std::string silent = file("silent.mp2");
    test::runFFmpeg("-f lavfi -i \"aevalsrc='0.5*sin(2*PI*440*t)':s=48000:d=1\" -c:a mp2 " + loud);
    test::runFFmpeg("-f lavfi -i \"aevalsrc=0:s=24000:d=1\" -c:a mp2 " + silent);
    std::vector<std::uint8_t> bytes = test::readFile(loud);
    const std::vector<std::uint8_t> more = test::readFile(silent);
    bytes.insert(bytes.end(), more.begin(), more.end());
    test::writeFile(file("both.mp2"), bytes);
    const Picture picture = draw(file("both.mp2"), {"--size", "100x100"});
    EXPECT_THAT(summary(), MatchesRegex("100x100, 00:00:02\\.[01][0-9]+, peak -[56]\\.[0-9] dB\n"));
    EXPECT_THAT(topsOf(picture, 3, 46), Each(AllOf(testing::Ge(22), testing::Le(29))));
    EXPECT_THAT(topsOf(picture, 54, 99), Each(testing::AnyOf(-1, testing::Ge(48))));
}

TEST_F(ToolWaveformTest, TakesTheSoundOfVideo) {
    const std::string clip = makeClip("clip.mkv");
    draw(clip);
    EXPECT_THAT(summary(), MatchesRegex("1280x240, 00:00:0[12]\\.[0-9]+, peak -1[0-9]\\.[0-9] dB\n"));
}

TEST_F(ToolWaveformTest, TakesTheTrackThatIsAskedFor) {
    test::runFFmpeg(
        "-f lavfi -i aevalsrc=0:s=8000:d=1 -f lavfi -i \"aevalsrc='0.5*sin(2*PI*440*t)':s=8000:d=1\" "
        "-map 0 -map 1 -c:a pcm_s16le " +
        file("two.mkv"));
    draw(file("two.mkv"));
    EXPECT_THAT(summary(), EndsWith(", silent\n"));
    draw(file("two.mkv"), {"--track", "1"});
    EXPECT_THAT(summary(), EndsWith(", peak -6.0 dB\n"));
}

TEST_F(ToolWaveformTest, ReadsStandardInput) {
    const Descriptor sound(open(makeSound("sound.wav").c_str(), O_RDONLY));
    const Result result =
        ToolProcess({"waveform", "-", "-o", file("wave.png")}, {{sound.get(), STDIN_FILENO}}).wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(loadPicture(file("wave.png")).size(), (rect_size_t{1280, 240}));
}

TEST_F(ToolWaveformTest, OfRealSound) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    for (const std::string name : {"flac_stereo.flac", "opus_5.1.mka", "wav_5.1_f32.wav", "wav_mono_u8.wav",
                                   "ac3_5.1.mp4", "aac_mono.adts", "mpeg4_mp3.avi"}) {
        const Result result = run({"waveform", test::sampleMedia(name), "-o", file("wave.png")});
        EXPECT_EQ(result.exitCode, 0) << name << ": " << result.err;
        EXPECT_THAT(result.out, HasSubstr("1280x240, ")) << name;
        EXPECT_THAT(columnsWith(loadPicture(file("wave.png")), wave), testing::SizeIs(testing::Ge(100u)))
            << name;
    }
}

// Failures.

TEST_F(ToolWaveformTest, WithoutSoundIsAFailure) {
    const std::string clip = makeClip("silent.mkv", "-c:v mpeg4 -an");
    expectRefusal(run({"waveform", clip, "-o", file("wave.png")}), 1, clip + ": There is no audio in it");
    EXPECT_FALSE(std::filesystem::exists(file("wave.png")));
}

TEST_F(ToolWaveformTest, OfNoSamplesIsAFailure) {
    const std::string sound = makeSound("sound.wav");
    std::vector<std::uint8_t> bytes = test::readFile(sound);
    bytes.resize(44);  // the header
    test::writeFile(sound, bytes);
    expectRefusal(run({"waveform", sound, "-o", file("wave.png")}), 1, sound + ": No sound was decoded");
    EXPECT_FALSE(std::filesystem::exists(file("wave.png")));
}

TEST_F(ToolWaveformTest, RefusesTracksThatAreNoSound) {
    const std::string clip = makeClip("clip.mkv");
    for (const std::string track : {"0", "2"}) {
        expectRefusal(run({"waveform", clip, "-o", file("wave.png"), "--track", track}), 2,
                      "--track " + track + ": There is no such audio track in " + clip);
    }
}

TEST_F(ToolWaveformTest, RefusesBadValues) {
    const std::string size = "expected WxH with sides from 1 to 65535";
    const std::string rate = "expected a number from 100 to 768000";
    const std::vector<std::tuple<std::string, std::string, std::string>> values = {
        {"--size", "64", size},
        {"--size", "64x-1", size},
        {"--size", "-1x64", size},
        {"--size", "0x48", size},
        {"--size", "64x0", size},
        {"--size", "65536x1", size},
        {"--size", "64x48x2", size},
        {"--rate", "99", rate},
        {"--rate", "768001", rate},
        {"--rate", "8k", rate},
        {"--rate", "8000.0", rate},
        {"--rate", "-8000", rate},
        {"--track", "-1", "expected a number from 0 to 999999999"}};
    for (const auto& [option, value, reason] : values) {
        SCOPED_TRACE(option + " " + value);
        expectRefusal(run({"waveform", "missing", "-o", "wave.png", option, value}), 2,
                      option + " \"" + value + "\": " + reason);
    }
}

TEST_F(ToolWaveformTest, RefusesSizesBeyondMemory) {
    expectRefusal(run({"waveform", "missing", "-o", "wave.png", "--size", "65535x65535"}), 1,
                  "--size: The picture would become too large");
}

TEST_F(ToolWaveformTest, RefusesEndingsThatAreNoPictureFormat) {
    const std::string sound = makeSound("sound.wav");
    for (const std::string ending : {"", ".xyz", ".mp4"}) {
        const std::string name = file("wave" + ending);
        expectRefusal(
            run({"waveform", sound, "-o", name}), 2,
            "--output: " + name + " would not be a picture that can be written, such as .png or .jpg");
    }
}

TEST_F(ToolWaveformTest, ThatCannotBeWrittenIsAFailure) {
    const std::string sound = makeSound("sound.wav");
    expectRefusal(run({"waveform", sound, "-o", file("missing/wave.png")}), 1,
                  "Could not open output file " + file("missing/wave.png"));
    std::filesystem::create_symlink("/dev/full", file("full.png"));
    expectRefusal(run({"waveform", sound, "-o", file("full.png")}), 1,
                  "Could not write output file " + file("full.png"));
}

TEST_F(ToolWaveformTest, DoesNotOverwriteItsInput) {
    const std::string sound = makeSound("sound.wav");
    std::filesystem::create_symlink(sound, file("wave.png"));
    const std::vector<std::uint8_t> before = test::readFile(sound);
    expectRefusal(run({"waveform", sound, "-o", file("wave.png")}), 1,
                  file("wave.png") + " is the input, and was not overwritten");
    EXPECT_EQ(test::readFile(sound), before);
}

// On a terminal, and interrupted.

TEST_F(ToolWaveformTest, ShowsHowFarItIs) {
    const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(terminal.get()), 0);
    ASSERT_EQ(unlockpt(terminal.get()), 0);
    const Descriptor line(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY));
    const Result result = ToolProcess({"waveform", makeSound("sound.wav"), "-o", file("wave.png")},
                                      {{line.get(), STDERR_FILENO}})
                              .wait();
    EXPECT_EQ(result.exitCode, 0);
    char text[4096] = {};
    ASSERT_GT(read(terminal.get(), text, sizeof text - 1), 0);
    EXPECT_THAT(std::string(text), AllOf(StartsWith("\r00:00:00."), EndsWith("\r\033[K")));
}

TEST_F(ToolWaveformTest, InterruptLeavesTheOldPicture) {
    const std::vector<std::uint8_t> bytes = test::readFile(makeWave("sound.wav", "0.5*sin(2*PI*440*t)", "5"));
    const std::vector<std::uint8_t> before{'o', 'l', 'd'};
    test::writeFile(file("wave.png"), before);
    for (const int signal : {SIGINT, SIGTERM}) {
        const Fifo fifo(file("pipe" + std::to_string(signal)));
        ToolProcess tool({"waveform", fifo.path(), "-o", file("wave.png")});
        fifo.write({bytes.begin(), bytes.begin() + 60000});
        ASSERT_TRUE(test::waitUntil([&] { return fifo.isDrained(); }));
        tool.send(signal);
        const Result result = tool.wait();
        EXPECT_EQ(result.exitCode, 128 + signal);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "Interrupted\n");
        EXPECT_EQ(test::readFile(file("wave.png")), before);
    }
}

}  // namespace
}  // namespace kvffmpeg
