#include <gmock/gmock.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/drawing_fixture.h"
#include "support/media.h"
#include "support/tool_fixture.h"

namespace kvffmpeg {
namespace {

using test::expectRefusal;
using test::load;
using test::pixel;
using test::plain;
using test::Result;
using test::run;
using testing::HasSubstr;
using testing::Matcher;

/// On the way to 4:2:0 and back a component loses up to 3 of 255; without a conversion nothing.
MATCHER_P2(IsColor, color, tolerance,
           "is " + std::string(tolerance > 0 ? "about " : "") + testing::PrintToString(color)) {
    const auto isNear = [tolerance = tolerance](std::uint32_t a, std::uint32_t b) {
        return (a > b ? a - b : b - a) <= static_cast<std::uint32_t>(tolerance);
    };
    return isNear(arg.red, color.red) && isNear(arg.green, color.green) && isNear(arg.blue, color.blue) &&
           isNear(arg.alpha, color.alpha);
}

Matcher<const Color&> exactly(const Color& color) {
    return IsColor(color, 0);
}

Matcher<const Color&> about(const Color& color) {
    return IsColor(color, 3);
}

const Color black(0, 0, 0);
const Color white(255, 255, 255);
const Color red(255, 0, 0);
const Color lime(0, 255, 0);
const Color blue(0, 0, 255);
const Color gray(128, 128, 128);

using ToolDrawingTest = test::DrawingFixture;

// What cannot be understood.

TEST_F(ToolDrawingTest, RefusesBadValues) {
    const std::string key =
        "expected COLOR[:SIMILARITY[:BLEND]] with numbers from 0 to 1, such as 0x00b140:0.2:0.02";
    const std::string background = "expected a picture file, or a colour such as white or 0x204060";
    const std::string fill = "expected X,Y,W,H,COLOR with sides from 1 to 65535, such as 0,300,640,60,black";
    const std::string overlay = "expected FILE@X,Y with whole numbers, such as logo.png@16,-8";
    const std::vector<std::tuple<std::string, std::string, std::string>> values = {
        {"--key", "", key},
        {"--key", "nosuch", key},
        {"--key", ":0.1", key},
        {"--key", "lime:", key},
        {"--key", "lime::0.1", key},
        {"--key", "lime:0.1:", key},
        {"--key", "lime:1.1", key},
        {"--key", "lime:1.000001", key},
        {"--key", "lime:-0.1", key},
        {"--key", "lime:0.1:2", key},
        {"--key", "lime:nan", key},
        {"--key", "lime:.1", key},
        {"--key", "lime:0,1", key},
        {"--key", "lime:0.1:0.1:0.1", key},
        {"--background", "", background},
        {"--background", "nosuch.png", background},
        {"--background", "nosuchcolour", background},
        {"--fill", "", fill},
        {"--fill", "red", fill},
        {"--fill", "0,0,8,8", fill},
        {"--fill", "0,0,8,8,", fill},
        {"--fill", "0,0,8,8,nosuch", fill},
        {"--fill", "0,0,8,8,red,", fill},
        {"--fill", "0,0,0,8,red", fill},
        {"--fill", "0,0,8,0,red", fill},
        {"--fill", "0,0,-1,8,red", fill},
        {"--fill", "0,0,8,-1,red", fill},
        {"--fill", "0,0,65536,8,red", fill},
        {"--fill", "0,,8,8,red", fill},
        {"--fill", "0,--1,8,8,red", fill},
        {"--fill", "0,1.5,8,8,red", fill},
        {"--fill", "1000000000,0,8,8,red", fill},
        {"--overlay", "", overlay},
        {"--overlay", "logo.png", overlay},
        {"--overlay", "@1,2", overlay},
        {"--overlay", "logo.png@", overlay},
        {"--overlay", "logo.png@1", overlay},
        {"--overlay", "logo.png@1,", overlay},
        {"--overlay", "logo.png@1,2,3", overlay},
        {"--overlay", "logo.png@1, 2", overlay},
        {"--overlay", "logo.png@1x,2", overlay},
        {"--overlay", "logo.png@-,2", overlay},
        {"--overlay", "logo.png@-1000000000,2", overlay}};
    for (const auto& [option, value, reason] : values) {
        SCOPED_TRACE(option + " " + value);
        std::vector<std::string> arguments{"frames", "missing", "-o", file("%d.png"), option, value};
        if (option == "--key") arguments.insert(arguments.end(), {"--background", "white"});
        if (option == "--background") arguments.insert(arguments.end(), {"--key", "lime"});
        expectRefusal(run(arguments), 2, option + " \"" + value + "\": " + reason);
    }
}

TEST_F(ToolDrawingTest, RefusesAKeyWithoutABackground) {
    expectRefusal(run({"frames", "missing", "-o", "%d.png", "--key", "lime"}), 2,
                  "--key: expected --background with it, a picture file or a colour");
}

TEST_F(ToolDrawingTest, RefusesABackgroundWithoutAKey) {
    expectRefusal(run({"frames", "missing", "-o", "%d.png", "--background", "lime"}), 2,
                  "--background: expected --key with it, the colour to replace");
}

TEST_F(ToolDrawingTest, RefusesTheSecondOfSeveralBeforeAnythingIsWritten) {
    const std::string input = still("in.png", {8, 8}, red);
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--fill", "0,0,4,4,blue", "--fill", "0,0,4,4"}),
                  2,
                  "--fill \"0,0,4,4\": expected X,Y,W,H,COLOR with sides from 1 to 65535, such as "
                  "0,300,640,60,black");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
}

TEST_F(ToolDrawingTest, PictureThatIsNotThereIsAFailureBeforeAnythingIsWritten) {
    const std::string input = still("in.png", {8, 8}, red);
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--overlay", file("a@b.png") + "@1,2"}), 1,
                  "--overlay " + file("a@b.png") + ": can't open input file");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
}

