#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/fonts.h"
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
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

const Color background(0x12, 0x17, 0x1f);

Color pixel(const Picture& rgb, int x, int y) {
    const unsigned char* bytes = rgb.getPlanes()[0] + std::ptrdiff_t{y} * rgb.getLinesize()[0] + 3 * x;
    return {bytes[0], bytes[1], bytes[2]};
}

/// Sheets of 320 pixels have gaps of 2 pixels; four columns of 64x48 then are 77x58 each, and 3 pixels are
/// left beside the first and 1 beside the last, of those that do not divide by four.
class ToolSheetTest : public test::ToolFixture {
protected:
    /// Makes a sheet that is expected to come out.
    Picture sheet(const std::string& input, const std::vector<std::string>& options) const {
        const Result result = runSheet(input, options);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        out_ = result.out;
        return loadPicture(file("sheet.png"));
    }

    Result runSheet(const std::string& input, const std::vector<std::string>& options) const {
        std::vector<std::string> arguments{"sheet", input, "-o", file("sheet.png")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return run(arguments);
    }

    /// What the last call of `sheet` said, behind the file's name.
    std::string said() const { return out_.substr(file("sheet.png").size()); }

private:
    mutable std::string out_;
};

/// Which pictures of `makeClip` a sheet of 320 pixels and four columns shows, by the top left pixels of
/// cells.
std::vector<int> numbersIn(const Picture& sheet) {
    std::vector<int> numbers;
    for (int y = 2; y < sheet.height() - 2; y += 60) {
        for (int x = sheet.width() == 320 ? 3 : 2; x + 77 < sheet.width(); x += 79) {
            const Color color = pixel(sheet, x + 4, y + 4);
            if (color == background) continue;
            numbers.push_back(static_cast<int>(std::lround((color.red * 219.0 / 255) / 10)));
        }
    }
    return numbers;
}

// What cannot be understood.

TEST_F(ToolSheetTest, RefusesBadValues) {
    const std::string grid = "expected CxR, columns and rows, from 1 to 100";
    const std::string width = "expected a number from 1 to 65535";
    const std::vector<std::tuple<std::string, std::string, std::string>> values = {
        {"--grid", "", grid},      {"--grid", "4", grid},       {"--grid", "4x", grid},
        {"--grid", "0x4", grid},   {"--grid", "4x0", grid},     {"--grid", "-1x4", grid},
        {"--grid", "4x-1", grid},  {"--grid", "101x1", grid},   {"--grid", "1x101", grid},
        {"--grid", "4x4x4", grid}, {"--grid", "4X4", grid},     {"--width", "", width},
        {"--width", "0", width},   {"--width", "65536", width}, {"--width", "1.5", width}};
    for (const auto& [option, value, reason] : values) {
        SCOPED_TRACE(option + " " + value);
        expectRefusal(run({"sheet", "missing", "-o", file("sheet.png"), option, value}), 2,
                      option + " \"" + value + "\": " + reason);
    }
}

TEST_F(ToolSheetTest, RefusesAWidthThatIsTooSmallForTheColumns) {
    KVFFMPEG_REQUIRE_FONTS();
    expectRefusal(runSheet("missing", {"--grid", "10x1", "--width", "20"}), 2,
                  "--width 20: expected more for 10 columns");
    EXPECT_EQ(
        sheet(makeClip("clip.mp4"), {"--grid", "10x1", "--width", "21", "--font", test::sansFont()}).size(),
        (rect_size_t{21, 3}));
}

TEST_F(ToolSheetTest, RefusesEndingsThatAreNoPictureFormat) {
    expectRefusal(run({"sheet", makeClip("clip.mp4"), "-o", file("sheet.mp4")}), 2,
                  "--output: " + file("sheet.mp4") +
                      " would not be a picture that can be written, such as .png or .jpg");
}

TEST_F(ToolSheetTest, HelpHasExamples) {
    EXPECT_THAT(run({"sheet", "--help"}).out,
                testing::HasSubstr("\nExamples:\n  kvffmpeg sheet clip.mp4 -o sheet.png\n"));
}

// The layout.

TEST_F(ToolSheetTest, CellsAreInRowsWithGapsBetweenThem) {
    KVFFMPEG_REQUIRE_FONTS();
    const Picture out =
        sheet(makeClip("clip.mp4"), {"--grid", "4x2", "--width", "320", "--font", test::sansFont()});
    ASSERT_EQ(out.size(), (rect_size_t{320, 122}));
    EXPECT_EQ(said(), ": 320x122, 8 pictures\n");
    for (int y = 0; y < 122; ++y) {
        for (int x = 0; x < 320; ++x) {
            const int column = x - 3;
            const int row = y - 2;
            const bool isGap =
                column < 0 || column % 79 >= 77 || column / 79 > 3 || row % 60 >= 58 || row < 0;
            // The lower half of a cell has the time.
            if (!isGap && row % 60 >= 29) continue;
            ASSERT_EQ(pixel(out, x, y) == background, isGap) << x << ", " << y;
        }
    }
}

TEST_F(ToolSheetTest, IsOfSixteenPicturesWithoutOptions) {
    KVFFMPEG_REQUIRE_FONTS();
    // (1280 - 5 * 8) / 4 = 310 pixels wide, 232.5 high.
    EXPECT_EQ(sheet(makeClip("clip.mp4"), {"--font", test::sansFont()}).size(),
              (rect_size_t{1280, 4 * (233 + 8) + 8}));
    EXPECT_EQ(said(), ": 1280x972, 16 pictures\n");
}

TEST_F(ToolSheetTest, PixelsThatAreNoSquaresDecideOnTheShape) {
    KVFFMPEG_REQUIRE_FONTS();
    const std::string clip = makeClip("clip.mkv", "-vf setsar=2/1 -c:v mpeg4 -an");
    EXPECT_EQ(sheet(clip, {"--grid", "4x1", "--width", "320", "--font", test::sansFont()}).size(),
              (rect_size_t{320, 29 + 4}));
}

TEST_F(ToolSheetTest, FirstPictureDecidesOnTheShapeAndOthersAreFittedIn) {
    KVFFMPEG_REQUIRE_FONTS();
    const auto save = [&](rect_size_t size, const std::string& name) {
        Picture picture(size, AV_PIX_FMT_RGB24);
        DrawUtils::fillRectangle(picture, Color(255, 0, 0));
        savePicture(picture, file(name));
    };
    save({40, 20}, "in1.png");
    save({10, 10}, "in2.png");
    save({50, 10}, "in3.png");
    // Cells of (66 - 4) / 3 = 20 pixels, 10 high, which are too small for a time.
    const Picture out =
        sheet(file("in%d.png"), {"--grid", "3x1", "--width", "64", "--font", test::sansFont()});
    ASSERT_EQ(out.size(), (rect_size_t{64, 12}));
    for (int y = 0; y < 12; ++y) {
        for (int x = 0; x < 64; ++x) {
            const bool isRow = y >= 1 && y < 11;
            const bool isFirst = isRow && x >= 1 && x < 21;
            const bool isSecond = isRow && x >= 22 + 5 && x < 22 + 15;
            const bool isThird = y >= 1 + 3 && y < 1 + 7 && x >= 43 && x < 63;
            EXPECT_EQ(pixel(out, x, y), (isFirst || isSecond || isThird ? Color(255, 0, 0) : background))
                << x << ", " << y;
        }
    }
}

TEST_F(ToolSheetTest, OddSizesAreShownToTheirEdges) {
    KVFFMPEG_REQUIRE_FONTS();
    test::runFFmpeg(
        "-f lavfi -i color=white:size=33x17:rate=10:duration=0.1 -pix_fmt yuv420p -f yuv4mpegpipe " +
        file("odd.y4m"));
    const Picture out =
        sheet(file("odd.y4m"), {"--grid", "1x1", "--width", "35", "--font", test::sansFont()});
    ASSERT_EQ(out.size(), (rect_size_t{35, 19}));
    for (const auto& [x, y] : std::vector<std::pair<int, int>>{{1, 1}, {33, 1}, {1, 17}, {33, 17}}) {
        EXPECT_GE(pixel(out, x, y).red, 250U) << x << ", " << y;
    }
    for (const auto& [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {34, 1}, {1, 18}, {34, 18}}) {
        EXPECT_EQ(pixel(out, x, y), background) << x << ", " << y;
    }
}

TEST_F(ToolSheetTest, SheetThatIsTooLargeIsAFailure) {
    KVFFMPEG_REQUIRE_FONTS();
    test::runFFmpeg("-f lavfi -i color=white:size=2x512 -frames:v 1 " + file("tall.png"));
    expectRefusal(
        runSheet(file("tall.png"), {"--grid", "1x1", "--width", "4000", "--font", test::sansFont()}), 1,
        "The sheet would become too large");
    EXPECT_FALSE(std::filesystem::exists(file("sheet.png")));
}

// Which pictures there are.

class ToolSheetPicturesTest : public ToolSheetTest {
protected:
    void SetUp() override { KVFFMPEG_REQUIRE_FONTS(); }

