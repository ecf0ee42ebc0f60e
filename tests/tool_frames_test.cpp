#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/media.h"
#include "support/tool_fixture.h"

namespace kvffmpeg {
namespace {

using nlohmann::json;
using test::Descriptor;
using test::expectRefusal;
using test::Fifo;
using test::linesOf;
using test::namesIn;
using test::numberOfPicture;
using test::numbersOfPictures;
using test::Result;
using test::run;
using test::ToolProcess;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class ToolFramesTest : public test::ToolFixture {};

std::vector<int> sequence(int first, int last) {
    std::vector<int> numbers;
    for (int i = first; i <= last; ++i) numbers.push_back(i);
    return numbers;
}

TEST_F(ToolFramesTest, SavesEveryPictureInOrder) {
    const std::string clip = makeClip("clip.mkv");
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", clip, "-o", folder + "/%05d.png"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "20 pictures: " + folder + "/00001.png to " + folder + "/00020.png\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(numbersOfPictures(folder), sequence(0, 19));
    EXPECT_EQ(loadPicture(folder + "/00001.png").size(), (rect_size_t{64, 48}));
}

TEST_F(ToolFramesTest, EndsAfterCountPictures) {
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", folder + "/%d.png", "--count", "3"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "3 pictures: " + folder + "/1.png to " + folder + "/3.png\n");
    EXPECT_EQ(numbersOfPictures(folder), sequence(0, 2));
}

TEST_F(ToolFramesTest, NamesASinglePictureOnce) {
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", folder + "/%d.png", "--count", "1"});
    EXPECT_EQ(result.out, "1 picture: " + folder + "/1.png\n");
}

TEST_F(ToolFramesTest, StartsBetweenKeyFrames) {
    const std::string clip = makeClip("clip.mkv");
    for (const std::string start : {"0.7", "0.700000", "0:00.7", "00:00:00.65", "0.62"}) {
        SCOPED_TRACE(start);
        const std::string folder = makeFolder("from " + start);
        const Result result = run({"frames", clip, "-o", folder + "/%02d.png", "--start", start});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(numbersOfPictures(folder), sequence(7, 19));
    }
}

TEST_F(ToolFramesTest, StartsInRealVideo) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    // 60 pictures a second without B-frames; 30 with three in a row, of which the decoder keeps two.
    const std::vector<std::tuple<std::string, std::string, std::size_t>> cases = {
        {"h264_fullrange_60fps.mp4", "2.509", 149}, {"h264_pyramid.mp4", "2.34", 47}};
    for (const auto& [name, start, count] : cases) {
        SCOPED_TRACE(name);
        const std::string clip = test::sampleMedia(name);
        const std::string all = makeFolder("all of " + name);
        const std::string some = makeFolder("some of " + name);
        ASSERT_EQ(run({"frames", clip, "-o", all + "/%03d.bmp", "--size", "16x-1"}).exitCode, 0);
        ASSERT_EQ(
            run({"frames", clip, "-o", some + "/%03d.bmp", "--size", "16x-1", "--start", start}).exitCode, 0);
        const std::vector<std::string> allNames = namesIn(all);
        const std::vector<std::string> someNames = namesIn(some);
        ASSERT_EQ(someNames.size(), count);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(test::readFile(some + "/" + someNames[i]),
                      test::readFile(all + "/" + allNames[allNames.size() - count + i]))
                << i;
        }
    }
}

