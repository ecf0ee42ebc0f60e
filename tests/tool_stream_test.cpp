#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "../tools/progress_text.h"
#include "support/drawing_fixture.h"
#include "support/fonts.h"
#include "support/media.h"

namespace kvffmpeg {
namespace {

using test::Arguments;
using test::Descriptor;
using test::expectRefusal;
using test::Result;
using test::run;
using test::ToolProcess;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

std::string textOf(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A terminal: what a process writes to it can be read here.
class Terminal {
public:
    Terminal() : end_(posix_openpt(O_RDWR | O_NOCTTY)), line_(openLine(end_.get())) {
        fcntl(end_.get(), F_SETFL, O_NONBLOCK);
    }

    /// For the process.
    int line() const { return line_.get(); }

    /// What was written since the last call.
    std::string read() const {
        std::string text;
        char buffer[4096];
        for (ssize_t count = 0; (count = ::read(end_.get(), buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    static int openLine(int end) {
        grantpt(end);
        unlockpt(end);
        return open(ptsname(end), O_RDWR | O_NOCTTY);
    }

    Descriptor end_;
    Descriptor line_;
};

/// Both ends are closed in a process that gets one of them as a standard stream.
class Pipe {
public:
    Pipe() {
        if (pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
    }
    ~Pipe() {
        closeReading();
        closeWriting();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int writing() const { return ends_[1]; }
    void closeReading() { closeEnd(ends_[0]); }
    void closeWriting() { closeEnd(ends_[1]); }
    /// So many bytes, fewer at the end.
    std::string read(std::size_t count) const {
        std::string text(count, '\0');
        std::size_t done = 0;
        while (done < count) {
            const ssize_t got = ::read(ends_[0], text.data() + done, count - done);
            if (got <= 0) break;
            done += static_cast<std::size_t>(got);
        }
        text.resize(done);
        return text;
    }

private:
    static void closeEnd(int& end) {
        if (end >= 0) close(end);
        end = -1;
    }

    int ends_[2] = {-1, -1};
};

/// A Y4M stream taken apart.
struct Stream {
    std::string header;
    std::vector<std::string> pictures;
};

/// With pictures of so many bytes.
Stream parse(const std::string& bytes, std::size_t pictureSize) {
    const std::string begin = "FRAME\n";
    Stream stream;
    std::size_t at = bytes.find('\n');
    if (at == std::string::npos) return stream;
    stream.header = bytes.substr(0, at++);
    while (at < bytes.size() && bytes.compare(at, begin.size(), begin) == 0) {
        stream.pictures.push_back(bytes.substr(at + begin.size(), pictureSize));
        EXPECT_EQ(stream.pictures.back().size(), pictureSize);
        at += begin.size() + pictureSize;
    }
    EXPECT_GE(at, bytes.size()) << "no picture " << stream.pictures.size();
    return stream;
}

class ToolStreamTest : public test::DrawingFixture {
protected:
    /// What the tool writes, and nothing else is said.
    static std::string output(const Arguments& arguments) {
        const Result result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    static Stream frames(const std::string& input, std::size_t pictureSize, const Arguments& options = {}) {
        Arguments arguments{"frames", input, "-o", "-"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return parse(output(arguments), pictureSize);
    }

    /// Moving pictures that are no two alike, uncompressed.
    std::string makeVideo(const std::string& format, const std::string& size, int count,
                          const std::string& rate = "10") const {
        const std::string path = file(format + "_" + size + ".mkv");
        test::runFFmpeg("-f lavfi -i testsrc2=size=64x48:rate=" + rate + " -frames:v " +
                        std::to_string(count) + " -vf scale=" + size + ",setsar=1,format=" + format +
                        " -c:v ffv1 " + path);
        return path;
    }

    std::string write(const std::string& name, const std::string& bytes) const {
        test::writeFile(file(name), {bytes.begin(), bytes.end()});
        return file(name);
    }

    /// One command each that writes one picture, but for -o.
    std::vector<Arguments> commandsOfOnePicture() const {
        const std::string font = test::blockFont().write(file("blocks.bdf"));
        std::vector<Arguments> commands{
            {"text", "AB", "--font", font, "--font-size", "10"},
            {"waveform", makeSound("sound.wav"), "--size", "60x40"},
            {"compose", "--size", "50x30", "--color", "red", "--fill", "1,2,3,4,blue"}};
        if (!test::sansFont().empty()) {
            commands.push_back({"sheet", makeClip("clip.mkv"), "--grid", "2x2", "--width", "200", "--font",
                                test::sansFont()});
        }
        return commands;
    }
};

Arguments with(Arguments arguments, const Arguments& options) {
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
}

// One picture.

TEST_F(ToolStreamTest, PictureIsTheSameOnStandardOutputAsInAFile) {
    for (const Arguments& command : commandsOfOnePicture()) {
        SCOPED_TRACE(command[0]);
        const std::string path = file(command[0] + ".png");
        ASSERT_EQ(run(with(command, {"-o", path})).exitCode, 0);
        const std::string bytes = output(with(command, {"-o", "-"}));
        EXPECT_THAT(bytes, StartsWith("\x89PNG\r\n"));
        EXPECT_TRUE(bytes == textOf(test::readFile(path)));
    }
}

TEST_F(ToolStreamTest, OptionSaysTheFormatOfThePicture) {
    for (const Arguments& command : commandsOfOnePicture()) {
        const bool isText = command[0] == "text";
        const Arguments opaque = isText ? with(command, {"--background-color", "navy"}) : command;
        for (const std::string format : {"png", "jpg", "bmp", "tiff", "ppm"}) {
            SCOPED_TRACE(command[0] + " to " + format);
            const std::string path = file(command[0] + "." + format);
            ASSERT_EQ(run(with(opaque, {"-o", path})).exitCode, 0);
            EXPECT_TRUE(output(with(opaque, {"--to", format, "-o", "-"})) == textOf(test::readFile(path)));
        }
    }
}

TEST_F(ToolStreamTest, OptionForTheFormatNeedsStandardOutput) {
    for (const Arguments& command : commandsOfOnePicture()) {
        SCOPED_TRACE(command[0]);
        expectRefusal(run(with(command, {"-o", file("out.png"), "--to", "png"})), 2,
                      "--to: expected --output - with it; the ending of a file's name is its format");
        EXPECT_FALSE(std::filesystem::exists(file("out.png")));
    }
}

TEST_F(ToolStreamTest, RefusesFormatsThatAreNoPicture) {
    for (const Arguments& command : commandsOfOnePicture()) {
        for (const std::string format : {"mp4", "nosuch", ""}) {
            SCOPED_TRACE(command[0] + " to " + format);
            expectRefusal(run(with(command, {"-o", "-", "--to", format})), 2,
                          "--to \"" + format +
                              "\": expected a format of pictures that can be written, such as png or jpg");
        }
    }
}

TEST_F(ToolStreamTest, TransparentPictureNeedsAFormatThatHasAlpha) {
    const std::string font = test::blockFont().write(file("blocks.bdf"));
    expectRefusal(run({"text", "A", "--font", font, "--font-size", "10", "-o", "-", "--to", "jpg"}), 2,
                  "--to jpg cannot be transparent: expected an opaque --background-color with it, or png");
    expectRefusal(
        run({"compose", "--size", "4x4", "-o", "-", "--to", "jpg"}), 2,
        "--to jpg cannot be transparent, as the picture is: expected an opaque --color with it, or png");
}

TEST_F(ToolStreamTest, TerminalGetsNoPicture) {
    std::vector<Arguments> commands = commandsOfOnePicture();
    commands.push_back({"frames", makeClip("other.mkv")});
    for (const Arguments& command : commands) {
        SCOPED_TRACE(command[0]);
        const Terminal terminal;
        const Result result =
            ToolProcess(with(command, {"-o", "-"}), {{terminal.line(), STDOUT_FILENO}}).wait();
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(
            result.err,
            "kvffmpeg: --output -: standard output is a terminal: expected a file or a pipe behind it\n");
        EXPECT_EQ(terminal.read(), "");
    }
}

TEST_F(ToolStreamTest, FailuresLeaveStandardOutputEmpty) {
    const std::string sound = makeSound("sound.wav");
    const std::string clip = makeClip("clip.mkv");
    expectRefusal(run({"waveform", test::exampleMedia("clip.mp4"), "--track", "0", "-o", "-"}), 2,
                  "--track 0: There is no such audio track in " + test::exampleMedia("clip.mp4"));
    expectRefusal(run({"frames", sound, "-o", "-"}), 1, sound + ": There is no video in it");
    expectRefusal(run({"frames", clip, "-o", "-", "--start", "1:00"}), 1, clip + ": No picture was written");
    expectRefusal(run({"frames", clip, "-o", "-", "--filter", "nosuch"}), 1,
                  "--filter \"nosuch\": Cannot parse filter spec");
}

// What standard output may be.

TEST_F(ToolStreamTest, OutputThatIsFullIsAFailure) {
    const Descriptor full(open("/dev/full", O_WRONLY));
    for (const Arguments& command : {Arguments{"compose", "--size", "4x4", "-o", "-"},
                                     Arguments{"frames", makeClip("clip.mkv"), "-o", "-"}}) {
        SCOPED_TRACE(command[0]);
        const Result result = ToolProcess(command, {{full.get(), STDOUT_FILENO}}).wait();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "kvffmpeg: Could not write to standard output\n");
    }
}

TEST_F(ToolStreamTest, OutputThatIsClosedIsAFailure) {
    const Result result = ToolProcess({"compose", "--size", "4x4", "-o", "-"}, {}, {STDOUT_FILENO}).wait();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "kvffmpeg: Could not write to standard output\n");
}

TEST_F(ToolStreamTest, PipeWithoutAReaderEndsItQuietly) {
    std::vector<Arguments> commands = commandsOfOnePicture();
    for (Arguments& command : commands) command = with(command, {"-o", "-"});
    const std::string clip = makeClip("other.mkv");
    commands.push_back({"frames", clip, "-o", "-"});
    commands.push_back({"probe", clip});
    commands.push_back({"probe", "--json", clip});
    commands.push_back({"--help"});
    for (const Arguments& command : commands) {
        SCOPED_TRACE(command[0]);
        Pipe pipe;
        pipe.closeReading();
        const Result result = ToolProcess(command, {{pipe.writing(), STDOUT_FILENO}}).wait();
        EXPECT_EQ(result.exitCode, 128 + SIGPIPE);
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(ToolStreamTest, ReaderThatHasSeenEnoughEndsItQuietly) {
    const std::string clip = makeVideo("yuv420p", "64x48", 50);
    Pipe pipe;
    ToolProcess tool({"frames", clip, "-o", "-"}, {{pipe.writing(), STDOUT_FILENO}});
    pipe.closeWriting();
    EXPECT_THAT(pipe.read(2000), StartsWith("YUV4MPEG2 W64 H48 "));
    pipe.closeReading();
    const Result result = tool.wait();
    EXPECT_EQ(result.exitCode, 128 + SIGPIPE);
    EXPECT_EQ(result.err, "");
}

TEST_F(ToolStreamTest, PipeThatDoesNotBlockGetsEverything) {
    const std::string clip = makeVideo("yuv420p", "64x48", 50);
    Pipe pipe;
    ASSERT_EQ(fcntl(pipe.writing(), F_SETFL, O_NONBLOCK), 0);
    ToolProcess tool({"frames", clip, "-o", "-"}, {{pipe.writing(), STDOUT_FILENO}});
    pipe.closeWriting();
    const std::string bytes = pipe.read(1000000);
    EXPECT_EQ(tool.wait().exitCode, 0);
    EXPECT_EQ(parse(bytes, 64 * 48 * 3 / 2).pictures.size(), 50U);
}

TEST_F(ToolStreamTest, InterruptEndsAWriteThatNobodyReads) {
    const std::string clip = makeVideo("yuv420p", "64x48", 50);
    Pipe pipe;
    ToolProcess tool({"frames", clip, "-o", "-"}, {{pipe.writing(), STDOUT_FILENO}});
    // The pipe takes 64 KiB, and there is more to write.
    EXPECT_THAT(pipe.read(1000), SizeIs(1000));
    tool.send(SIGINT);
    const Result result = tool.wait();
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.err, "Interrupted\n");
}

// The stream.

TEST_F(ToolStreamTest, HeaderTellsWhatThePicturesAre) {
    // Newer releases of FFmpeg know the range and the place of chroma of what their filters make.
    EXPECT_THAT(frames(makeVideo("yuv420p", "64x48", 2), 4608).header,
                MatchesRegex("YUV4MPEG2 W64 H48 F10:1 I[?] A1:1 C420(jpeg|mpeg2)( XCOLORRANGE=LIMITED)?"));
    EXPECT_THAT(frames(makeVideo("yuv422p", "30x20", 2, "30000/1001"), 1200).header,
                MatchesRegex("YUV4MPEG2 W30 H20 F30000:1001 I[?] A1:1 C422( XCOLORRANGE=LIMITED)?"));
}

TEST_F(ToolStreamTest, HeaderHasTheShapeOfPixels) {
    const std::string video = file("wide.mkv");
    test::runFFmpeg("-f lavfi -i testsrc2=size=64x48:rate=10 -frames:v 3 -aspect 16:9 -c:v ffv1 " + video);
    EXPECT_THAT(frames(video, 4608).header, HasSubstr(" A4:3 "));
    EXPECT_THAT(frames(video, 4608, {"--filter", "hflip"}).header, HasSubstr(" A0:0 "));
    EXPECT_THAT(frames(video, 1152, {"--size", "32x24"}).header, HasSubstr(" A0:0 "));
}

TEST_F(ToolStreamTest, HeaderTellsWhereChromaLies) {
    KVFFMPEG_REQUIRE_X264();
    const std::string left = makeClip("left.mkv",
                                      "-an -c:v libx264 -bf 0 -chroma_sample_location left "
                                      "-x264-params chromaloc=0");
    const std::string corner = makeClip("corner.mkv", "-an -c:v libx264 -bf 0 -x264-params chromaloc=2");
    EXPECT_THAT(frames(left, 4608).header, HasSubstr(" C420mpeg2"));
    EXPECT_THAT(frames(corner, 4608).header, HasSubstr(" C420paldv"));
}

TEST_F(ToolStreamTest, PicturesOfTheStreamsFormatsStayAsTheyAre) {
    for (const auto& [format, size, bytes] : std::vector<std::tuple<std::string, std::string, std::size_t>>{
             {"yuv420p", "64x48", 4608},
             {"yuv420p", "33x17", 33 * 17 + 2 * 17 * 9},
             {"yuv422p", "33x17", 33 * 17 + 2 * 17 * 17},
             {"yuv444p", "33x17", 3 * 33 * 17}}) {
        SCOPED_TRACE(format + " " + size);
        const std::string video = makeVideo(format, size, 7);
        const std::string wanted = textOf(test::readFFmpeg("-i " + video + " -f rawvideo -"));
        const Stream stream = frames(video, bytes);
        std::string got;
        for (const std::string& picture : stream.pictures) got += picture;
        EXPECT_THAT(stream.pictures, SizeIs(7));
        EXPECT_TRUE(got == wanted);
    }
}

TEST_F(ToolStreamTest, FFmpegReadsBackWhatWasWritten) {
    for (const auto& [format, size] : std::vector<std::pair<std::string, std::string>>{
             {"yuv420p", "64x48"}, {"yuv420p", "33x17"}, {"yuv422p", "33x17"}, {"yuv444p", "33x17"}}) {
        SCOPED_TRACE(format + " " + size);
        const std::string video = makeVideo(format, size, 9);
        const std::string stream = write("stream.y4m", output({"frames", video, "-o", "-"}));
        const std::string decoded = " -f rawvideo -pix_fmt " + format + " -";
        EXPECT_TRUE(test::readFFmpeg("-i " + stream + decoded) == test::readFFmpeg("-i " + video + decoded));
    }
}

TEST_F(ToolStreamTest, PipesIntoAnEncoder) {
    const std::string video = makeVideo("yuv420p", "64x48", 100);
    const std::string path = file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    // The pipe does not take all, so that the tool still writes when the command comes to read.
    const auto start = [&] {
        const Descriptor end(open(path.c_str(), O_RDWR | O_CLOEXEC));
        return std::make_unique<ToolProcess>(
            Arguments{"frames", video, "-o", "-", "--fill", "0,0,64,48,red", "--count", "90"},
            std::vector<std::pair<int, int>>{{end.get(), STDOUT_FILENO}});
    };
    const std::unique_ptr<ToolProcess> tool = start();
    test::runFFmpeg("-i " + path + " -c:v ffv1 " + file("out.mkv"));
    EXPECT_EQ(tool->wait().exitCode, 0);
    FormatContext input(file("out.mkv"));
    input.open();
    std::vector<std::int64_t> times;
    while (const std::shared_ptr<Packet> packet = input.readPacket()) {
        const Frame frame = input.decodePacket(packet);
        ASSERT_FALSE(frame.empty());
        EXPECT_EQ(frame.picture().size(), (rect_size_t{64, 48}));
        EXPECT_EQ(frame.picture().pixelFormat(), AV_PIX_FMT_YUV420P);
        EXPECT_THAT(test::visibleBytes(frame.picture()), Contains(240));  // Cr of red
        times.push_back(frame.PTS().value());
    }
    ASSERT_THAT(times, SizeIs(90));
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_EQ(times[i], static_cast<std::int64_t>(i) * 100000) << i;
    }
}

TEST_F(ToolStreamTest, SendsThePicturesThatAreAskedFor) {
    const std::string clip = makeClip("clip.mkv");
    const Stream all = frames(clip, 4608);
    ASSERT_THAT(all.pictures, SizeIs(20));
    const Stream some = frames(clip, 4608, {"--start", "0.7", "--count", "5"});
    EXPECT_EQ(some.header, all.header);
    EXPECT_EQ(some.pictures, std::vector<std::string>(all.pictures.begin() + 7, all.pictures.begin() + 12));
    EXPECT_THAT(frames(clip, 4608, {"--filter", "select=not(mod(n\\,2))"}).pictures, SizeIs(10));
}

TEST_F(ToolStreamTest, RangeIsToldWhereItIsKnown) {
    for (const auto& [range, tag] : std::vector<std::pair<std::string, std::string>>{
             {"pc", " XCOLORRANGE=FULL"}, {"tv", " XCOLORRANGE=LIMITED"}}) {
        const std::string video = file(range + ".mkv");
        test::runFFmpeg(
            "-f lavfi -i testsrc2=size=64x48:rate=10 -frames:v 2 -pix_fmt yuv420p -c:v ffv1 "
            "-color_range " +
            range + " " + video);
        EXPECT_THAT(frames(video, 4608).header, EndsWith(tag)) << range;
    }
}

TEST_F(ToolStreamTest, JpegStaysInFullRange) {
    const std::string video = file("video.mjpeg");
    test::runFFmpeg("-f lavfi -i testsrc2=size=64x48:rate=25 -frames:v 3 -pix_fmt yuvj422p -c:v mjpeg " +
                    video);
    const Stream stream = frames(video, 6144);
    EXPECT_THAT(stream.header, EndsWith(" C422 XCOLORRANGE=FULL"));
    ASSERT_THAT(stream.pictures, SizeIs(3));
    if (!test::commandIsOfThisRelease()) GTEST_SKIP() << "decoders of other releases round differently";
    EXPECT_TRUE(stream.pictures[0] + stream.pictures[1] + stream.pictures[2] ==
                textOf(test::readFFmpeg("-i " + video + " -f rawvideo -")));
}

TEST_F(ToolStreamTest, OtherFormatsBecomeTheNearest) {
    struct Case {
        std::string format;
        std::string tag;
        std::size_t chroma;  ///< Samples of one plane, in 16x12.
    };
    const std::vector<Case> cases = {
        {"nv12", "C420jpeg", 48},    {"yuva420p", "C420jpeg", 48}, {"yuv420p10le", "C420jpeg", 48},
        {"yuv410p", "C420jpeg", 48}, {"yuyv422", "C422", 96},      {"yuv422p10le", "C422", 96},
        {"yuv411p", "C422", 96},     {"yuv440p", "C444", 192},     {"yuv444p16le", "C444", 192},
        {"rgb24", "C444", 192},      {"rgba", "C444", 192}};
    for (const Case& wanted : cases) {
        SCOPED_TRACE(wanted.format);
        const std::string video = file(wanted.format + ".nut");
        test::runFFmpeg("-f lavfi -i color=red:size=16x12:rate=10 -frames:v 2 -vf format=" + wanted.format +
                        " -c:v rawvideo -strict -1 " + video);
        const Stream stream = frames(video, 192 + 2 * wanted.chroma);
        // So few pictures have no average rate in every release of FFmpeg.
        EXPECT_THAT(stream.header, MatchesRegex("YUV4MPEG2 W16 H12 F(10|25):1 I[?] A1:1 " + wanted.tag +
                                                "( XCOLORRANGE=LIMITED)?"));
        // RGB has a range of its own.
        const bool isRgb = wanted.format.find("rgb") == 0;
        if (isRgb) {
            EXPECT_THAT(stream.header, EndsWith(" XCOLORRANGE=LIMITED"));
        }
        ASSERT_THAT(stream.pictures, SizeIs(2));
        for (const std::string& picture : stream.pictures) {
            const auto mean = [&picture](std::size_t first, std::size_t count) {
                double sum = 0;
                for (std::size_t i = 0; i < count; ++i) sum += static_cast<unsigned char>(picture[first + i]);
                return sum / static_cast<double>(count);
            };
            EXPECT_NEAR(mean(0, 192), 81, 2);
            EXPECT_NEAR(mean(192, wanted.chroma), 90, 2);
            EXPECT_NEAR(mean(192 + wanted.chroma, wanted.chroma), 240, 2);
        }
    }
}

TEST_F(ToolStreamTest, GrayBecomes420) {
    test::runFFmpeg("-f lavfi -i color=white:size=16x12 -frames:v 1 -vf format=gray " + file("white.png"));
    const Stream stream = frames(file("white.png"), 288);
    EXPECT_THAT(stream.header, HasSubstr(" C420jpeg XCOLORRANGE="));
    ASSERT_THAT(stream.pictures, SizeIs(1));
    const bool isFull =
        stream.header.find("FULL") != std::string::npos;  // whether PNG is said to be depends on FFmpeg
    EXPECT_THAT(stream.pictures[0].substr(0, 192), Each(static_cast<char>(isFull ? 255 : 235)));
    EXPECT_THAT(stream.pictures[0].substr(192), Each(static_cast<char>(128)));
}

TEST_F(ToolStreamTest, LaterPicturesGetTheSizeOfTheFirst) {
    std::string jpegs;
    for (const std::string size : {"32x24", "64x48", "32x24"}) {
        test::runFFmpeg("-f lavfi -i color=red:size=" + size + " -frames:v 1 -pix_fmt yuvj420p -c:v mjpeg " +
                        file(size + ".jpg"));
        jpegs += textOf(test::readFile(file(size + ".jpg")));
    }
    const Stream stream = frames(write("sizes.mjpeg", jpegs), 1152);
    EXPECT_THAT(stream.header, StartsWith("YUV4MPEG2 W32 H24 "));
    ASSERT_THAT(stream.pictures, SizeIs(3));
    for (std::size_t i = 0; i < 1152; ++i) {
        ASSERT_NEAR(static_cast<unsigned char>(stream.pictures[1][i]),
                    static_cast<unsigned char>(stream.pictures[0][i]), 2)
            << i;
    }
    EXPECT_EQ(stream.pictures[2], stream.pictures[0]);
}

TEST_F(ToolStreamTest, DrawingGoesIntoTheStream) {
    const Stream stream = frames(makeClip("clip.mkv"), 4608,
                                 {"--fill", "0,0,64,24,black", "--overlay",
                                  still("overlay.png", {8, 8}, Color(255, 255, 255)) + "@8,8"});
    EXPECT_EQ(stream.header, frames(makeClip("other.mkv"), 4608).header);
    ASSERT_THAT(stream.pictures, SizeIs(20));
    for (const std::string& picture : stream.pictures) {
        EXPECT_EQ(static_cast<unsigned char>(picture[0]), 16);
        EXPECT_NEAR(static_cast<unsigned char>(picture[10 * 64 + 10]), 235, 1);
    }
}

TEST_F(ToolStreamTest, HelpTellsOfTheStream) {
    EXPECT_THAT(
        run({"frames", "--help"}).out,
        AllOf(HasSubstr("YUV4MPEG2"), HasSubstr("gray 4:2:0, 4:1:1 4:2:2, 4:4:0, RGB and palettes 4:4:4"),
              HasSubstr("-o - --text \"Take 3@8,8\" | ffmpeg -i - take3.mkv")));
}

TEST_F(ToolStreamTest, HelpTellsTheExitCodes) {
    EXPECT_THAT(run({"--help"}).out, AllOf(HasSubstr("Exit codes: 0 done, 1 "), HasSubstr("141")));
}

// Progress.

TEST(ProgressTextTest, TellsNoRateAtFirst) {
    EXPECT_EQ(tool::progressText({"1 pictures", 1, " pictures/s", 0.4, 0.5}), "1 pictures");
}

TEST(ProgressTextTest, TellsRateAndTimeLeft) {
    EXPECT_EQ(tool::progressText({"30 pictures", 30, " pictures/s", 2, 0.25}),
              "30 pictures, 15 pictures/s, 0:06 left");
    EXPECT_EQ(tool::progressText({"3 pictures", 3, " pictures/s", 2, 0.5}),
              "3 pictures, 1.5 pictures/s, 0:02 left");
    EXPECT_EQ(tool::progressText({"00:10:00.000", 600, "x", 5, 1}), "00:10:00.000, 120x, 0:00 left");
}

TEST(ProgressTextTest, TellsLongTimes) {
    EXPECT_EQ(tool::progressText({"a", 0, "x", 59.5, 0.5}), "a, 1:00 left");
    EXPECT_EQ(tool::progressText({"a", 0, "x", 3723, 0.5}), "a, 1:02:03 left");
    EXPECT_EQ(tool::progressText({"a", 0, "x", 36000, 0.5}), "a, 10:00:00 left");
}

TEST(ProgressTextTest, TellsNoTimeLeftThatIsNotKnown) {
    for (const std::optional<double> share :
         std::vector<std::optional<double>>{std::nullopt, 0.0, 0.0009, 1.0001, -1.0}) {
        EXPECT_EQ(tool::progressText({"9 packets", 9, " packets/s", 1, share}), "9 packets, 9.0 packets/s")
            << share.value_or(-2);
    }
    EXPECT_EQ(tool::progressText({"a", 0, "x", 1e5, 0.01}), "a");
}

TEST_F(ToolStreamTest, TerminalTellsRateAndTimeLeft) {
    // It waits for who reads its pictures, and so takes as long as this test likes.
    const std::string video = file("long.mkv");
    test::runFFmpeg("-f lavfi -i color=red:size=64x48:rate=10 -frames:v 3000 -c:v ffv1 " + video);
    const Terminal terminal;
    Pipe pipe;
    ToolProcess tool({"frames", video, "-o", "-"},
                     {{pipe.writing(), STDOUT_FILENO}, {terminal.line(), STDERR_FILENO}});
    pipe.closeWriting();
    std::string shown;
    bool isTold = false;
    EXPECT_TRUE(test::waitUntil([&] {
        const bool isAtEnd = pipe.read(4614).size() < 4614;
        shown += terminal.read();
        isTold = shown.find(" left") != std::string::npos;
        return isTold || isAtEnd;
    }));
    EXPECT_TRUE(isTold) << shown;
    const std::size_t end = shown.find(" left");
    EXPECT_THAT(shown.substr(0, end).substr(shown.rfind('\r', end) + 1),
                MatchesRegex("[0-9]+ pictures, 00:0[0-9]:[0-9.]+, [0-9.]+ pictures/s, [0-9]+:[0-9][0-9]"));
    pipe.closeReading();
    EXPECT_EQ(tool.wait().exitCode, 128 + SIGPIPE);
}

}  // namespace
}  // namespace kvffmpeg