TEST_F(ToolDrawingTest, FileWithoutAPictureIsAFailure) {
    const std::string input = still("in.png", {8, 8}, red);
    const std::string sound = makeSound("sound.wav");
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--overlay", sound + "@1,2"}), 1,
                  "--overlay " + sound + ": There is no picture in it");
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--key", "red", "--background", sound}), 1,
                  "--background " + sound + ": There is no picture in it");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
}

TEST_F(ToolDrawingTest, DoesNotOverwriteWhatItDraws) {
    const std::string input = still("in.png", {8, 8}, red);
    const std::string overlay = still("1.png", {2, 2}, blue);
    const std::vector<std::uint8_t> before = test::readFile(overlay);
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--overlay", overlay + "@1,2"}), 1,
                  overlay + " is an overlay, and was not overwritten");
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--key", "red", "--background", overlay}), 1,
                  overlay + " is the background, and was not overwritten");
    EXPECT_EQ(test::readFile(overlay), before);
}

// Fills.

TEST_F(ToolDrawingTest, FillsARectangle) {
    const Picture out = draw(still("in.png", {16, 12}, red), {"--fill", "3,5,4,2,blue"});
    EXPECT_EQ(out.size(), (rect_size_t{16, 12}));
    for (int y = 0; y < 12; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool isInside = x >= 3 && x < 7 && y >= 5 && y < 7;
            EXPECT_THAT(pixel(out, x, y), exactly(isInside ? blue : red)) << x << ", " << y;
        }
    }
}

TEST_F(ToolDrawingTest, FillsSeveralRectanglesInTheirOrder) {
    const Picture out = draw(still("in.png", {16, 12}, red),
                             {"--fill", "0,0,8,8,blue", "--fill", "4,4,8,8,lime", "--fill", "5,5,1,1,white"});
    EXPECT_THAT(pixel(out, 3, 3), exactly(blue));
    EXPECT_THAT(pixel(out, 4, 4), exactly(lime));
    EXPECT_THAT(pixel(out, 5, 5), exactly(white));
    EXPECT_THAT(pixel(out, 11, 11), exactly(lime));
    EXPECT_THAT(pixel(out, 12, 11), exactly(red));
}

TEST_F(ToolDrawingTest, FillsWhatIsInsideOfThePicture) {
    const Picture out =
        draw(still("in.png", {16, 12}, red), {"--fill", "-5,-3,8,5,blue", "--fill", "14,10,65535,65535,lime",
                                              "--fill", "100,100,8,8,white", "--fill", "-9,0,9,9,white"});
    EXPECT_THAT(pixel(out, 0, 0), exactly(blue));
    EXPECT_THAT(pixel(out, 2, 1), exactly(blue));
    EXPECT_THAT(pixel(out, 3, 1), exactly(red));
    EXPECT_THAT(pixel(out, 2, 2), exactly(red));
    EXPECT_THAT(pixel(out, 13, 10), exactly(red));
    EXPECT_THAT(pixel(out, 14, 10), exactly(lime));
    EXPECT_THAT(pixel(out, 15, 11), exactly(lime));
}

