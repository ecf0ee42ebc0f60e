#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/drawing_fixture.h"
#include "support/fonts.h"

namespace kvffmpeg {

static void PrintTo(const Color& color, std::ostream* out) {
    *out << "(" << color.red << ", " << color.green << ", " << color.blue << ", " << color.alpha << ")";
}

namespace {

using test::Arguments;
using test::Descriptor;
using test::expectRefusal;
using test::pixel;
using test::plain;
using test::Result;
using test::run;
using test::ToolProcess;
using testing::AllOf;
using testing::HasSubstr;

const Color red(255, 0, 0);
const Color lime(0, 255, 0);
const Color blue(0, 0, 255);
const Color nothing(0, 0, 0, 0);

class ToolComposeTest : public test::DrawingFixture {
protected:
    Result compose(const Arguments& arguments, const std::string& name = "out.png") const {
        Arguments all{"compose", "-o", file(name)};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run(all);
    }

    /// What it saved, as it is in the file.
    Picture composed(const Arguments& arguments) const {
        const Result result = compose(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        const Picture picture = loadPicture(file("out.png"));
        EXPECT_EQ(picture.pixelFormat(), AV_PIX_FMT_RGBA);
        EXPECT_EQ(result.out, file("out.png") + ": " + std::to_string(picture.width()) + "x" +
                                  std::to_string(picture.height()) + "\n");
        return picture;
    }

    std::string blockFont() const { return test::blockFont().write(file("blocks.bdf")); }
};

/// All pixels of `area` have the one colour, all others the other one.
void expectRectangle(const Picture& rgba, rect_t area, const Color& inside, const Color& outside) {
    for (int y = 0; y < rgba.height(); ++y) {
        for (int x = 0; x < rgba.width(); ++x) {
            const bool isInside = x >= area.x && x < area.x + area.w && y >= area.y && y < area.y + area.h;
            ASSERT_EQ(pixel(rgba, x, y), isInside ? inside : outside) << x << ", " << y;
        }
    }
}

// What is drawn on.

TEST_F(ToolComposeTest, CanvasIsTransparent) {
    const Picture picture = composed({"--size", "5x3"});
    EXPECT_EQ(picture.size(), (rect_size_t{5, 3}));
    expectRectangle(picture, {0, 0, 0, 0}, nothing, nothing);
}

TEST_F(ToolComposeTest, CanvasHasItsColour) {
    expectRectangle(composed({"--size", "5x3", "--color", "red"}), {0, 0, 5, 3}, red, red);
    expectRectangle(composed({"--size", "5x3", "--color", "red@0x40"}), {0, 0, 0, 0}, red,
                    Color(255, 0, 0, 0x40));
}

TEST_F(ToolComposeTest, BackgroundKeepsItsSizeAndAlpha) {
    const std::string background = still("background.png", {7, 5}, Color(10, 20, 30, 40));
    const Picture picture = composed({background});
    EXPECT_EQ(picture.size(), (rect_size_t{7, 5}));
    expectRectangle(picture, {0, 0, 0, 0}, red, Color(10, 20, 30, 40));
}

TEST_F(ToolComposeTest, BackgroundIsScaled) {
    const std::string background = still("background.png", {20, 10}, blue);
    for (const auto& [text, size] : std::vector<std::pair<std::string, rect_size_t>>{
             {"8x6", {8, 6}}, {"40x-1", {40, 20}}, {"-1x5", {10, 5}}}) {
        EXPECT_EQ(composed({background, "--size", text, "--algorithm", "bicubic"}).size(), size) << text;
    }
}

TEST_F(ToolComposeTest, BackgroundMayBeAPictureOfVideo) {
    const Picture picture = composed({video({32, 24}, "blue")});
    EXPECT_EQ(picture.size(), (rect_size_t{32, 24}));
    EXPECT_LE(pixel(picture, 16, 12).red, 2U);
    EXPECT_GE(pixel(picture, 16, 12).blue, 252U);
}

TEST_F(ToolComposeTest, BackgroundMayComeFromStandardInput) {
    const Descriptor input(open(still("background.png", {7, 5}, lime).c_str(), O_RDONLY));
    const Result result = ToolProcess({"compose", "-", "--format", "png_pipe", "-o", file("out.png")},
                                      {{input.get(), STDIN_FILENO}})
                              .wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(pixel(loadPicture(file("out.png")), 6, 4), lime);
}

// What is drawn.

TEST_F(ToolComposeTest, FillsComeBeforeOverlaysWhateverTheOrderOnTheCommandLine) {
    const std::string background = still("background.png", {9, 7}, blue);
    const std::string overlay = still("overlay.png", {3, 2}, lime);
    const Picture picture = composed({"--overlay", overlay + "@1,3", background, "--fill", "0,0,9,7,red"});
    expectRectangle(picture, {1, 3, 3, 2}, lime, red);
}

TEST_F(ToolComposeTest, LaterOnesAreAboveEarlierOnes) {
    const std::string first = still("first.png", {3, 3}, lime);
    const std::string second = still("second.png", {3, 3}, red);
    const Picture picture =
        composed({"--size", "4x4", "--color", "blue", "--overlay", first + "@0,0", "--overlay",
                  second + "@1,1", "--fill", "0,0,4,4,white", "--fill", "0,0,4,4,blue"});
    EXPECT_EQ(pixel(picture, 0, 0), lime);
    EXPECT_EQ(pixel(picture, 2, 2), red);
    EXPECT_EQ(pixel(picture, 3, 3), red);
    EXPECT_EQ(pixel(picture, 3, 0), blue);
}

TEST_F(ToolComposeTest, OverlaysAreClipped) {
    const std::string overlay = still("overlay.png", {4, 4}, lime);
    expectRectangle(composed({"--size", "6x5", "--color", "red", "--overlay", overlay + "@-1,-3"}),
                    {0, 0, 3, 1}, lime, red);
    expectRectangle(composed({"--size", "6x5", "--color", "red", "--overlay", overlay + "@5,3"}),
                    {5, 3, 1, 2}, lime, red);
    expectRectangle(composed({"--size", "6x5", "--color", "red", "--overlay", overlay + "@6,5"}),
                    {0, 0, 0, 0}, lime, red);
}

TEST_F(ToolComposeTest, NothingIsRoundedToTheChromaGridOfTheBackground) {
    const std::string overlay = still("overlay.png", {3, 3}, Color(255, 255, 255));
    const Picture picture = composed({video({16, 16}, "black"), "--overlay", overlay + "@5,7"});
    EXPECT_GE(pixel(picture, 5, 7).green, 255U);
    EXPECT_GE(pixel(picture, 7, 9).green, 255U);
    EXPECT_LE(pixel(picture, 4, 7).green, 2U);
    EXPECT_LE(pixel(picture, 8, 9).green, 2U);
}

TEST_F(ToolComposeTest, FillReplacesAlphaToo) {
    expectRectangle(composed({"--size", "5x4", "--color", "blue", "--fill", "1,1,2,2,red@0x20"}),
                    {1, 1, 2, 2}, Color(255, 0, 0, 0x20), blue);
}

TEST_F(ToolComposeTest, OverlayOnATransparentCanvasStaysAsItIs) {
    Picture overlay = plain({16, 16}, red);
    for (int i = 0; i < 256; ++i) {
        unsigned char* const bytes = overlay.getPlanes()[0] +
                                     std::ptrdiff_t{i / 16} * overlay.getLinesize()[0] +
                                     std::ptrdiff_t{i % 16} * 4;
        bytes[1] = static_cast<unsigned char>(255 - i);
        bytes[3] = static_cast<unsigned char>(i);
    }
    const Picture picture =
        composed({"--size", "16x16", "--overlay", still("overlay.png", overlay) + "@0,0"});
    EXPECT_EQ(pixel(picture, 0, 0), nothing);
    for (int i = 1; i < 256; ++i) {
        ASSERT_EQ(pixel(picture, i % 16, i / 16), pixel(overlay, i % 16, i / 16)) << i;
    }
}

TEST_F(ToolComposeTest, OverlayIsBlendedByItsAlpha) {
    const std::string overlay = still("overlay.png", {1, 1}, Color(255, 0, 100, 0x40));
    // 64/255 of the overlay.
    EXPECT_EQ(pixel(composed({"--size", "1x1", "--color", "0x0000c8", "--overlay", overlay + "@0,0"}), 0, 0),
              Color(64, 0, 175));
}

TEST_F(ToolComposeTest, AlphasAreJoined) {
    const std::string overlay = still("overlay.png", {1, 1}, Color(255, 0, 0, 128));
    // 0.502 of red, and of the 0.498 that show through 0.502 of blue: 0.752 in all.
    EXPECT_EQ(pixel(composed({"--size", "1x1", "--color", "blue@0x80", "--overlay", overlay + "@0,0"}), 0, 0),
              Color(170, 0, 85, 192));
}

TEST_F(ToolComposeTest, TextOnATransparentCanvasIsThePictureOfThatText) {
    for (const Arguments& style :
         {Arguments{"--font-color", "red@0x80"}, Arguments{"--background-color", "blue@0x40"},
          Arguments{"--background-color", "navy", "--padding", "3,2,1,0"}}) {
        SCOPED_TRACE(testing::PrintToString(style));
        Arguments text{"text", "A BA", "-o", file("text.png"), "--font", blockFont(), "--font-size", "10"};
        text.insert(text.end(), style.begin(), style.end());
        ASSERT_EQ(run(text).exitCode, 0);
        const Picture expected = test::load(file("text.png"));
        Arguments options{
            "--font",      blockFont(),
            "--font-size", "10",
            "--text",      "A BA@0,0",
            "--size",      std::to_string(expected.width()) + "x" + std::to_string(expected.height())};
        options.insert(options.end(), style.begin(), style.end());
        const Picture picture = composed(options);
        for (int y = 0; y < expected.height(); ++y) {
            for (int x = 0; x < expected.width(); ++x) {
                const Color wanted = pixel(expected, x, y);
                ASSERT_EQ(pixel(picture, x, y), wanted.alpha == 0 ? nothing : wanted) << x << ", " << y;
            }
        }
    }
}

TEST_F(ToolComposeTest, TextsAreAboveOverlays) {
    const std::string overlay = still("overlay.png", {20, 20}, blue);
    // "A" is a block of 4 x 7 in the second column and row.
    expectRectangle(composed({"--text", "A@3,4", "--font", blockFont(), "--font-size", "10", "--font-color",
                              "red", "--size", "20x20", "--overlay", overlay + "@0,0"}),
                    {4, 5, 4, 7}, red, blue);
}

TEST_F(ToolComposeTest, TextMayStickOut) {
    expectRectangle(composed({"--text", "A@-3,-4", "--font", blockFont(), "--font-size", "10", "--font-color",
                              "red", "--size", "8x8", "--color", "blue"}),
                    {0, 0, 2, 4}, red, blue);
}

TEST_F(ToolComposeTest, PtsStaysAsItIs) {
    KVFFMPEG_REQUIRE_FONTS();
    const Arguments style{"--font", test::monospacedFont(), "--font-size", "20"};
    Arguments text{"text", "{pts}", "-o", file("text.png")};
    text.insert(text.end(), style.begin(), style.end());
    ASSERT_EQ(run(text).exitCode, 0);
    const Picture expected = test::load(file("text.png"));
    Arguments options{"--text", "{pts}@0,0", "--size",
                      std::to_string(expected.width()) + "x" + std::to_string(expected.height())};
    options.insert(options.end(), style.begin(), style.end());
    const Picture picture = composed(options);
    for (int y = 0; y < expected.height(); ++y) {
        for (int x = 0; x < expected.width(); ++x) {
            ASSERT_EQ(pixel(picture, x, y).alpha, pixel(expected, x, y).alpha) << x << ", " << y;
        }
    }
}

// Formats.

TEST_F(ToolComposeTest, TransparentPicturesNeedAFormatThatHasAlpha) {
    const std::string transparent = " cannot be transparent, as the picture is: expected an opaque ";
    expectRefusal(compose({"--size", "4x4"}, "out.jpg"), 2,
                  "--output: " + file("out.jpg") + transparent + "--color with it, or .png");
    const std::string background = still("background.png", {4, 4}, Color(1, 2, 3, 254));
    expectRefusal(compose({background}, "out.ppm"), 2,
                  "--output: " + file("out.ppm") + transparent + "--fill below all else with it, or .png");
    EXPECT_FALSE(std::filesystem::exists(file("out.jpg")));
    EXPECT_EQ(compose({"--size", "4x4", "--color", "red"}, "out.jpg").exitCode, 0);
    EXPECT_EQ(compose({background, "--fill", "0,0,4,4,red"}, "out.ppm").exitCode, 0);
    EXPECT_EQ(pixel(test::load(file("out.ppm")), 3, 3), red);
}

TEST_F(ToolComposeTest, RefusesEndingsThatAreNoPictureFormat) {
    const std::string background = still("background.png", {4, 4}, blue);
    for (const Arguments& arguments : {Arguments{"--size", "4x4"}, Arguments{background}}) {
        expectRefusal(compose(arguments, "out.mp4"), 2,
                      "--output: " + file("out.mp4") +
                          " would not be a picture that can be written, such as .png or .jpg");
    }
}

// Mistakes.

TEST_F(ToolComposeTest, MistakesInTheCommandLineGiveTwoAndSayWhat) {
    const std::string background = still("background.png", {4, 4}, blue);
    const std::vector<std::pair<Arguments, std::string>> cases = {
        {{}, "expected a BACKGROUND picture, or --size for a canvas without one"},
        {{"--color", "red"}, "expected a BACKGROUND picture, or --size for a canvas without one"},
        {{background, "--color", "red"}, "--color: expected no BACKGROUND picture with it, only --size"},
        {{"--size", "4x4", "--format", "png_pipe"}, "--format: expected a BACKGROUND picture with it"},
        {{"--size", "4x-1"}, "--size \"4x-1\": expected WxH with sides from 1 to 65535"},
        {{background, "--size", "-1x-1"},
         "--size \"-1x-1\": expected WxH, Wx-1 or -1xH with sides from 1 to 65535"},
        {{"--size", "4x4", "--color", "nosuch"},
         "--color \"nosuch\": expected a colour such as white, 0x204060 or black@0.5"},
        {{background, "--algorithm", "cubic"}, "--algorithm: Unknown scaling algorithm \"cubic\""},
        {{background, "--overlay", "logo.png"},
         "--overlay \"logo.png\": expected FILE@X,Y with whole numbers, such as logo.png@16,-8"},
        {{background, "--fill", "1,1,0,1,red"},
         "--fill \"1,1,0,1,red\": expected X,Y,W,H,COLOR with sides from 1 to 65535, such as "
         "0,300,640,60,black"},
        {{background, "--font", "a.ttf"}, "--font: expected --text with it, TEXT@X,Y"},
        {{background, "--to", "png"},
         "--to: expected --output - with it; the ending of a file's name is its format"},
        {{background, "--format", "nosuch"}, "--format \"nosuch\": no such input format"}};
    for (const auto& [arguments, text] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        expectRefusal(compose(arguments), 2, text);
        EXPECT_FALSE(std::filesystem::exists(file("out.png")));
    }
}

TEST_F(ToolComposeTest, FilesWithoutAPictureAreAFailure) {
    const std::string background = still("background.png", {4, 4}, blue);
    const std::string missing = file("missing.png");
    const std::string sound = makeSound("sound.wav");
    expectRefusal(compose({missing}), 1, missing + ": can't open input file");
    expectRefusal(compose({sound}), 1, sound + ": There is no video in it");
    expectRefusal(compose({background, "--overlay", missing + "@0,0"}), 1,
                  "--overlay " + missing + ": can't open input file");
    EXPECT_FALSE(std::filesystem::exists(file("out.png")));
}

TEST_F(ToolComposeTest, CanvasThatIsTooLargeIsAFailure) {
    expectRefusal(compose({"--size", "65535x65535"}), 1, "--size: The picture would become too large");
}

TEST_F(ToolComposeTest, DoesNotOverwriteWhatItReads) {
    const std::string background = still("background.png", {4, 4}, blue);
    const std::string overlay = still("overlay.png", {4, 4}, red);
    const std::string font = blockFont();
    std::filesystem::copy(font, file("font.png"));
    const std::vector<std::uint8_t> before = test::readFile(background);
    expectRefusal(compose({background}, "background.png"), 1,
                  background + " is the background, and was not overwritten");
    expectRefusal(compose({background, "--overlay", overlay + "@0,0"}, "overlay.png"), 1,
                  overlay + " is an overlay, and was not overwritten");
    expectRefusal(
        compose({background, "--text", "A@0,0", "--font", file("font.png"), "--font-size", "10"}, "font.png"),
        1, file("font.png") + " is the font, and was not overwritten");
    std::filesystem::create_hard_link(background, file("link.png"));
    expectRefusal(compose({background}, "link.png"), 1,
                  file("link.png") + " is the background, and was not overwritten");
    EXPECT_EQ(test::readFile(background), before);
}

TEST_F(ToolComposeTest, HelpHasExamples) {
    const Result result = run({"compose", "--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr("\nExamples:\n  kvffmpeg compose "), HasSubstr("[BACKGROUND]")));
    EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace kvffmpeg
