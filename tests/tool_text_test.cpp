#include <gmock/gmock.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/drawing_fixture.h"
#include "support/fonts.h"
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
using testing::AllOf;
using testing::HasSubstr;

const Color black(0, 0, 0);
const Color white(255, 255, 255);
const Color red(255, 0, 0);
const Color lime(0, 255, 0);
const Color blue(0, 0, 255);

/// On the way to 4:2:0 and back a component loses up to 3 of 255, and blending rounds.
MATCHER_P(IsAbout, color, "is about " + testing::PrintToString(color)) {
    const auto isNear = [](std::uint32_t a, std::uint32_t b) { return (a > b ? a - b : b - a) <= 3; };
    return isNear(arg.red, color.red) && isNear(arg.green, color.green) && isNear(arg.blue, color.blue) &&
           isNear(arg.alpha, color.alpha);
}

/// Every pixel is `inside` in the rectangle and `outside` around it.
void expectRectangle(const Picture& rgba, rect_t area, const Color& inside, const Color& outside) {
    for (int y = 0; y < rgba.height(); ++y) {
        for (int x = 0; x < rgba.width(); ++x) {
            const bool isInside = x >= area.x && x < area.x + area.w && y >= area.y && y < area.y + area.h;
            ASSERT_THAT(pixel(rgba, x, y), IsAbout(isInside ? inside : outside)) << x << ", " << y;
        }
    }
}

/// An environment variable with another value for as long as it lives.
class Environment {
public:
    Environment(const char* name, const std::string& value) : name_(name) {
        if (const char* const before = std::getenv(name)) before_ = before;
        setenv(name, value.c_str(), 1);
    }
    ~Environment() {
        if (before_.empty()) {
            unsetenv(name_);
        } else {
            setenv(name_, before_.c_str(), 1);
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* name_;
    std::string before_;
};

/// Most write "A" in a font of blocks, 10 pixels high: there it is 4 pixels wide and 7 high, one pixel right
/// of and one below the text's corner; the text itself is 6 pixels wide and 12 high.
class ToolTextTest : public test::DrawingFixture {
protected:
    std::string font() const { return test::blockFont().write(file("blocks.bdf")); }

    /// Draws with the font of blocks.
    Picture write(const std::string& input, const std::vector<std::string>& options) const {
        std::vector<std::string> all{"--font", font(), "--font-size", "10"};
        all.insert(all.end(), options.begin(), options.end());
        return draw(input, all);
    }

    /// Makes a picture of a text with the font of blocks.
    Result saveText(const std::string& text, const std::string& name,
                    const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{"text",   text,   "-o",          file(name),
                                           "--font", font(), "--font-size", "10"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return run(arguments);
    }
};

// What cannot be understood.

TEST_F(ToolTextTest, RefusesBadValues) {
    const std::string text = "expected TEXT@X,Y with whole numbers, such as Hello@16,-8";
    const std::string size = "expected a number from 1 to 10000";
    const std::string color = "expected a colour such as white, 0x204060 or black@0.5";
    const std::string padding = "expected L,T,R,B with numbers from 0 to 65535, such as 8,4,8,4";
    const std::vector<std::tuple<std::string, std::string, std::string>> values = {
        {"--text", "", text},
        {"--text", "Hello", text},
        {"--text", "@1,2", text},
        {"--text", "Hello@", text},
        {"--text", "Hello@1", text},
        {"--text", "Hello@1,", text},
        {"--text", "Hello@1,2,3", text},
        {"--text", "Hello@1, 2", text},
        {"--text", "Hello@1,2@3", text},
        {"--text", "Hello@1000000000,2", text},
        {"--font-size", "", size},
        {"--font-size", "0", size},
        {"--font-size", "-10", size},
        {"--font-size", "10001", size},
        {"--font-size", "1.5", size},
        {"--font-color", "", color},
        {"--font-color", "nosuch", color},
        {"--background-color", "", color},
        {"--background-color", "none", color},
        {"--padding", "", padding},
        {"--padding", "1", padding},
        {"--padding", "1,2,3", padding},
        {"--padding", "1,2,3,4,5", padding},
        {"--padding", "1,2,3,4,", padding},
        {"--padding", "1,2,,4", padding},
        {"--padding", "-1,2,3,4", padding},
        {"--padding", "1,2,3,65536", padding},
        {"--padding", "1,x,2,3,4", padding}};
    for (const auto& [option, value, reason] : values) {
        SCOPED_TRACE(option + " " + value);
        std::vector<std::string> arguments{"frames", "missing", "-o", file("%d.png")};
        if (option != "--text") arguments.insert(arguments.end(), {"--text", "A@1,2"});
        arguments.insert(arguments.end(), {option, value});
        expectRefusal(run(arguments), 2, option + " \"" + value + "\": " + reason);
    }
}

TEST_F(ToolTextTest, RefusesAStyleWithoutAText) {
    for (const auto& [option, value] :
         std::vector<std::pair<std::string, std::string>>{{"--font", "a.ttf"},
                                                          {"--font-size", "10"},
                                                          {"--font-color", "red"},
                                                          {"--background-color", "red"},
                                                          {"--padding", "1,1,1,1"}}) {
        expectRefusal(run({"frames", "missing", "-o", file("%d.png"), option, value}), 2,
                      option + ": expected --text with it, TEXT@X,Y");
    }
}

TEST_F(ToolTextTest, RefusesTextThatIsNotUtf8) {
    const std::string input = still("in.png", {8, 8}, red);
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--font", font(), "--font-size", "10", "--text",
                       "\xff@1,2"}),
                  2, "--text \"\xEF\xBF\xBD@1,2\": expected text in UTF-8");
    expectRefusal(saveText("\xff", "out.png"), 2, "TEXT \"\xEF\xBF\xBD\": expected text in UTF-8");
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
    EXPECT_FALSE(std::filesystem::exists(file("out.png")));
}