TEST_F(ToolDrawingTest, FillReplacesPixelsAndTheirAlpha) {
    const Picture out = draw(still("in.png", {8, 8}, red), {"--fill", "0,0,4,8,blue@0x40"});
    EXPECT_THAT(pixel(out, 3, 3), exactly(Color(0, 0, 255, 0x40)));
    EXPECT_THAT(pixel(out, 4, 4), exactly(red));
}

TEST_F(ToolDrawingTest, FillsOfVideoHaveEvenEdges) {
    const Picture out = draw(video({32, 16}, "red"), {"--fill", "3,3,6,7,blue", "--fill", "20,4,2,2,lime"});
    for (const auto& [x, y] : std::vector<std::pair<int, int>>{{2, 2}, {7, 2}, {2, 9}, {7, 9}}) {
        EXPECT_THAT(pixel(out, x, y), about(Color(blue))) << x << ", " << y;
    }
    for (const auto& [x, y] :
         std::vector<std::pair<int, int>>{{1, 2}, {2, 1}, {8, 2}, {2, 10}, {19, 4}, {22, 5}}) {
        EXPECT_THAT(pixel(out, x, y), about(red)) << x << ", " << y;
    }
    EXPECT_THAT(pixel(out, 21, 5), about(lime));
}

TEST_F(ToolDrawingTest, FillsOfVideoReachTheEdgesOfOddSizes) {
    for (const std::string fill : {"0,0,33,17,blue", "-3,-3,100,100,blue", "1,1,32,16,blue"}) {
        SCOPED_TRACE(fill);
        const Picture out = draw(video({33, 17}, "red"), {"--fill", fill});
        EXPECT_EQ(out.size(), (rect_size_t{33, 17}));
        for (const auto& [x, y] :
             std::vector<std::pair<int, int>>{{0, 0}, {32, 0}, {0, 16}, {31, 15}, {32, 16}}) {
            EXPECT_THAT(pixel(out, x, y), about(blue)) << x << ", " << y;
        }
    }
}

TEST_F(ToolDrawingTest, FillsOfFullRangeVideoHaveFullRange) {
    test::runFFmpeg(
        "-f lavfi -i color=gray:size=32x16:rate=10:duration=0.1 -pix_fmt yuvj420p -c:v mjpeg -q:v 2 " +
        file("full.mkv"));
    const Picture out = draw(file("full.mkv"), {"--fill", "0,0,8,8,white", "--fill", "8,0,8,8,black"});
    EXPECT_THAT(pixel(out, 4, 4), exactly(white));
    EXPECT_THAT(pixel(out, 12, 4), exactly(black));
    EXPECT_THAT(pixel(out, 20, 4), about(gray));
}

TEST_F(ToolDrawingTest, OtherFullRangeFormatsKeepTheirLook) {
    for (const std::string format : {"yuvj420p", "yuvj444p", "yuvj422p"}) {
        SCOPED_TRACE(format);
        const std::string input = still("in.png", {16, 8}, Color(230, 20, 230));
        const std::string filter = "scale,format=" + format;
        const Picture out = draw(input, {"--filter", filter, "--fill", "0,0,8,8,white"});
        EXPECT_THAT(pixel(out, 4, 4), exactly(white));
        EXPECT_THAT(pixel(out, 12, 4), about(Color(230, 20, 230)));
        const Picture keyed = draw(input, {"--filter", filter, "--key", "lime", "--background", "white"});
        EXPECT_THAT(pixel(keyed, 4, 4), about(Color(230, 20, 230)));
    }
}

TEST_F(ToolDrawingTest, EveryPictureIsDrawnOn) {
    const std::string input = video({32, 16}, "red");
    ASSERT_EQ(run({"frames", input, "-o", file("out%d.png"), "--fill", "0,0,8,8,blue"}).exitCode, 0);
    for (const std::string name : {"out1.png", "out2.png"}) {
        EXPECT_THAT(pixel(load(file(name)), 7, 7), about(blue)) << name;
        EXPECT_THAT(pixel(load(file(name)), 8, 8), about(red)) << name;
    }
}

