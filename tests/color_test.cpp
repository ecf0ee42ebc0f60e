#include "kvffmpeg/color.h"

#include <gmock/gmock.h>

#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace kvffmpeg {

// Found by argument-dependent lookup, so that failures show all components.
void PrintTo(const Color& color, std::ostream* out) {
    *out << "{" << color.red << ", " << color.green << ", " << color.blue << ", " << color.alpha << "}";
}

namespace {

using testing::StrEq;
using testing::ThrowsMessage;

std::string written(const Color& color) {
    std::ostringstream out;
    out << color;
    return out.str();
}

static_assert(Color().red == 0 && Color().green == 0 && Color().blue == 0 && Color().alpha == 255,
              "a default colour is opaque black");
static_assert(Color(1, 2, 3) == Color(1, 2, 3, 255), "colours are opaque unless told");
static_assert(std::is_trivially_copyable<Color>::value, "colours are passed by value");
static_assert(!std::is_convertible<std::string, Color>::value, "parsing may throw, so it is asked for");

TEST(ColorTest, DefaultIsOpaqueBlack) {
    const Color color;
    EXPECT_EQ(color.red, 0u);
    EXPECT_EQ(color.green, 0u);
    EXPECT_EQ(color.blue, 0u);
    EXPECT_EQ(color.alpha, 255u);
}

TEST(ColorTest, ComponentsKeepTheirOrder) {
    const Color color(1, 2, 3, 4);
    EXPECT_EQ(color.red, 1u);
    EXPECT_EQ(color.green, 2u);
    EXPECT_EQ(color.blue, 3u);
    EXPECT_EQ(color.alpha, 4u);
}

TEST(ColorTest, ColoursAreEqualWhenAllComponentsAre) {
    EXPECT_TRUE(Color(1, 2, 3, 4) == Color(1, 2, 3, 4));
    EXPECT_FALSE(Color(1, 2, 3, 4) != Color(1, 2, 3, 4));
    for (const Color& other : {Color(0, 2, 3, 4), Color(1, 0, 3, 4), Color(1, 2, 0, 4), Color(1, 2, 3, 0)}) {
        EXPECT_FALSE(Color(1, 2, 3, 4) == other) << testing::PrintToString(other);
        EXPECT_TRUE(Color(1, 2, 3, 4) != other) << testing::PrintToString(other);
    }
}

struct Parsed {
    const char* text;
    Color color;
};

void PrintTo(const Parsed& parsed, std::ostream* out) {
    *out << "\"" << parsed.text << "\"";
}

class ColorTextTest : public testing::TestWithParam<Parsed> {};

TEST_P(ColorTextTest, GivesItsColor) {
    EXPECT_EQ(Color(GetParam().text), GetParam().color);
}

INSTANTIATE_TEST_SUITE_P(Names, ColorTextTest,
                         testing::Values(Parsed{"red", {255, 0, 0, 255}}, Parsed{"green", {0, 128, 0, 255}},
                                         Parsed{"Blue", {0, 0, 255, 255}},
                                         Parsed{"WHITE", {255, 255, 255, 255}},
                                         Parsed{"black", {0, 0, 0, 255}}));
INSTANTIATE_TEST_SUITE_P(SixDigits, ColorTextTest,
                         testing::Values(Parsed{"#010203", {1, 2, 3, 255}},
                                         Parsed{"#FF8000", {255, 128, 0, 255}},
                                         Parsed{"0xff8000", {255, 128, 0, 255}},
                                         Parsed{"ff8000", {255, 128, 0, 255}}));
INSTANTIATE_TEST_SUITE_P(EightDigits, ColorTextTest,
                         testing::Values(Parsed{"#01020304", {1, 2, 3, 4}},
                                         Parsed{"0x00FF0080", {0, 255, 0, 128}},
                                         Parsed{"00000000", {0, 0, 0, 0}}));
INSTANTIATE_TEST_SUITE_P(AlphaSuffix, ColorTextTest,
                         testing::Values(Parsed{"red@0.5", {255, 0, 0, 127}}, Parsed{"red@0", {255, 0, 0, 0}},
                                         Parsed{"red@1.0", {255, 0, 0, 255}},
                                         Parsed{"red@0x80", {255, 0, 0, 128}},
                                         Parsed{"#010203@0.5", {1, 2, 3, 127}},
                                         Parsed{"0x010203@0xff", {1, 2, 3, 255}}));

class RejectedColorTextTest : public testing::TestWithParam<const char*> {};

TEST_P(RejectedColorTextTest, IsNamedInTheException) {
    const std::string text = GetParam();
    EXPECT_THAT([&] { (void)Color(text); },
                ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value " + text)));
}

INSTANTIATE_TEST_SUITE_P(All, RejectedColorTextTest,
                         testing::Values("nosuchcolour", "", " ", "not a colour", "#", "0x", "#fff", "#12345",
                                         "#1234567", "#123456789", "#gg0000", "red@", "red@x", "red@-0.5",
                                         "red@1.5", "red@0x100", "@0.5"));

TEST(ColorTest, LongRejectedTextIsNamedWhole) {
    const std::string text(1000, 'x');
    EXPECT_THAT([&] { (void)Color(text); },
                ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value " + text)));
}

TEST(ColorOutputTest, OnlyRedHasTwoDigitsAlways) {
    EXPECT_EQ(written({1, 2, 3, 255}), "#0123ff");
    EXPECT_EQ(written({255, 255, 255, 255}), "#ffffffff");
    EXPECT_EQ(written({10, 11, 12, 13}), "#0abcd");
    EXPECT_EQ(written({0, 0, 0, 0}), "#00000");
    EXPECT_EQ(written(Color()), "#0000ff");
    EXPECT_EQ(written({16, 16, 16, 16}), "#10101010");
}

TEST(ColorOutputTest, ComponentsFromSixteenOnReadBack) {
    for (const Color& color : {Color(0, 16, 16, 16), Color(255, 254, 128, 17), Color(15, 255, 255, 255)}) {
        EXPECT_EQ(Color(written(color)), color) << written(color);
    }
}

TEST(ColorOutputTest, SmallComponentsDoNotReadBack) {
    EXPECT_EQ(Color(written({255, 255, 1, 2}) + "ff"), Color(255, 255, 0x12, 255));
    EXPECT_THROW((void)Color(written({255, 255, 255, 2})), std::runtime_error);
}

struct Manipulation {
    const char* name;
    void (*apply)(std::ostream&);
};

void PrintTo(const Manipulation& manipulation, std::ostream* out) {
    *out << manipulation.name;
}

class ColorOutputFlagsTest : public testing::TestWithParam<Manipulation> {};

TEST_P(ColorOutputFlagsTest, DoNotChangeTheTextAndComeBack) {
    std::ostringstream out;
    GetParam().apply(out);
    const std::ios_base::fmtflags flags = out.flags();
    out << Color(10, 171, 12, 205);
    EXPECT_EQ(out.str(), "#0aabccd");
    EXPECT_EQ(out.flags(), flags);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ColorOutputFlagsTest,
    testing::Values(Manipulation{"nothing", [](std::ostream&) {}},
                    Manipulation{"hex", [](std::ostream& out) { out << std::hex; }},
                    Manipulation{"oct", [](std::ostream& out) { out << std::oct; }},
                    Manipulation{"uppercase", [](std::ostream& out) { out << std::uppercase; }},
                    Manipulation{"showbase", [](std::ostream& out) { out << std::showbase; }},
                    Manipulation{"showpos", [](std::ostream& out) { out << std::showpos; }},
                    Manipulation{"left", [](std::ostream& out) { out << std::left; }},
                    Manipulation{"internal", [](std::ostream& out) { out << std::internal; }},
                    Manipulation{"all",
                                 [](std::ostream& out) {
                                     out << std::hex << std::uppercase << std::showbase << std::left;
                                 }}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(ColorOutputTest, NumbersAfterwardsLookAsBefore) {
    std::ostringstream out;
    out << std::uppercase << std::showbase << std::hex << 171 << " " << Color(10, 171, 12, 205) << " " << 171;
    EXPECT_EQ(out.str(), "0XAB #0aabccd 0XAB");
}

TEST(ColorOutputTest, FillStaysZero) {
    std::ostringstream out;
    out << std::setfill('*') << Color(1, 2, 3, 4) << std::setw(5) << 42;
    EXPECT_EQ(out.fill(), '0');
    EXPECT_EQ(out.str(), "#0123400042");
}

TEST(ColorOutputTest, WidthIsUsedUp) {
    std::ostringstream out;
    out << Color(1, 2, 3, 4);
    EXPECT_EQ(out.width(), 0);
}

TEST(ColorInputTest, ReadsOneWordEach) {
    std::istringstream in("  red\n#01020304\tblue@0.5 rest");
    Color first;
    Color second;
    Color third;
    EXPECT_TRUE(in >> first >> second >> third);
    EXPECT_EQ(first, Color(255, 0, 0));
    EXPECT_EQ(second, Color(1, 2, 3, 4));
    EXPECT_EQ(third, Color(0, 0, 255, 127));
    std::string rest;
    in >> rest;
    EXPECT_EQ(rest, "rest");
}

TEST(ColorInputTest, LastWordEndsTheStreamWithoutFailure) {
    std::istringstream in("red");
    Color color;
    in >> color;
    EXPECT_EQ(color, Color(255, 0, 0));
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.fail());
}

TEST(ColorInputTest, RejectedWordThrowsAndChangesNothing) {
    std::istringstream in("nosuchcolour red");
    Color color(1, 2, 3, 4);
    EXPECT_THAT([&] { in >> color; },
                ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value nosuchcolour")));
    EXPECT_EQ(color, Color(1, 2, 3, 4));
    in >> color;
    EXPECT_EQ(color, Color(255, 0, 0)) << "the rejected word should be used up";
}

TEST(ColorInputTest, ExhaustedStreamThrowsWithAnEmptyTextAndChangesNothing) {
    std::istringstream in("red");
    Color color;
    in >> color;
    color = Color(1, 2, 3, 4);
    EXPECT_THAT([&] { in >> color; }, ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value ")));
    EXPECT_EQ(color, Color(1, 2, 3, 4));
}

TEST(ColorInputTest, EmptyStreamThrowsWithAnEmptyText) {
    std::istringstream in("  \n ");
    Color color(1, 2, 3, 4);
    EXPECT_THAT([&] { in >> color; }, ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value ")));
    EXPECT_EQ(color, Color(1, 2, 3, 4));
}

TEST(ColorInputTest, FailedStreamThrowsWithAnEmptyText) {
    std::istringstream in("red");
    in.setstate(std::ios_base::failbit);
    Color color(1, 2, 3, 4);
    EXPECT_THAT([&] { in >> color; }, ThrowsMessage<std::runtime_error>(StrEq("Can not parse color value ")));
    EXPECT_EQ(color, Color(1, 2, 3, 4));
}

TEST(ColorInputTest, BadStreamLeavesTheColorAlone) {
    std::istringstream in("red");
    in.setstate(std::ios_base::badbit);
    Color color(1, 2, 3, 4);
    EXPECT_NO_THROW(in >> color);
    EXPECT_EQ(color, Color(1, 2, 3, 4));
    EXPECT_TRUE(in.bad());
}

}  // namespace
}  // namespace kvffmpeg