TEST_F(ToolTextTest, FontThatCannotBeUsedIsAFailureBeforeAnythingIsWritten) {
    const std::string input = still("in.png", {8, 8}, red);
    for (const std::string& unusable : {file("missing.ttf"), input}) {
        const std::string expected = "Could not load font " + unusable;
        expectRefusal(run({"frames", input, "-o", file("%d.png"), "--font", unusable, "--text", "A@1,2"}), 1,
                      expected);
        expectRefusal(run({"text", "A", "-o", file("1.png"), "--font", unusable}), 1, expected);
        expectRefusal(run({"sheet", input, "-o", file("1.png"), "--font", unusable}), 1, expected);
    }
    expectRefusal(run({"text", "A", "-o", file("1.png"), "--font", font(), "--font-size", "99"}), 1,
                  "Could not set fontsize for font " + font());
    EXPECT_FALSE(std::filesystem::exists(file("1.png")));
}

TEST_F(ToolTextTest, WithoutAnyFontIsAFailureThatTellsWhereItLooked) {
    const std::string own = makeFolder("own");
    const std::string shared = makeFolder("shared");
    std::filesystem::create_directory(own + "/fonts");
    test::writeFile(own + "/fonts/readme.txt", {'x'});
    const Environment home("XDG_DATA_HOME", own);
    const Environment folders("XDG_DATA_DIRS", "relative::" + shared);
    expectRefusal(
        run({"text", "A", "-o", file("out.png")}), 1,
        "There is no font to write with in " + own + "/fonts, " + shared + "/fonts: expected --font FILE");
}

TEST_F(ToolTextTest, WithoutAFontOneIsLookedFor) {
    const std::string own = makeFolder("own");
    std::filesystem::create_directories(own + "/fonts/deep/deeper");
    std::filesystem::create_directories(file("shared") + "/fonts");
    const Environment home("XDG_DATA_HOME", own);
    const Environment folders("XDG_DATA_DIRS", file("shared"));
    // A better one each time; those that are not to be taken are no fonts.
    const std::vector<std::string> names = {
        file("shared") + "/fonts/Zapf.ttf", own + "/fonts/Yes.otf", own + "/fonts/deep/Xanadu-Regular.ttf",
        own + "/fonts/deep/deeper/WideSans-Regular.ttc", file("shared") + "/fonts/DejaVuSans.ttf"};
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        test::blockFont().write(name);
        EXPECT_EQ(run({"text", "A", "-o", file("out.png"), "--font-size", "10"}).out,
                  file("out.png") + ": 6x12\n");
        test::writeFile(name, {'x'});
    }
}