TEST_F(ToolDrawingTest, ColoursOfOtherFormatsStaySharp) {
    // Columns of red and blue, which 4:2:0 would make one colour of.
    test::runFFmpeg(
        "-f lavfi -i \"color=black:size=16x8,format=gbrp,geq=r='255*mod(X,2)':g=0:b='255-255*mod(X,2)'\" "
        "-frames:v 1 -pix_fmt yuv444p -f yuv4mpegpipe -strict -1 " +
        file("sharp.y4m"));
    const Picture out = draw(file("sharp.y4m"), {"--fill", "5,3,1,1,lime"});
    EXPECT_THAT(pixel(out, 5, 3), exactly(lime));
    EXPECT_THAT(pixel(out, 4, 3), about(blue));
    EXPECT_THAT(pixel(out, 7, 3), about(red));
}

TEST_F(ToolDrawingTest, DrawsOnPicturesOfManyFormats) {
    for (const std::string format : {"gray", "pal8", "rgb48be", "ya8", "monob", "rgb24", "gray16be"}) {
        SCOPED_TRACE(format);
        test::runFFmpeg("-f lavfi -i color=white:size=16x8 -frames:v 1 -pix_fmt " + format + " " +
                        file("in.png"));
        const Picture out = draw(file("in.png"), {"--fill", "3,3,1,1,blue"});
        EXPECT_THAT(pixel(out, 3, 3), exactly(blue));
        EXPECT_THAT(pixel(out, 2, 3), about(white));
    }
    for (const std::string format : {"yuv420p10le", "yuv410p", "yuv422p", "nv12", "yuyv422"}) {
        SCOPED_TRACE(format);
        test::runFFmpeg("-f lavfi -i color=white:size=16x8 -frames:v 1 -pix_fmt " + format +
                        " -c:v rawvideo " + file("in.nut"));
        const Picture out = draw(file("in.nut"), {"--fill", "4,4,2,2,blue"});
        EXPECT_THAT(pixel(out, 4, 4), about(blue));
        EXPECT_THAT(pixel(out, 3, 4), about(white));
    }
}

TEST_F(ToolDrawingTest, PicturesWithoutDrawingKeepTheirFormat) {
    test::runFFmpeg("-f lavfi -i color=white:size=16x8 -frames:v 1 -pix_fmt gray " + file("in.png"));
    draw(file("in.png"), {});
    EXPECT_EQ(loadPicture(file("out1.png")).pixelFormat(), AV_PIX_FMT_GRAY8);
}

// Overlays.

TEST_F(ToolDrawingTest, OverlayIsDrawnAtItsPosition) {
    const std::string overlay = still("overlay.png", {4, 3}, blue);
    const Picture out = draw(still("in.png", {16, 12}, red), {"--overlay", overlay + "@5,7"});
    for (int y = 0; y < 12; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool isInside = x >= 5 && x < 9 && y >= 7 && y < 10;
            EXPECT_THAT(pixel(out, x, y), exactly(isInside ? blue : red)) << x << ", " << y;
        }
    }
}

TEST_F(ToolDrawingTest, OverlayIsBlendedByItsAlpha) {
    Picture overlay = plain({3, 1}, Color(0, 0, 255, 0));
    DrawUtils::fillRectangle(overlay, {1, 0, 1, 1}, Color(0, 0, 255, 100));
    DrawUtils::fillRectangle(overlay, {2, 0, 1, 1}, Color(0, 0, 255, 255));
    const Picture out = draw(still("in.png", {8, 8}, red), {"--overlay", still("a.png", overlay) + "@2,2"});
    EXPECT_THAT(pixel(out, 2, 2), exactly(red));
    EXPECT_THAT(pixel(out, 3, 2), exactly(Color(155, 0, 100)));
    EXPECT_THAT(pixel(out, 4, 2), exactly(blue));
}