    /// On a sheet of up to four columns and `rows` rows.
    std::vector<int> numbers(const std::string& input, int rows) const {
        return numbersIn(sheet(
            input, {"--grid", "4x" + std::to_string(rows), "--width", "320", "--font", test::sansFont()}));
    }
};

TEST_F(ToolSheetPicturesTest, AreThoseInTheMiddleOfTheirShareOfTheTime) {
    EXPECT_THAT(numbers(makeClip("clip.mp4"), 2), ElementsAre(1, 3, 6, 8, 11, 13, 16, 18));
    EXPECT_THAT(numbers(makeClip("clip.mkv"), 1), ElementsAre(2, 7, 12, 17));
}

TEST_F(ToolSheetPicturesTest, AreAllWhenThereAreAsManyAsCells) {
    EXPECT_THAT(numbers(makeClip("clip.mp4"), 5),
                ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19));
}

TEST_F(ToolSheetPicturesTest, AreFoundBySeeking) {
    // Every second another gray for 25 pictures, two groups of pictures each.
    for (const std::string name : {"long.mkv", "long.ts"}) {
        SCOPED_TRACE(name);
        test::runFFmpeg(
            "-f lavfi -i \"color=black:size=64x48:rate=25:duration=20,format=yuv420p,"
            "geq=lum='16+floor(N/25)*10':cb=128:cr=128\" -c:v mpeg2video -q:v 2 -g 12 -bf 2 " +
            file(name));
        EXPECT_THAT(numbers(file(name), 1), ElementsAre(2, 7, 12, 17));
        const Result result =
            runSheet(file(name), {"--grid", "4x1", "--width", "320", "--font", test::sansFont(), "-vv"});
        // Far from all 500 of them.
        EXPECT_THAT(result.err, testing::ContainsRegex("closed, [12]?[0-9]?[0-9] packets read"))
            << result.err;
    }
}