// Texts on pictures.

TEST_F(ToolTextTest, WritesTextAtItsPosition) {
    expectRectangle(write(still("in.png", {32, 24}, red), {"--text", "A@4,5"}), {5, 6, 4, 7}, white, red);
}

TEST_F(ToolTextTest, WritesInTheFontsColour) {
    expectRectangle(write(still("in.png", {32, 24}, red), {"--text", "A@4,5", "--font-color", "blue"}),
                    {5, 6, 4, 7}, blue, red);
    expectRectangle(write(still("in.png", {32, 24}, black), {"--text", "A@4,5", "--font-color", "blue@0.5"}),
                    {5, 6, 4, 7}, Color(0, 0, 127, 191), black);
    expectRectangle(write(video({32, 24}, "black"), {"--text", "A@4,5", "--font-color", "white@0.5"}),
                    {5, 6, 4, 7}, Color(127, 127, 127), black);
}

TEST_F(ToolTextTest, BackgroundIsAsLargeAsTheTextWithItsPadding) {
    const std::string input = still("in.png", {32, 32}, red);
    expectRectangle(write(input, {"--text", "A@4,5", "--background-color", "white"}), {4, 5, 6, 12}, white,
                    red);
    const Picture padded =
        write(input, {"--text", "A@4,5", "--background-color", "black", "--padding", "2,3,4,5"});
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 32; ++x) {
            const bool isText = x >= 7 && x < 11 && y >= 9 && y < 16;
            const bool isBlock = x >= 4 && x < 16 && y >= 5 && y < 25;
            ASSERT_THAT(pixel(padded, x, y), IsAbout(isText    ? white
                                                     : isBlock ? black
                                                               : red))
                << x << ", " << y;
        }
    }
}

TEST_F(ToolTextTest, BackgroundReplacesPixelsAndTheirAlpha) {
    const Picture out =
        write(still("in.png", {32, 24}, red), {"--text", " @4,5", "--background-color", "blue@0x40"});
    expectRectangle(out, {4, 5, 4, 12}, Color(0, 0, 255, 0x40), red);
}

TEST_F(ToolTextTest, BackgroundsOfVideoHaveEvenEdges) {
    const Picture out = write(video({32, 24}, "red"), {"--text", "A@5,7", "--background-color", "white"});
    expectRectangle(out, {4, 6, 6, 12}, white, pixel(out, 31, 23));
    EXPECT_THAT(pixel(out, 31, 23), IsAbout(red));
}

TEST_F(ToolTextTest, WritesOnVideoOfOddSize) {
    const std::string input = video({33, 17}, "black");
    {
        SCOPED_TRACE("inside");
        const Picture out = write(input, {"--text", "A@3,3"});
        EXPECT_EQ(out.size(), (rect_size_t{33, 17}));
        expectRectangle(out, {4, 4, 4, 7}, white, black);
    }
    {
        SCOPED_TRACE("at the corner");
        expectRectangle(write(input, {"--text", "A@31,15"}), {32, 16, 4, 7}, white, black);
    }
    {
        SCOPED_TRACE("with a background");
        expectRectangle(write(input, {"--text", "A@32,16", "--background-color", "white"}), {32, 16, 6, 12},
                        white, black);
    }
}

TEST_F(ToolTextTest, TextLosesWhatIsOutsideOfThePicture) {
    for (const std::string& input : {still("in.png", {32, 24}, black), video({32, 24}, "black")}) {
        SCOPED_TRACE(input);
        expectRectangle(write(input, {"--text", "A@-2,-4"}), {-1, -3, 4, 7}, white, black);
        expectRectangle(write(input, {"--text", "A@29,20"}), {30, 21, 4, 7}, white, black);
        expectRectangle(write(input, {"--text", "A@-2,-4", "--background-color", "white"}), {-2, -4, 6, 12},
                        white, black);
    }
}