TEST_F(ToolDrawingTest, OverlayLeavesThePicturesOwnAlpha) {
    const std::string overlay = still("overlay.png", {4, 4}, blue);
    const Picture out =
        draw(still("in.png", {8, 8}, Color(255, 0, 0, 0x40)), {"--overlay", overlay + "@0,0"});
    EXPECT_THAT(pixel(out, 1, 1), exactly(Color(0, 0, 255, 0x40)));
    EXPECT_THAT(pixel(out, 4, 4), exactly(Color(255, 0, 0, 0x40)));
}

TEST_F(ToolDrawingTest, OverlaysAreDrawnInTheirOrder) {
    const std::string first = still("first.png", {8, 8}, blue);
    const std::string second = still("second.png", {8, 8}, lime);
    const std::string input = still("in.png", {16, 12}, red);
    const Picture out = draw(
        input, {"--overlay", first + "@0,0", "--overlay", second + "@4,4", "--overlay", first + "@10,0"});
    EXPECT_THAT(pixel(out, 3, 3), exactly(blue));
    EXPECT_THAT(pixel(out, 4, 4), exactly(lime));
    EXPECT_THAT(pixel(out, 10, 5), exactly(blue));
}

TEST_F(ToolDrawingTest, OverlayOutsideOfThePictureIsNotSeen) {
    const std::string overlay = still("overlay.png", {4, 4}, blue);
    for (const std::string& input : {still("in.png", {16, 12}, red), video({16, 12}, "red")}) {
        for (const std::string position : {"16,0", "-4,0", "0,12", "0,-4", "999999999,5", "-999999999,5"}) {
            SCOPED_TRACE(input + " " + position);
            const Picture out = draw(input, {"--overlay", overlay + "@" + position});
            for (const auto& [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {15, 0}, {0, 11}, {15, 11}}) {
                EXPECT_THAT(pixel(out, x, y), about(red)) << x << ", " << y;
            }
        }
    }
}

TEST_F(ToolDrawingTest, OverlayLosesWhatIsOutsideOfThePicture) {
    // Opaque white on the left, nothing on the right; the lower half is gray. These have no chroma
    // that could run on its way to 4:2:0.
    Picture overlay = plain({16, 8}, Color(255, 255, 255, 0));
    DrawUtils::fillRectangle(overlay, {0, 0, 10, 8}, white);
    DrawUtils::fillRectangle(overlay, {0, 4, 10, 4}, gray);
    const std::string path = still("overlay.png", overlay);
    for (const std::string& input : {still("in.png", {24, 12}, black), video({24, 12}, "black")}) {
        SCOPED_TRACE(input);
        {
            const Picture out = draw(input, {"--overlay", path + "@-4,-2"});
            EXPECT_THAT(pixel(out, 0, 0), about(white));
            EXPECT_THAT(pixel(out, 5, 1), about(white));
            EXPECT_THAT(pixel(out, 5, 2), about(gray));
            EXPECT_THAT(pixel(out, 5, 5), about(gray));
            EXPECT_THAT(pixel(out, 6, 0), about(black));
            EXPECT_THAT(pixel(out, 0, 6), about(black));
        }
        {
            // Nothing of what is inside is visible.
            const Picture out = draw(input, {"--overlay", path + "@-10,0"});
            for (int x = 0; x < 8; ++x) EXPECT_THAT(pixel(out, x, 3), about(black)) << x;
        }
        {
            const Picture out = draw(input, {"--overlay", path + "@18,10"});
            EXPECT_THAT(pixel(out, 17, 10), about(black));
            EXPECT_THAT(pixel(out, 18, 9), about(black));
            EXPECT_THAT(pixel(out, 18, 10), about(white));
            EXPECT_THAT(pixel(out, 23, 11), about(white));
        }
    }
}

TEST_F(ToolDrawingTest, OverlayHasAnyPositionAndSizeOnVideo) {
    // Gray has no chroma, so that every pixel is on its own.
    const std::string input = video({32, 16}, "black");
    for (const auto& [size, position] : std::vector<std::pair<rect_size_t, point_t>>{{{5, 5}, {4, 6}},
                                                                                     {{5, 5}, {5, 7}},
                                                                                     {{6, 4}, {3, 3}},
                                                                                     {{1, 1}, {9, 9}},
                                                                                     {{7, 7}, {-3, -5}},
                                                                                     {{40, 20}, {1, 1}}}) {
        const std::string text = std::to_string(position.x) + "," + std::to_string(position.y);
        SCOPED_TRACE(testing::Message() << size << " at " << text);
        const std::string overlay = still("overlay.png", size, gray);
        const Picture out = draw(input, {"--overlay", overlay + "@" + text});
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 32; ++x) {
                const bool isInside =
                    x >= position.x && x < position.x + size.w && y >= position.y && y < position.y + size.h;
                ASSERT_THAT(pixel(out, x, y), about(isInside ? gray : black)) << x << ", " << y;
            }
        }
    }
}