TEST_F(ToolSheetPicturesTest, AreFoundAmongBFrames) {
    // Quantised by 2, the grays stay apart.
    EXPECT_THAT(numbers(makeClip("clip.mp4", "-an -c:v mpeg4 -q:v 2 -bf 2 -g 6"), 1),
                ElementsAre(2, 7, 12, 17));
}

TEST_F(ToolSheetPicturesTest, OfAnInputThatCannotSeekAreEvenlySpacedByNumber) {
    const Descriptor clip(open(makeClip("clip.y4m", "-an -f yuv4mpegpipe").c_str(), O_RDONLY));
    const Result result = ToolProcess({"sheet", "-", "-o", file("sheet.png"), "--grid", "4x2", "--width",
                                       "320", "--font", test::sansFont()},
                                      {{clip.get(), STDIN_FILENO}})
                              .wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(numbersIn(loadPicture(file("sheet.png"))), ElementsAre(0, 2, 6, 8, 10, 12, 16, 18));
}

TEST_F(ToolSheetPicturesTest, OfAnInputWithoutTimesAreEvenlySpacedByNumber) {
    KVFFMPEG_REQUIRE_X264();
    EXPECT_THAT(numbers(makeClip("clip.h264", "-an -c:v libx264 -qp 1 -bf 0 -g 5 -f h264"), 2),
                ElementsAre(0, 2, 6, 8, 10, 12, 16, 18));
}

TEST_F(ToolSheetPicturesTest, OfAnInputWithoutADurationAreEvenlySpacedByNumber) {
    EXPECT_THAT(numbers(makeClip("clip.m4v", "-an -c:v mpeg4 -q:v 2 -bf 0 -f m4v"), 2),
                ElementsAre(0, 2, 6, 8, 10, 12, 16, 18));
}