TEST_F(ToolTextTest, TextOutsideOfThePictureIsNotSeen) {
    for (const std::string& input : {still("in.png", {32, 24}, black), video({32, 24}, "black")}) {
        for (const std::string position :
             {"32,0", "0,24", "-20,0", "0,-20", "999999999,999999999", "-999999999,-999999999"}) {
            SCOPED_TRACE(input + " " + position);
            expectRectangle(write(input, {"--text", "AAA@" + position, "--background-color", "white",
                                          "--padding", "1,1,1,1"}),
                            {}, white, black);
        }
    }
}

TEST_F(ToolTextTest, TextsAreWrittenInTheirOrder) {
    const Picture out = write(still("in.png", {32, 24}, red), {"--text", "A@0,0", "--text", " @2,0", "--text",
                                                               "A@10,10", "--background-color", "blue"});
    EXPECT_THAT(pixel(out, 1, 1), IsAbout(white));
    EXPECT_THAT(pixel(out, 2, 1), IsAbout(blue));  // the second one's background
    EXPECT_THAT(pixel(out, 5, 5), IsAbout(blue));
    EXPECT_THAT(pixel(out, 11, 11), IsAbout(white));
}

TEST_F(ToolTextTest, LineFeedsBeginNewLines) {
    const Picture out = write(still("in.png", {32, 32}, red), {"--text", "A\nA@0,0"});
    EXPECT_THAT(pixel(out, 1, 7), IsAbout(white));
    EXPECT_THAT(pixel(out, 1, 8), IsAbout(red));
    EXPECT_THAT(pixel(out, 1, 12), IsAbout(red));
    EXPECT_THAT(pixel(out, 1, 13), IsAbout(white));
}

TEST_F(ToolTextTest, TextMayHaveFurtherAtSigns) {
    // The font has none, so that "@1,1" is four question marks of 7 pixels each before the "A".
    const Picture out =
        write(still("in.png", {48, 24}, red), {"--text", "@1,1A@2,2", "--font-color", "blue"});
    EXPECT_THAT(pixel(out, 2 + 28 + 1, 3), IsAbout(blue));
    EXPECT_THAT(pixel(out, 2 + 28 + 4, 9), IsAbout(blue));
    EXPECT_THAT(pixel(out, 2 + 28 + 5, 9), IsAbout(red));
    EXPECT_THAT(pixel(out, 3, 2), IsAbout(blue));
}

TEST_F(ToolTextTest, EveryPictureIsWrittenOn) {
    ASSERT_EQ(run({"frames", video({32, 24}, "black"), "-o", file("out%d.png"), "--font", font(),
                   "--font-size", "10", "--text", "A@4,5"})
                  .exitCode,
              0);
    for (const std::string name : {"out1.png", "out2.png"}) {
        SCOPED_TRACE(name);
        expectRectangle(load(file(name)), {5, 6, 4, 7}, white, black);
    }
}

TEST_F(ToolTextTest, TextsComeAfterOverlaysAndFills) {
    const std::string overlay = still("overlay.png", {8, 16}, lime);
    const Picture out = write(still("in.png", {32, 24}, red),
                              {"--text", "A@4,5", "--overlay", overlay + "@4,4", "--fill", "0,0,8,8,blue"});
    EXPECT_THAT(pixel(out, 5, 6), IsAbout(white));
    EXPECT_THAT(pixel(out, 4, 6), IsAbout(lime));
    EXPECT_THAT(pixel(out, 3, 6), IsAbout(blue));
}

TEST_F(ToolTextTest, PositionsAreThoseOfTheSavedPicture) {
    const Picture out = write(still("in.png", {8, 8}, red), {"--size", "32x24", "--text", "A@20,10"});
    expectRectangle(out, {21, 11, 4, 7}, white, red);
}