TEST_F(ToolDrawingTest, OverlayReachesTheEdgesOfVideoOfOddSize) {
    const std::string overlay = still("overlay.png", {33, 17}, blue);
    const Picture out = draw(video({33, 17}, "red"), {"--overlay", overlay + "@0,0"});
    EXPECT_EQ(out.size(), (rect_size_t{33, 17}));
    for (const auto& [x, y] :
         std::vector<std::pair<int, int>>{{0, 0}, {32, 0}, {0, 16}, {31, 15}, {32, 16}}) {
        EXPECT_THAT(pixel(out, x, y), about(blue)) << x << ", " << y;
    }
}

TEST_F(ToolDrawingTest, OverlayIsAnyPicture) {
    const std::string input = still("in.png", {24, 12}, red);
    const std::vector<std::pair<std::string, std::string>> overlays = {
        {"a.jpg", "yuvj420p -q:v 2"}, {"a.bmp", "bgr24"},   {"gray.png", "gray"}, {"palette.png", "pal8"},
        {"deep.png", "rgb48be"},      {"alpha.png", "ya8"}, {"one.png", "monob"}};
    for (const auto& [name, format] : overlays) {
        SCOPED_TRACE(name);
        test::runFFmpeg("-f lavfi -i color=white:size=7x5,format=rgb24 -frames:v 1 -pix_fmt " + format + " " +
                        file(name));
        const Picture out = draw(input, {"--overlay", file(name) + "@3,3"});
        EXPECT_THAT(pixel(out, 3, 3), about(white));
        EXPECT_THAT(pixel(out, 9, 7), about(white));
        EXPECT_THAT(pixel(out, 10, 7), exactly(red));
        EXPECT_THAT(pixel(out, 2, 3), exactly(red));
    }
}

TEST_F(ToolDrawingTest, OverlaysNameMayHaveFurtherAtSigns) {
    const std::string overlay = still("a@1,1.png", {4, 4}, blue);
    const Picture out = draw(still("in.png", {8, 8}, red), {"--overlay", overlay + "@2,2"});
    EXPECT_THAT(pixel(out, 1, 1), exactly(red));
    EXPECT_THAT(pixel(out, 2, 2), exactly(blue));
}

TEST_F(ToolDrawingTest, EachPictureIsDrawnOnAsItsOwnSizeAsks) {
    savePicture(plain({8, 8}, red), file("in1.png"));
    savePicture(plain({20, 10}, red), file("in2.png"));
    const std::string overlay = still("overlay.png", {4, 4}, blue);
    ASSERT_EQ(
        run({"frames", file("in%d.png"), "-o", file("out%d.png"), "--overlay", overlay + "@6,4"}).exitCode,
        0);
    EXPECT_THAT(pixel(load(file("out1.png")), 7, 7), exactly(blue));
    EXPECT_THAT(pixel(load(file("out2.png")), 9, 7), exactly(blue));
    EXPECT_THAT(pixel(load(file("out2.png")), 10, 7), exactly(red));
}

// Keys.

/// The left half lime, the right half red.
Picture halves(rect_size_t size) {
    Picture picture = plain(size, red);
    DrawUtils::fillRectangle(picture, {0, 0, size.w / 2, size.h}, lime);
    return picture;
}

TEST_F(ToolDrawingTest, KeyShowsTheColourOfTheBackground) {
    const Picture out = draw(still("in.png", halves({16, 8})), {"--key", "lime", "--background", "blue"});
    EXPECT_THAT(pixel(out, 0, 0), about(blue));
    EXPECT_THAT(pixel(out, 7, 7), about(blue));
    EXPECT_THAT(pixel(out, 8, 7), about(red));
    EXPECT_THAT(pixel(out, 15, 0), about(red));
}