TEST_F(ToolSheetPicturesTest, ThatAreShownForLongAreNotShownTwice) {
    // The last one is shown for eight of ten seconds.
    const std::string clip =
        makeClip("clip.mkv", "-an -vf \"setpts='if(eq(N,19),10/TB,PTS)'\" " + test::frameRateOption("vfr") +
                                 " -c:v mpeg4 -q:v 2 -bf 0");
    EXPECT_THAT(numbers(clip, 2), ElementsAre(0, 2, 6, 8, 10, 12, 16, 18));
}

TEST_F(ToolSheetPicturesTest, AreFewerThanCellsWhenTheInputHasFewer) {
    const std::string three = makeClip("three.mp4", "-an -frames:v 3 -c:v mpeg4 -q:v 2 -bf 0");
    EXPECT_EQ(sheet(three, {"--grid", "4x2", "--width", "320", "--font", test::sansFont()}).size(),
              (rect_size_t{3 * 79 + 2, 62}));
    EXPECT_EQ(said(), ": 239x62, 3 pictures\n");
    EXPECT_THAT(numbersIn(loadPicture(file("sheet.png"))), ElementsAre(0, 1, 2));

    const std::string five = makeClip("five.mp4", "-an -frames:v 5 -c:v mpeg4 -q:v 2 -bf 0");
    const Picture two = sheet(five, {"--grid", "4x4", "--width", "320", "--font", test::sansFont()});
    EXPECT_EQ(two.size(), (rect_size_t{320, 122}));
    EXPECT_THAT(numbersIn(two), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_EQ(pixel(two, 3 + 79 + 4, 62 + 4), background);  // where a sixth one would be
}

TEST_F(ToolSheetPicturesTest, MayBeOneOnly) {
    test::runFFmpeg("-f lavfi -i color=white:size=64x48 -frames:v 1 " + file("one.png"));
    EXPECT_EQ(sheet(file("one.png"), {"--width", "320", "--font", test::sansFont()}).size(),
              (rect_size_t{81, 62}));
    EXPECT_EQ(said(), ": 81x62, 1 picture\n");
}

TEST_F(ToolSheetPicturesTest, AreOfTheTrackThatIsAskedFor) {
    const std::string clip = makeClip("clip.mkv");
    test::runFFmpeg("-i " + clip +
                    " -f lavfi -i color=white:size=32x24:rate=10:duration=2 -map 0:v -map 1:v "
                    "-c:v:0 copy -c:v:1 mpeg4 " +
                    file("two.mkv"));
    EXPECT_THAT(numbers(file("two.mkv"), 1), ElementsAre(2, 7, 12, 17));
    const Picture second = sheet(
        file("two.mkv"), {"--track", "1", "--grid", "4x1", "--width", "320", "--font", test::sansFont()});
    EXPECT_GE(pixel(second, 10, 10).red, 250U);
    expectRefusal(runSheet(file("two.mkv"), {"--track", "7"}), 2,
                  "--track 7: There is no such video track in " + file("two.mkv"));
}

TEST_F(ToolSheetPicturesTest, OfRealVideoFillTheSheet) {
    KVFFMPEG_REQUIRE_SAMPLE_MEDIA();
    for (const std::string name :
         {"h264_bframes_aac.mp4", "h264.ts", "vp9.webm", "mpeg4_mp3.avi", "hevc.ts"}) {
        SCOPED_TRACE(name);
        sheet(test::sampleMedia(name), {"--grid", "4x3", "--font", test::sansFont()});
        EXPECT_THAT(said(), EndsWith(", 12 pictures\n"));
    }
}

// Times.

/// A cell with its time, of a gray that nothing else has.
Picture withTime(Picture cell, const std::string& time) {
    FreeTypeTextRenderer renderer(test::sansFont(), 47);
    renderer.setFontColor(Color(255, 255, 255));
    renderer.setBackgroundColor(background);
    renderer.setPadding(15, 0, 15, 0);
    const rect_size_t size = renderer.getTextSize(time);
    cell.makeEditable();
    renderer.drawTo(cell, time, {cell.width() - size.w, cell.height() - size.h});
    return cell;
}

TEST_F(ToolSheetPicturesTest, HaveTheirTimesInTheirCorner) {
    for (const std::string& clip :
         {makeClip("clip.mp4"), makeClip("clip.ts", "-an -c:v mpeg2video -q:v 2")}) {
        SCOPED_TRACE(clip);
        // 640 - 2 * 4 wide and 474 high.
        const Picture out = sheet(clip, {"--grid", "1x1", "--width", "640", "--font", test::sansFont()});
        ASSERT_EQ(out.size(), (rect_size_t{640, 482}));
        Picture cell = out.crop({4, 4, 632, 474});
        cell.makeEditable();
        const auto number = static_cast<int>(std::lround(pixel(cell, 0, 0).red * 219.0 / 255 / 10));
        EXPECT_THAT(number, testing::AnyOf(9, 10));
        const std::string time = number == 9 ? "00:00:00.900" : "00:00:01.000";
        EXPECT_EQ(test::visibleBytes(cell), test::visibleBytes(withTime(cell, time)));
        EXPECT_NE(test::visibleBytes(cell), test::visibleBytes(withTime(cell, "00:00:01.100")));
    }
}

// Failures.

TEST_F(ToolSheetTest, OfSoundIsAFailure) {
    KVFFMPEG_REQUIRE_FONTS();
    const std::string sound = makeSound("sound.wav");
    expectRefusal(runSheet(sound, {"--font", test::sansFont()}), 1, sound + ": There is no video in it");
}

TEST_F(ToolSheetTest, WithoutAPictureIsAFailure) {
    KVFFMPEG_REQUIRE_FONTS();
    // A header alone.
    const std::vector<std::uint8_t> clip = test::readFile(makeClip("clip.y4m", "-an -f yuv4mpegpipe"));
    test::writeFile(file("empty.y4m"), {clip.begin(), clip.begin() + 100});
    const Result result = runSheet(file("empty.y4m"), {"--font", test::sansFont()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, StartsWith("kvffmpeg: " + file("empty.y4m") + ": "));
    EXPECT_FALSE(std::filesystem::exists(file("sheet.png")));
}

TEST_F(ToolSheetTest, DoesNotOverwriteItsInputOrFont) {
    KVFFMPEG_REQUIRE_FONTS();
    test::runFFmpeg("-f lavfi -i color=white:size=64x48 -frames:v 1 " + file("in.png"));
    expectRefusal(run({"sheet", file("in.png"), "-o", file("in.png"), "--font", test::sansFont()}), 1,
                  file("in.png") + " is the input, and was not overwritten");
    std::filesystem::copy_file(test::sansFont(), file("font.png"));
    expectRefusal(run({"sheet", file("in.png"), "-o", file("font.png"), "--font", file("font.png")}), 1,
                  file("font.png") + " is the font, and was not overwritten");
}

TEST_F(ToolSheetTest, InterruptEndsItWithoutASheet) {
    KVFFMPEG_REQUIRE_FONTS();
    const std::string clip = makeClip("clip.y4m", "-an -f yuv4mpegpipe");
    const std::vector<std::uint8_t> bytes = test::readFile(clip);
    const Fifo fifo(file("pipe"));
    ToolProcess tool({"sheet", fifo.path(), "-o", file("sheet.png"), "--font", test::sansFont()});
    fifo.write({bytes.begin(), bytes.begin() + 60000});
    ASSERT_TRUE(test::waitUntil([&] { return fifo.isDrained(); }));
    tool.send(SIGINT);
    const Result result = tool.wait();
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "Interrupted\n");
    EXPECT_FALSE(std::filesystem::exists(file("sheet.png")));
}

TEST_F(ToolSheetTest, ProgressIsShownOnATerminal) {
    KVFFMPEG_REQUIRE_FONTS();
    const auto shown = [&](const std::string& input) {
        const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
        EXPECT_EQ(grantpt(terminal.get()), 0);
        EXPECT_EQ(unlockpt(terminal.get()), 0);
        const Descriptor line(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY));
        EXPECT_EQ(ToolProcess({"sheet", input, "-o", file("sheet.png"), "--font", test::sansFont()},
                              {{line.get(), STDERR_FILENO}})
                      .wait()
                      .exitCode,
                  0);
        char text[4096] = {};
        EXPECT_GT(read(terminal.get(), text, sizeof text - 1), 0);
        return std::string(text);
    };
    EXPECT_THAT(shown(makeClip("clip.mp4")),
                AllOf(StartsWith("\r1 of 16 pictures\033[K"), EndsWith("\r\033[K")));
    EXPECT_THAT(shown(makeClip("clip.m4v", "-an -c:v mpeg4 -bf 0 -f m4v")),
                AllOf(StartsWith("\r1 pictures read"), EndsWith("\r\033[K")));
}

}  // namespace
}  // namespace kvffmpeg