TEST_F(ToolTextTest, WritesInAScalableFont) {
    KVFFMPEG_REQUIRE_FONTS();
    const Picture out = draw(still("in.png", {96, 32}, red),
                             {"--font", test::sansFont(), "--font-size", "20", "--text", "Ωя@10,3"});
    Picture expected = plain({96, 32}, red);
    FreeTypeTextRenderer renderer(test::sansFont(), 20);
    renderer.setFontColor(white);
    renderer.setBackgroundColor(Color(0, 0, 0, 0));
    renderer.drawTo(expected, "Ωя", {10, 3});
    EXPECT_EQ(test::visibleBytes(out), test::visibleBytes(expected));
    EXPECT_NE(test::visibleBytes(out), test::visibleBytes(plain({96, 32}, red)));
}

TEST_F(ToolTextTest, DoesNotOverwriteTheFont) {
    const std::string input = still("in.png", {8, 8}, red);
    std::filesystem::copy_file(font(), file("1.png"));
    const std::vector<std::uint8_t> before = test::readFile(file("1.png"));
    const std::string expected = file("1.png") + " is the font, and was not overwritten";
    expectRefusal(run({"frames", input, "-o", file("%d.png"), "--font", file("1.png"), "--font-size", "10",
                       "--text", "A@1,2"}),
                  1, expected);
    expectRefusal(run({"text", "A", "-o", file("1.png"), "--font", file("1.png"), "--font-size", "10"}), 1,
                  expected);
    EXPECT_EQ(test::readFile(file("1.png")), before);
}

// The picture's time.

class ToolTextTimeTest : public ToolTextTest {
protected:
    /// The bytes of the first picture from `start` on with a text in it.
    std::vector<std::uint8_t> written(const std::string& input, const std::string& start,
                                      const std::string& text) const {
        return test::visibleBytes(
            draw(input, {"--font", test::monospacedFont(), "--font-size", "12", "--size", "300x48", "--start",
                         start, "--text", text + "@2,2"}));
    }
};

TEST_F(ToolTextTimeTest, PtsIsTheTimeFromTheStartOfTheInput) {
    KVFFMPEG_REQUIRE_FONTS();
    for (const std::string& clip : {makeClip("clip.mp4"), makeClip("clip.ts", "-an -c:v mpeg2video")}) {
        SCOPED_TRACE(clip);
        EXPECT_EQ(written(clip, "0", "{pts}"), written(clip, "0", "00:00:00.000"));
        EXPECT_EQ(written(clip, "0.3", "{pts}"), written(clip, "0.3", "00:00:00.300"));
        EXPECT_NE(written(clip, "0.3", "{pts}"), written(clip, "0.3", "00:00:00.400"));
    }
}

TEST_F(ToolTextTimeTest, PtsMayStandAnywhereAndSeveralTimes) {
    KVFFMPEG_REQUIRE_FONTS();
    const std::string clip = makeClip("clip.mp4");
    EXPECT_EQ(written(clip, "1.2", "{{pts}}{pts} {pt}"),
              written(clip, "1.2", "{00:00:01.200}00:00:01.200 {pt}"));
}

TEST_F(ToolTextTimeTest, PtsIsTheInputsTimeWhateverFiltersDoToIt) {
    KVFFMPEG_REQUIRE_FONTS();
    const std::string clip = makeClip("clip.mp4");
    const auto filtered = [&](const std::string& text) {
        return test::visibleBytes(
            draw(clip, {"--font", test::monospacedFont(), "--filter", "setpts=0", "--start", "0.5", "--size",
                        "300x48", "--text", text + "@2,2"}));
    };
    EXPECT_EQ(filtered("{pts}"), filtered("00:00:00.500"));
}

TEST_F(ToolTextTimeTest, PtsOfAPictureWithoutATimeIsDashes) {
    KVFFMPEG_REQUIRE_FONTS();
    KVFFMPEG_REQUIRE_X264();
    const std::string clip = makeClip("clip.h264", "-an -c:v libx264 -bf 0 -f h264");
    FormatContext input(clip);
    input.open();
    if (input.decodePacket(input.readPacket()).PTS().value() != AV_NOPTS_VALUE) {
        GTEST_SKIP() << "This release of FFmpeg gives raw H.264 times";
    }
    const auto first = [&](const std::string& text) {
        return test::visibleBytes(
            draw(clip, {"--font", test::monospacedFont(), "--size", "300x48", "--text", text + "@2,2"}));
    };
    EXPECT_EQ(first("{pts}"), first("--:--:--.---"));
}

