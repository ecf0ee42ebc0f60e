#include "arguments.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
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

}  // namespace kvffmpeg::tool