TEST_F(ToolDrawingTest, KeyShowsTheBackgroundsPictureInTheSizeOfTheOthers) {
    Picture background = plain({2, 4}, blue);
    DrawUtils::fillRectangle(background, {0, 2, 2, 2}, white);
    const Picture out =
        draw(still("in.png", halves({16, 8})),
             {"--key", "lime", "--background", still("b.png", background), "--algorithm", "point"});
    EXPECT_EQ(out.size(), (rect_size_t{16, 8}));
    EXPECT_THAT(pixel(out, 0, 0), about(blue));
    EXPECT_THAT(pixel(out, 7, 3), about(blue));
    EXPECT_THAT(pixel(out, 7, 4), about(white));
    EXPECT_THAT(pixel(out, 0, 7), about(white));
    EXPECT_THAT(pixel(out, 8, 7), about(red));
}

TEST_F(ToolDrawingTest, KeyWorksOnVideo) {
    const std::string input = video({32, 16}, "0x00b140");
    const Picture out = draw(input, {"--key", "0x00b140", "--background", "white"});
    EXPECT_THAT(pixel(out, 0, 0), about(white));
    EXPECT_THAT(pixel(out, 31, 15), about(white));
    EXPECT_THAT(pixel(draw(input, {"--key", "red", "--background", "white"}), 9, 9),
                about(Color(0, 177, 64)));
}

TEST_F(ToolDrawingTest, KeyReachesTheEdgesOfOddSizes) {
    for (const std::string& input : {still("in.png", {33, 17}, lime), video({33, 17}, "lime")}) {
        SCOPED_TRACE(input);
        const Picture out = draw(input, {"--key", "lime", "--background", "blue"});
        EXPECT_EQ(out.size(), (rect_size_t{33, 17}));
        for (const auto& [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {32, 0}, {0, 16}, {32, 16}}) {
            EXPECT_THAT(pixel(out, x, y), about(blue)) << x << ", " << y;
        }
    }
}

TEST_F(ToolDrawingTest, OddSizesKeepWhatIsNotOfTheKeysColour) {
    for (const std::string& input : {still("in.png", {33, 17}, red), video({33, 17}, "red")}) {
        SCOPED_TRACE(input);
        const Picture untouched = draw(input, {});
        const Picture out = draw(input, {"--key", "lime", "--background", still("b.png", {5, 5}, blue)});
        for (const auto& [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {32, 0}, {0, 16}, {32, 16}}) {
            EXPECT_THAT(pixel(out, x, y), about(pixel(untouched, x, y))) << x << ", " << y;
        }
    }
}

TEST_F(ToolDrawingTest, UsualGreenScreensAreKeyedWithoutNumbers) {
    // Unevenly lit, with noise; people wear and are what is not keyed.
    const std::vector<Color> screens = {Color(0, 177, 64), Color(20, 150, 60), Color(30, 190, 85)};
    const std::vector<Color> people = {Color(224, 172, 140), Color(90, 60, 45),  Color(250, 245, 240),
                                       Color(20, 20, 20),    Color(40, 60, 140), Color(180, 40, 40)};
    for (const Color& screen : screens) {
        const Picture out =
            draw(still("in.png", {8, 8}, screen), {"--key", "0x00b140", "--background", "blue"});
        EXPECT_THAT(pixel(out, 4, 4), about(blue)) << screen;
    }
    for (const Color& person : people) {
        const Picture out =
            draw(still("in.png", {8, 8}, person), {"--key", "0x00b140", "--background", "blue"});
        EXPECT_THAT(pixel(out, 4, 4), about(person)) << person;
    }
}

TEST_F(ToolDrawingTest, SimilarityIsHowFarColoursMayBeFromTheKey) {
    // Chroma of gray is 128, 128; of the key, 44, 21: 136 apart, which is 0.533 of 255.
    const std::string input = video({32, 16}, "gray");
    const std::vector<std::pair<std::string, bool>> cases = {{"lime:0.52:0", false},
                                                             {"lime:0.54:0", true},
                                                             {"lime:1", true},
                                                             {"lime:0", false},
                                                             {"gray:0:0", true}};
    for (const auto& [key, isKeyed] : cases) {
        EXPECT_THAT(pixel(draw(input, {"--key", key, "--background", "blue"}), 9, 9),
                    about(isKeyed ? blue : gray))
            << key;
    }
}