TEST_F(ToolTextTimeTest, HelpTellsHowTheTimeIsWritten) {
    EXPECT_THAT(run({"frames", "--help"}).out,
                AllOf(HasSubstr("{pts} in the text is the picture's time"), HasSubstr("HH:MM:SS.mmm"),
                      HasSubstr("every --overlay, every --text")));
}

// Pictures of texts.

TEST_F(ToolTextTest, HelpHasExamples) {
    EXPECT_THAT(run({"text", "--help"}).out, HasSubstr("\nExamples:\n  kvffmpeg text \"Hello, world!\" -o"));
}

TEST_F(ToolTextTest, PictureOfATextIsTransparentAroundIt) {
    const Result result = saveText("A", "out.png", {"--font-color", "red"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, file("out.png") + ": 6x12\n");
    const Picture out = loadPicture(file("out.png"));
    EXPECT_EQ(out.pixelFormat(), AV_PIX_FMT_RGBA);
    ASSERT_EQ(out.size(), (rect_size_t{6, 12}));
    expectRectangle(out, {1, 1, 4, 7}, red, Color(255, 0, 0, 0));
}

TEST_F(ToolTextTest, PictureOfATextIsAsTransparentAsItsColour) {
    ASSERT_EQ(saveText("A", "out.png", {"--font-color", "red@0x80"}).exitCode, 0);
    expectRectangle(loadPicture(file("out.png")), {1, 1, 4, 7}, Color(255, 0, 0, 0x80), Color(255, 0, 0, 0));
}

TEST_F(ToolTextTest, PictureWithABackgroundHasNoAlpha) {
    ASSERT_EQ(saveText("A", "out.png", {"--background-color", "blue", "--padding", "3,2,1,0"}).exitCode, 0);
    EXPECT_EQ(loadPicture(file("out.png")).pixelFormat(), AV_PIX_FMT_RGB24);
    const Picture out = load(file("out.png"));
    EXPECT_EQ(out.size(), (rect_size_t{10, 14}));
    expectRectangle(out, {4, 3, 4, 7}, white, blue);
}

TEST_F(ToolTextTest, BackgroundMayBeHalfTransparent) {
    ASSERT_EQ(saveText("A", "out.png", {"--background-color", "blue@0x40"}).exitCode, 0);
    const Picture out = loadPicture(file("out.png"));
    EXPECT_EQ(out.pixelFormat(), AV_PIX_FMT_RGBA);
    expectRectangle(out, {1, 1, 4, 7}, white, Color(0, 0, 255, 0x40));
}

TEST_F(ToolTextTest, TransparentPicturesNeedAFormatThatHasAlpha) {
    for (const std::string name : {"out.jpg", "out.tga", "out.ppm"}) {
        const std::string expected =
            "--output: " + file(name) +
            " cannot be transparent: expected an opaque --background-color with it, or .png";
        expectRefusal(saveText("A", name), 2, expected);
        expectRefusal(saveText("A", name, {"--background-color", "blue@0.5"}), 2, expected);
        EXPECT_FALSE(std::filesystem::exists(file(name)));
        EXPECT_EQ(saveText("A", name, {"--background-color", "blue"}).exitCode, 0) << name;
    }
    for (const std::string name : {"out.png", "out.tiff", "out.bmp", "out.sgi", "out.pam"}) {
        SCOPED_TRACE(name);
        ASSERT_EQ(saveText("A", name, {"--font-color", "red"}).exitCode, 0);
        const Picture out = load(file(name));
        EXPECT_THAT(pixel(out, 2, 2), IsAbout(red));
        EXPECT_EQ(pixel(out, 0, 0).alpha, 0U);
    }
}

TEST_F(ToolTextTest, RefusesEndingsThatAreNoPictureFormat) {
    expectRefusal(
        saveText("A", "out.mp4"), 2,
        "--output: " + file("out.mp4") + " would not be a picture that can be written, such as .png or .jpg");
}

TEST_F(ToolTextTest, TextWithoutAnythingToSeeIsAFailure) {
    expectRefusal(saveText("", "out.png"), 1, "There is nothing to see in the text");
    expectRefusal(saveText("\n", "out.png"), 1, "There is nothing to see in the text");
    EXPECT_FALSE(std::filesystem::exists(file("out.png")));
}

TEST_F(ToolTextTest, EmptyTextWithPaddingIsABlock) {
    EXPECT_EQ(saveText("", "out.png", {"--padding", "3,2,1,0", "--background-color", "red"}).out,
              file("out.png") + ": 4x2\n");
}

TEST_F(ToolTextTest, TextThatIsTooLargeIsAFailure) {
    expectRefusal(saveText("A", "out.png", {"--padding", "65535,65535,65535,65535"}), 1,
                  "The picture would become too large");
}

// Raster fonts.

class ToolRasterTextTest : public ToolTextTest {
protected:
    /// Cells of 4x4: "A" is red, the space blue, all else lime.
    std::string rasterFont() const {
        Picture font = plain({64, 64}, lime);
        DrawUtils::fillRectangle(font, {0, 8, 4, 4}, blue);
        DrawUtils::fillRectangle(font, {4, 16, 4, 4}, red);
        return still("font.png", font);
    }
};

TEST_F(ToolRasterTextTest, EveryByteIsACell) {
    const Result result = run({"text", "A A\nA", "-o", file("out.png"), "--raster-font", rasterFont()});
    EXPECT_EQ(result.out, file("out.png") + ": 12x8\n");
    const Picture out = loadPicture(file("out.png"));
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 12; ++x) {
            const bool isLetter = x < 4 || (y < 4 && x >= 8);
            EXPECT_EQ(pixel(out, x, y), isLetter ? red : blue) << x << ", " << y;
        }
    }
}