TEST_F(ToolFramesTest, StartsAmongBFrames) {
    const std::string clip = makeClip("clip.mkv", "-c:v mpeg4 -q:v 2 -g 6 -bf 2");
    for (int first = 0; first < 15; ++first) {
        SCOPED_TRACE(first);
        const std::string folder = makeFolder("from " + std::to_string(first));
        const std::string start = std::to_string(first / 10) + "." + std::to_string(first % 10);
        const Result result =
            run({"frames", clip, "-o", folder + "/%02d.png", "--start", start, "--count", "3"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(numbersOfPictures(folder), sequence(first, first + 2));
    }
}

TEST_F(ToolFramesTest, CountsTimeFromTheStartOfTheContainer) {
    const std::string clip = makeClip("clip.ts");  // starts at 1.4 s
    ASSERT_GT(json::parse(run({"probe", "--json", clip}).out).at("start").get<double>(), 1.0);
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", clip, "-o", folder + "/%02d.png", "--start", "1.05"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(numbersOfPictures(folder).front(), 11);
}

TEST_F(ToolFramesTest, CountsTimeFromTheTimeOrigin) {
    const std::string clip =
        makeClip("clip.mkv", "-c:v mpeg4 -q:v 2 -g 5 -metadata timeorigin=1500000000000000");
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", clip, "-o", folder + "/%02d.png", "--start", "1.2"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(numbersOfPictures(folder), sequence(12, 19));
}

TEST_F(ToolFramesTest, StartsInAnInputThatCannotSeek) {
    const std::string clip = makeClip("clip.mkv");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Descriptor reading(ends[0]);
    const std::vector<std::uint8_t> bytes = test::readFile(clip);
    std::thread writer([&bytes, end = ends[1]] {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t count = write(end, bytes.data() + done, bytes.size() - done);
            if (count <= 0) break;
            done += static_cast<std::size_t>(count);
        }
        close(end);
    });
    const std::string folder = makeFolder("pictures");
    const Result result = ToolProcess({"frames", "-", "-o", folder + "/%02d.png", "--start", "1.2"},
                                      {{reading.get(), STDIN_FILENO}}, {ends[0], ends[1]})
                              .wait();
    writer.join();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(numbersOfPictures(folder), sequence(12, 19));
}

TEST_F(ToolFramesTest, Scales) {
    const std::string clip = makeClip("clip.mkv");
    const std::vector<std::pair<std::string, rect_size_t>> sizes = {
        {"32x16", {32, 16}}, {"32x-1", {32, 24}}, {"-1x96", {128, 96}}, {"1x-1", {1, 1}}};
    for (const auto& [text, size] : sizes) {
        SCOPED_TRACE(text);
        const std::string folder = makeFolder(text);
        const Result result = run({"frames", clip, "-o", folder + "/%d.png", "--size", text, "--count", "1",
                                   "--algorithm", "bicubic"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(loadPicture(folder + "/1.png").size(), size);
    }
}

TEST_F(ToolFramesTest, ScalesPictureWithPalette) {
    test::runFFmpeg("-f lavfi -i color=red:size=8x8 -frames:v 1 -pix_fmt pal8 " + file("still.png"));
    const Result result = run({"frames", file("still.png"), "-o", file("out%d.png"), "--size", "16x4"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(loadPicture(file("out1.png")).size(), (rect_size_t{16, 4}));
}

// Filters.

TEST_F(ToolFramesTest, FiltersEveryPicture) {
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", folder + "/%02d.png", "--filter",
                               "[in]pad=74:48:0:0:white[out]"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "20 pictures: " + folder + "/01.png to " + folder + "/20.png\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(numbersOfPictures(folder), sequence(0, 19));
    const Picture last = loadPicture(folder + "/20.png");
    EXPECT_EQ(last.size(), (rect_size_t{74, 48}));
    EXPECT_EQ(last.getPlanes()[0][3 * 73], 255);
}

TEST_F(ToolFramesTest, FiltersBeforeScaling) {
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", file("%d.png"), "--count", "1",
                               "--filter", "crop=16:48", "--size", "32x-1"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(loadPicture(file("1.png")).size(), (rect_size_t{32, 96}));
}

TEST_F(ToolFramesTest, TakesTheFormatThatFiltersMake) {
    const std::string clip = makeClip("clip.mkv");
    ASSERT_EQ(run({"frames", clip, "-o", file("%d.png"), "--count", "1", "--filter", "format=gray"}).exitCode,
              0);
    EXPECT_EQ(loadPicture(file("1.png")).pixelFormat(), AV_PIX_FMT_GRAY8);
}

TEST_F(ToolFramesTest, EmptyFilterChangesNothing) {
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", folder + "/%02d.png", "--filter", ""});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(numbersOfPictures(folder), sequence(0, 19));
}

TEST_F(ToolFramesTest, PicturesThatFiltersLeaveOutAreNotSaved) {
    const std::string clip = makeClip("clip.mkv");
    const std::string even = "select=not(mod(n\\,2))";
    {
        const std::string folder = makeFolder("all");
        const Result result = run({"frames", clip, "-o", folder + "/%02d.png", "--filter", even});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(numbersOfPictures(folder), ElementsAre(0, 2, 4, 6, 8, 10, 12, 14, 16, 18));
    }
    {
        const std::string folder = makeFolder("counted");
        const Result result =
            run({"frames", clip, "-o", folder + "/%02d.png", "--filter", even, "--count", "3"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(numbersOfPictures(folder), ElementsAre(0, 2, 4));
    }
}

TEST_F(ToolFramesTest, FilterThatKeepsAPictureBackGivesTheOthers) {
    const std::string folder = makeFolder("pictures");
    // The lighter one of each picture and the one before it; the first has none before it.
    const Result result = run(
        {"frames", makeClip("clip.mkv"), "-o", folder + "/%02d.png", "--filter", "tblend=all_mode=lighten"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(numbersOfPictures(folder), sequence(1, 19));
}

TEST_F(ToolFramesTest, FilterThatGivesNothingIsAFailure) {
    const std::string clip = makeClip("clip.mkv");
    expectRefusal(run({"frames", clip, "-o", file("%d.png"), "--filter", "reverse"}), 1,
                  clip + ": No picture came out of --filter \"reverse\"");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
    // Here nothing went in.
    expectRefusal(run({"frames", clip, "-o", file("%d.png"), "--filter", "hflip", "--start", "1:00"}), 1,
                  clip + ": No picture was written");
}

TEST_F(ToolFramesTest, StartIsTheInputsTimeWhateverFiltersDoToIt) {
    const std::string clip = makeClip("clip.mkv");
    const std::vector<std::pair<std::string, std::vector<int>>> cases = {
        {"setpts=PTS/100", sequence(7, 19)},
        // It sees nothing of what is before the start.
        {"select=not(mod(n\\,2))", {7, 9, 11, 13, 15, 17, 19}}};
    for (const auto& [filter, numbers] : cases) {
        SCOPED_TRACE(filter);
        const std::string folder = makeFolder(numbers.size() == 7 ? "some" : "all");
        const Result result =
            run({"frames", clip, "-o", folder + "/%02d.png", "--start", "0.7", "--filter", filter});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(numbersOfPictures(folder), numbers);
    }
}

TEST_F(ToolFramesTest, FiltersCanBeGivenSecondsAsHelpSays) {
    const std::string seconds = "settb=1/1000000,setpts=PTS/1000000";
    EXPECT_THAT(run({"frames", "--help"}).out, HasSubstr(seconds));
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", makeClip("clip.mkv"), "-o", folder + "/%02d.png", "--filter",
                               seconds + ",select=gte(t\\,1.45)"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(numbersOfPictures(folder), sequence(15, 19));
}

TEST_F(ToolFramesTest, FilterThatCannotBeBuiltIsAFailure) {
    const std::string clip = makeClip("clip.mkv");
    const std::string parsing = "Cannot parse filter spec";
    const std::vector<std::pair<std::string, std::string>> filters = {
        {"nosuch", parsing},
        {"hflip[", parsing},
        {"crop=nosuch=1", parsing},
        {"crop=1000:1000", "Cannot configure filter"}};
    for (const auto& [filter, reason] : filters) {
        SCOPED_TRACE(filter);
        expectRefusal(run({"frames", clip, "-o", file("%d.png"), "--filter", filter}), 1,
                      "--filter \"" + filter + "\": " + reason);
        EXPECT_FALSE(std::filesystem::exists(file("1.png")));
    }
}

TEST_F(ToolFramesTest, ControlCharactersOfFiltersDoNotReachTheTerminal) {
    expectRefusal(
        run({"frames", makeClip("clip.mkv"), "-o", file("%d.png"), "--filter", "no\x1b[31m\nsuch\xff"}), 1,
        "--filter \"no\xEF\xBF\xBD[31m such\xEF\xBF\xBD\": Cannot parse filter spec");
}

TEST_F(ToolFramesTest, TakesTheFormatFromTheEnding) {
    const std::string clip = makeClip("clip.mkv");
    ASSERT_EQ(run({"frames", clip, "-o", file("%d.jpg"), "--count", "2"}).exitCode, 0);
    const std::vector<std::uint8_t> bytes = test::readFile(file("2.jpg"));
    ASSERT_GT(bytes.size(), 2u);
    EXPECT_EQ(bytes[0], 0xff);
    EXPECT_EQ(bytes[1], 0xd8);
    EXPECT_EQ(numberOfPicture(file("2.jpg")), 1);
}

TEST_F(ToolFramesTest, PadsNumbersAsThePatternSays) {
    const std::string clip = makeClip("clip.mkv");
    const std::vector<std::pair<std::string, std::string>> names = {
        {"a%d.png", "a1.png"},  {"a%05d.png", "a00001.png"},    {"a%3d.png", "a  1.png"},
        {"a%1d.png", "a1.png"}, {"100%%-%d.png", "100%-1.png"}, {"%d-%%d.png", "1-%d.png"},
        {"%00d.png", "1.png"}};
    for (const auto& [pattern, name] : names) {
        const std::string folder = makeFolder("pictures");
        EXPECT_EQ(run({"frames", clip, "--count", "1", "-o", folder + "/" + pattern}).exitCode, 0) << pattern;
        EXPECT_THAT(namesIn(folder), ElementsAre(name)) << pattern;
        std::filesystem::remove_all(folder);
    }
}

TEST_F(ToolFramesTest, RefusesOtherPatternsBeforeOpening) {
    const std::string none = "no place for the picture's number, such as %05d";
    const std::string several = "more than one place for the picture's number";
    const std::string other = "only %d, %5d, %05d and %% can follow a percent sign";
    const std::vector<std::pair<std::string, std::string>> reasons = {
        {"a.png", none},     {"%%d.png", none},   {"", none},         {"%d%d.png", several},
        {"%s.png", other},   {"%d%n.png", other}, {"%", other},       {"%5", other},
        {"%-5d.png", other}, {"%+d.png", other},  {"%ld.png", other}, {"%*d.png", other},
        {"%1$d.png", other}, {"%.3d.png", other}, {"%i.png", other},  {"%100d.png", other},
        {"%d%", other}};
    for (const auto& [pattern, reason] : reasons) {
        SCOPED_TRACE(pattern);
        expectRefusal(run({"frames", file("missing"), "-o", pattern}), 2,
                      "--output \"" + pattern + "\": " + reason);
    }
}

TEST_F(ToolFramesTest, RefusesEndingsThatAreNoPictureFormat) {
    const std::string clip = makeClip("clip.mkv");
    for (const std::string ending : {"", ".xyz", ".mp4", ".gif"}) {
        const std::string name = file("%d" + ending);
        expectRefusal(run({"frames", clip, "-o", name}), 2,
                      "--output: " + file("1" + ending) +
                          " would not be a picture that can be written, such as .png or .jpg");
    }
}

TEST_F(ToolFramesTest, RefusesBadValues) {
    const std::string number1 = "expected a number from 1 to 999999999";
    const std::string number0 = "expected a number from 0 to 999999999";
    const std::string time = "expected seconds (12.5) or [HH:]MM:SS[.mmm] (1:02:03.5)";
    const std::string size = "expected WxH, Wx-1 or -1xH with sides from 1 to 65535";
    const std::vector<std::tuple<std::string, std::string, std::string>> values = {
        {"--count", "0", number1},       {"--count", "-1", number1},
        {"--count", "2x", number1},      {"--count", "9999999999", number1},
        {"--track", "-1", number0},      {"--track", "a", number0},
        {"--start", "", time},           {"--start", "-1", time},
        {"--start", "1:60", time},       {"--start", "1:60:00", time},
        {"--start", "1:2:3:4", time},    {"--start", "1.", time},
        {"--start", ".5", time},         {"--start", "1,5", time},
        {"--start", "1.5s", time},       {"--start", "nan", time},
        {"--start", "9999999999", time}, {"--size", "64", size},
        {"--size", "64x", size},         {"--size", "x48", size},
        {"--size", "0x48", size},        {"--size", "64x-2", size},
        {"--size", "-1x-1", size},       {"--size", "64x48x2", size},
        {"--size", "64X48", size},       {"--size", "65536x1", size}};
    for (const auto& [option, value, reason] : values) {
        SCOPED_TRACE(option + " " + value);
        expectRefusal(run({"frames", "missing", "-o", "%d.png", option, value}), 2,
                      option + " \"" + value + "\": " + reason);
    }
}

TEST_F(ToolFramesTest, RefusesUnknownAlgorithms) {
    expectRefusal(run({"frames", "missing", "-o", "%d.png", "--algorithm", "cubic"}), 2,
                  "--algorithm: Unknown scaling algorithm \"cubic\"");
}

TEST_F(ToolFramesTest, TakesTheTrackThatIsAskedFor) {
    const std::string clip = file("two.mkv");
    test::runFFmpeg(
        "-f lavfi -i color=red:size=16x16:rate=10:duration=1 -f lavfi -i "
        "color=red:size=32x16:rate=10:duration=1 "
        "-map 0 -map 1 -c:v mpeg4 " +
        clip);
    ASSERT_EQ(run({"frames", clip, "-o", file("a%d.png")}).exitCode, 0);
    EXPECT_EQ(loadPicture(file("a1.png")).width(), 16);
    ASSERT_EQ(run({"frames", clip, "-o", file("b%d.png"), "--track", "1"}).exitCode, 0);
    EXPECT_EQ(loadPicture(file("b1.png")).width(), 32);
}

TEST_F(ToolFramesTest, RefusesTracksThatAreNoVideo) {
    const std::string clip = makeClip("clip.mkv");
    for (const std::string track : {"1", "2"}) {
        expectRefusal(run({"frames", clip, "-o", file("%d.png"), "--track", track}), 2,
                      "--track " + track + ": There is no such video track in " + clip);
    }
}

TEST_F(ToolFramesTest, PrefersVideoToCovers) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const std::string cover = test::sampleMedia("mp3_cover.mp3");
    const Result result = run({"frames", cover, "-o", file("%d.png"), "--size", "16x-1"});
    EXPECT_EQ(result.out, "1 picture: " + file("1.png") + "\n");
    EXPECT_EQ(loadPicture(file("1.png")).size(), (rect_size_t{16, 16}));
}

TEST_F(ToolFramesTest, OfSoundIsAFailure) {
    const std::string sound = makeSound("sound.wav");
    expectRefusal(run({"frames", sound, "-o", file("%d.png")}), 1, sound + ": There is no video in it");
}

TEST_F(ToolFramesTest, WithoutAPictureIsAFailure) {
    const std::string clip = makeClip("clip.mkv");
    expectRefusal(run({"frames", clip, "-o", file("%d.png"), "--start", "1:00"}), 1,
                  clip + ": No picture was written");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
}

TEST_F(ToolFramesTest, ThatCannotBeWrittenIsAFailure) {
    const std::string clip = makeClip("clip.mkv");
    expectRefusal(run({"frames", clip, "-o", file("missing/%d.png")}), 1,
                  "Could not open output file " + file("missing/1.png"));
    std::filesystem::create_symlink("/dev/full", file("1.png"));
    expectRefusal(run({"frames", clip, "-o", file("%d.png")}), 1,
                  "Could not write output file " + file("1.png"));
}

TEST_F(ToolFramesTest, InAFolderWithoutPermissionIsAFailure) {
    const std::string folder = makeFolder("locked");
    ASSERT_EQ(chmod(folder.c_str(), 0500), 0);
    if (access(folder.c_str(), W_OK) == 0) GTEST_SKIP() << "this user may write everywhere";
    expectRefusal(run({"frames", makeClip("clip.mkv"), "-o", folder + "/%d.png"}), 1,
                  "Could not open output file " + folder + "/1.png");
}

TEST_F(ToolFramesTest, KeepsWhatWasWrittenBeforeAFailure) {
    const std::string clip = makeClip("clip.mkv");
    const std::string folder = makeFolder("pictures");
    std::filesystem::create_directory(folder + "/3.png");
    const Result result = run({"frames", clip, "-o", folder + "/%d.png"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "2 pictures: " + folder + "/1.png to " + folder + "/2.png\n");
    EXPECT_EQ(result.err, "kvffmpeg: Could not open output file " + folder + "/3.png\n");
    EXPECT_EQ(numberOfPicture(folder + "/2.png"), 1);
}

TEST_F(ToolFramesTest, DoesNotOverwriteItsInput) {
    test::runFFmpeg("-f lavfi -i color=red:size=8x8 -frames:v 1 " + file("1.png"));
    const std::vector<std::uint8_t> before = test::readFile(file("1.png"));
    expectRefusal(run({"frames", file("1.png"), "-o", file("%d.png")}), 1,
                  file("1.png") + " is the input, and was not overwritten");
    EXPECT_EQ(test::readFile(file("1.png")), before);
}

TEST_F(ToolFramesTest, SaysInOneLineWhatDoesNotDecode) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const std::string broken = test::sampleMedia("corrupt_vp9.webm");
    const Result result = run({"frames", broken, "-o", file("%d.png")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(linesOf(result.err),
                testing::ElementsAre("kvffmpeg: " + broken +
                                     ": No picture was written: Could not decode video from " + broken +
                                     ":0 (and 50 more; -v shows them)"));
}

TEST_F(ToolFramesTest, OfRealVideoComeWithoutThoseThatTheDecoderHolds) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    const std::string clip = test::sampleMedia("h264_pyramid.mp4");
    const std::string folder = makeFolder("pictures");
    const Result result = run({"frames", clip, "-o", folder + "/%03d.jpg", "--size", "16x-1"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, StartsWith("118 pictures: "));
    EXPECT_EQ(namesIn(folder).size(), 118u);
}

TEST_F(ToolFramesTest, PicturesWrittenBeforeAnInterruptStay) {
    // Every picture of this format can be read as soon as it is there.
    const std::string clip = makeClip("clip.y4m", "-an -f yuv4mpegpipe");
    const std::vector<std::uint8_t> bytes = test::readFile(clip);
    const Fifo fifo(file("pipe"));
    const std::string folder = makeFolder("pictures");
    ToolProcess tool({"frames", fifo.path(), "-o", folder + "/%d.png"});
    fifo.write({bytes.begin(), bytes.begin() + 60000});
    ASSERT_TRUE(
        test::waitUntil([&] { return fifo.isDrained() && std::filesystem::exists(folder + "/2.png"); }));
    tool.send(SIGINT);
    const Result result = tool.wait();
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.err, "Interrupted\n");
    EXPECT_THAT(result.out,
                AllOf(HasSubstr(" pictures: "), StartsWith(std::to_string(namesIn(folder).size()))));
    EXPECT_EQ(numberOfPicture(folder + "/1.png"), 0);
}

}  // namespace
}  // namespace kvffmpeg