TEST_F(ToolDrawingTest, BlendIsHowSoftlyTheEdgeFades) {
    // The squared distance is 18505, that of the similarity of 0.5 is 16256: (18505 - 16256) / (0.07 * 255)
    // is an alpha of 125.
    const Picture out = draw(video({32, 16}, "white"), {"--key", "lime:0.5:0.07", "--background", "black"});
    const Color mixed = pixel(out, 9, 9);
    EXPECT_THAT(mixed, about(Color(125, 125, 125)));
}

TEST_F(ToolDrawingTest, BackgroundIsAFileRatherThanAColour) {
    const std::string input = still("in.png", {8, 8}, lime);
    std::filesystem::rename(still("white.png", {4, 4}, blue), file("white"));
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(file(""));
    const Picture withFile = draw(input, {"--key", "lime", "--background", "white"});
    EXPECT_THAT(pixel(withFile, 4, 4), about(blue));
    std::filesystem::remove(file("white"));
    std::filesystem::create_directory(file("white"));
    const Picture withFolder = draw(input, {"--key", "lime", "--background", "white"});
    EXPECT_THAT(pixel(withFolder, 4, 4), about(white));
    std::filesystem::current_path(before);
}

TEST_F(ToolDrawingTest, KeyedPicturesOfFullRangeKeepIt) {
    test::runFFmpeg(
        "-f lavfi -i color=white:size=32x16:rate=10:duration=0.1 -pix_fmt yuvj420p -c:v mjpeg -q:v 2 " +
        file("full.mkv"));
    EXPECT_THAT(pixel(draw(file("full.mkv"), {"--key", "lime", "--background", "blue"}), 9, 9),
                exactly(white));
    const std::string background = still("b.png", {8, 8}, gray);
    EXPECT_THAT(pixel(draw(file("full.mkv"), {"--key", "white", "--background", background}), 9, 9),
                about(gray));
}

// All of them.

TEST_F(ToolDrawingTest, KeyComesBeforeFillsAndTheseBeforeOverlays) {
    const std::string overlay = still("overlay.png", {4, 4}, white);
    const Picture out = draw(still("in.png", halves({16, 8})),
                             {"--overlay", overlay + "@2,2", "--fill", "0,0,4,4,lime", "--fill",
                              "8,0,4,4,blue", "--background", "black", "--key", "lime"});
    EXPECT_THAT(pixel(out, 0, 0), about(lime));  // filled after keying
    EXPECT_THAT(pixel(out, 2, 2), about(white));
    EXPECT_THAT(pixel(out, 5, 5), about(white));
    EXPECT_THAT(pixel(out, 6, 6), about(black));
    EXPECT_THAT(pixel(out, 9, 2), about(blue));
    EXPECT_THAT(pixel(out, 12, 6), about(red));
}

TEST_F(ToolDrawingTest, FiltersComeFirst) {
    const Picture out =
        draw(still("in.png", halves({16, 8})), {"--fill", "0,0,2,2,blue", "--filter", "hflip"});
    EXPECT_THAT(pixel(out, 0, 0), exactly(blue));
    EXPECT_THAT(pixel(out, 2, 2), exactly(red));
    EXPECT_THAT(pixel(out, 15, 7), exactly(lime));
}

TEST_F(ToolDrawingTest, PositionsAreThoseOfTheSavedPicture) {
    const std::string overlay = still("overlay.png", {2, 2}, white);
    const Picture out = draw(still("in.png", {8, 8}, red), {"--size", "32x16", "--fill", "20,10,12,6,blue",
                                                            "--overlay", overlay + "@30,14"});
    EXPECT_EQ(out.size(), (rect_size_t{32, 16}));
    EXPECT_THAT(pixel(out, 19, 10), exactly(red));
    EXPECT_THAT(pixel(out, 20, 10), exactly(blue));
    EXPECT_THAT(pixel(out, 29, 13), exactly(blue));
    EXPECT_THAT(pixel(out, 30, 14), exactly(white));
}

TEST_F(ToolDrawingTest, HelpTellsTheOrder) {
    EXPECT_THAT(
        run({"frames", "--help"}).out,
        HasSubstr(
            "in this order: --filter, --size, --key over --background, every --fill,\nevery --overlay"));
}

}  // namespace
}  // namespace kvffmpeg