TEST_F(ToolRasterTextTest, BytesNeedNotBeUtf8) {
    EXPECT_EQ(run({"text", "A\xe9", "-o", file("out.png"), "--raster-font", rasterFont()}).out,
              file("out.png") + ": 8x4\n");
    EXPECT_EQ(pixel(loadPicture(file("out.png")), 5, 1), lime);
}

TEST_F(ToolRasterTextTest, ExcludesWhatSaysHowTextsLook) {
    for (const auto& [option, value] :
         std::vector<std::pair<std::string, std::string>>{{"--font", "a.ttf"},
                                                          {"--font-size", "10"},
                                                          {"--font-color", "red"},
                                                          {"--background-color", "red"},
                                                          {"--padding", "1,1,1,1"}}) {
        expectRefusal(run({"text", "A", "-o", file("out.png"), "--raster-font", "font.png", option, value}),
                      2, option + " and --raster-font exclude each other");
    }
}

TEST_F(ToolRasterTextTest, FontThatIsNoPictureIsAFailure) {
    const std::string missing = file("missing.png");
    expectRefusal(run({"text", "A", "-o", file("out.png"), "--raster-font", missing}), 1,
                  "--raster-font " + missing + ": can't open input file");
    const std::string sound = makeSound("sound.wav");
    expectRefusal(run({"text", "A", "-o", file("out.png"), "--raster-font", sound}), 1,
                  "--raster-font " + sound + ": Could not load font " + sound);
}

TEST_F(ToolRasterTextTest, DoesNotOverwriteTheFont) {
    const std::string font = rasterFont();
    expectRefusal(run({"text", "A", "-o", font, "--raster-font", font}), 1,
                  font + " is the font, and was not overwritten");
}

TEST_F(ToolRasterTextTest, TextWithoutAnythingToSeeIsAFailure) {
    expectRefusal(run({"text", "\n", "-o", file("out.png"), "--raster-font", rasterFont()}), 1,
                  "There is nothing to see in the text");
}

}  // namespace
}  // namespace kvffmpeg
