#include "arguments.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "errors.h"

namespace kvffmpeg::tool {
namespace {

[[noreturn]] void refuse(const std::string& option, const std::string& text, const std::string& expected) {
    throw UsageError(option + " \"" + text + "\": " + expected);
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The value of 1 to 9 decimal digits; -1 for anything else.
std::int64_t number(std::string_view digits) {
    constexpr std::size_t mostDigits = 9;  // no sum or product of such numbers here can overflow
    if (digits.empty() || digits.size() > mostDigits) return -1;
    if (!std::all_of(digits.begin(), digits.end(), isDigit)) return -1;
    std::int64_t value = 0;
    for (const char digit : digits) value = value * 10 + (digit - '0');
    return value;
}

/// The microseconds of the digits behind the decimal point; -1 for anything but digits.
std::int64_t fraction(std::string_view digits) {
    constexpr std::size_t precision = 6;
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) return -1;
    std::string padded(digits.substr(0, precision));
    padded.resize(precision, '0');
    return number(padded);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

/// "SS", "MM:SS" or "HH:MM:SS" in seconds; only the first number may exceed 59. -1 for anything else.
std::int64_t wholeSeconds(std::string_view text) {
    const std::vector<std::string_view> parts = split(text, ':');
    if (parts.size() > 3) return -1;
    std::int64_t seconds = 0;
    for (const std::string_view part : parts) {
        const std::int64_t value = number(part);
        const bool isFirst = part.data() == text.data();
        if (value < 0 || (!isFirst && value > 59)) return -1;
        seconds = seconds * 60 + value;
    }
    return seconds;
}

/// A side of a size: 1 to `longestSide`, or -1; 0 for anything else.
int side(std::string_view text) {
    if (text == "-1") return -1;
    const std::int64_t value = number(text);
    return value >= 1 && value <= longestSide ? static_cast<int>(value) : 0;
}

/// The sides that are no sides are 0.
rect_size_t sidesOf(const std::string& text) {
    const std::vector<std::string_view> sides = split(text, 'x');
    return sides.size() == 2 ? rect_size_t{side(sides[0]), side(sides[1])} : rect_size_t{0, 0};
}

/// A whole number of up to 9 digits, which may be negative.
std::optional<int> coordinate(std::string_view text) {
    const bool isNegative = !text.empty() && text[0] == '-';
    const std::int64_t value = number(text.substr(isNegative ? 1 : 0));
    if (value < 0) return std::nullopt;
    return static_cast<int>(isNegative ? -value : value);
}

struct Placed {
    std::string what;
    point_t position;
};

/// "WHAT@X,Y", split at the last "@".
std::optional<Placed> splitPlaced(const std::string& text) {
    const std::size_t at = text.rfind('@');
    if (at == std::string::npos || at == 0) return std::nullopt;
    const std::vector<std::string_view> parts = split(std::string_view(text).substr(at + 1), ',');
    const std::optional<int> x = coordinate(parts[0]);
    const std::optional<int> y = parts.size() == 2 ? coordinate(parts[1]) : std::nullopt;
    if (!x || !y) return std::nullopt;
    return Placed{text.substr(0, at), {*x, *y}};
}

/// A decimal number from 0 to 1.
std::optional<float> share(std::string_view text) {
    const std::size_t point = text.find('.');
    const std::int64_t whole = number(text.substr(0, point));
    const std::int64_t millionths = point == std::string_view::npos ? 0 : fraction(text.substr(point + 1));
    if (whole < 0 || millionths < 0 || whole * 1000000 + millionths > 1000000) return std::nullopt;
    return static_cast<float>(static_cast<double>(whole * 1000000 + millionths) / 1e6);
}

std::optional<Color> color(std::string_view text) {
    try {
        return Color(std::string(text));
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

}  // namespace

Timestamp parseTime(const std::string& text) {
    const std::size_t point = text.find('.');
    const std::int64_t seconds = wholeSeconds(std::string_view(text).substr(0, point));
    const std::int64_t microseconds =
        point == std::string::npos ? 0 : fraction(std::string_view(text).substr(point + 1));
    if (seconds < 0 || microseconds < 0) {
        refuse("--start", text, "expected seconds (12.5) or [HH:]MM:SS[.mmm] (1:02:03.5)");
    }
    return Timestamp(seconds * 1000000 + microseconds);
}

rect_size_t parseSize(const std::string& text) {
    const rect_size_t size = sidesOf(text);
    if (size.w == 0 || size.h == 0 || (size.w < 0 && size.h < 0)) {
        refuse("--size", text,
               "expected WxH, Wx-1 or -1xH with sides from 1 to " + std::to_string(longestSide));
    }
    return size;
}

rect_size_t parseExactSize(const std::string& text) {
    const rect_size_t size = sidesOf(text);
    if (size.w <= 0 || size.h <= 0) {
        refuse("--size", text, "expected WxH with sides from 1 to " + std::to_string(longestSide));
    }
    return size;
}

unsigned int parseNumber(const std::string& option, const std::string& text, unsigned int least,
                         unsigned int most) {
    const std::int64_t value = number(text);
    if (value < std::int64_t{least} || value > std::int64_t{most}) {
        refuse(option, text,
               "expected a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return static_cast<unsigned int>(value);
}

KeyArgument parseKey(const std::string& text) {
    const std::vector<std::string_view> parts = split(text, ':');
    KeyArgument key;
    const std::optional<Color> keyed = color(parts[0]);
    const std::optional<float> similarity = parts.size() > 1 ? share(parts[1]) : key.similarity;
    const std::optional<float> blend = parts.size() > 2 ? share(parts[2]) : key.blend;
    if (!keyed || !similarity || !blend || parts.size() > 3) {
        refuse("--key", text,
               "expected COLOR[:SIMILARITY[:BLEND]] with numbers from 0 to 1, such as 0x00b140:0.2:0.02");
    }
    return {*keyed, *similarity, *blend};
}

BackgroundArgument parseBackground(const std::string& text) {
    std::error_code notThere;
    if (std::filesystem::exists(text, notThere) && !std::filesystem::is_directory(text, notThere)) {
        return {text, {}};
    }
    const std::optional<Color> plain = color(text);
    if (!plain)
        refuse("--background", text, "expected a picture file, or a colour such as white or 0x204060");
    return {{}, *plain};
}

FillArgument parseFill(const std::string& text) {
    const std::vector<std::string_view> parts = split(text, ',');
    if (parts.size() == 5) {
        const std::optional<int> x = coordinate(parts[0]);
        const std::optional<int> y = coordinate(parts[1]);
        const rect_size_t size{side(parts[2]), side(parts[3])};
        const std::optional<Color> filled = color(parts[4]);
        if (x && y && size.w > 0 && size.h > 0 && filled) return {{*x, *y, size.w, size.h}, *filled};
    }
    refuse("--fill", text,
           "expected X,Y,W,H,COLOR with sides from 1 to " + std::to_string(longestSide) +
               ", such as 0,300,640,60,black");
}

OverlayArgument parseOverlay(const std::string& text) {
    const std::optional<Placed> placed = splitPlaced(text);
    if (!placed) refuse("--overlay", text, "expected FILE@X,Y with whole numbers, such as logo.png@16,-8");
    return {placed->what, placed->position};
}

TextArgument parseText(const std::string& text) {
    const std::optional<Placed> placed = splitPlaced(text);
    if (!placed) refuse("--text", text, "expected TEXT@X,Y with whole numbers, such as Hello@16,-8");
    return {placed->what, placed->position};
}

PaddingArgument parsePadding(const std::string& text) {
    std::vector<int> sides;
    for (const std::string_view part : split(text, ',')) {
        const std::int64_t value = number(part);
        if (value >= 0 && value <= longestSide) sides.push_back(static_cast<int>(value));
    }
    if (sides.size() != 4 || std::count(text.begin(), text.end(), ',') != 3) {
        refuse(
            "--padding", text,
            "expected L,T,R,B with numbers from 0 to " + std::to_string(longestSide) + ", such as 8,4,8,4");
    }
    return {sides[0], sides[1], sides[2], sides[3]};
}

Color parseColor(const std::string& option, const std::string& text) {
    const std::optional<Color> parsed = color(text);
    if (!parsed) refuse(option, text, "expected a colour such as white, 0x204060 or black@0.5");
    return *parsed;
}

rect_size_t parseGrid(const std::string& text) {
    constexpr int most = 100;
    const rect_size_t grid = sidesOf(text);
    if (grid.w < 1 || grid.h < 1 || grid.w > most || grid.h > most) {
        refuse("--grid", text, "expected CxR, columns and rows, from 1 to " + std::to_string(most));
    }
    return grid;
}

}  // namespace kvffmpeg::tool
