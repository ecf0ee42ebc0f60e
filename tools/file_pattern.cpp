#include "file_pattern.h"

#include <string_view>

#include "errors.h"

namespace kvffmpeg::tool {
namespace {

[[noreturn]] void refuse(const std::string& pattern, const std::string& reason) {
    throw UsageError("--output \"" + pattern + "\": " + reason);
}

/// The conversion at the start of `text`, from its percent sign to the "d"; empty when it is none.
std::string_view conversionAt(std::string_view text) {
    constexpr std::size_t mostDigits = 2;
    const std::size_t end = text.find_first_not_of("0123456789", 1);
    if (end == std::string_view::npos || text[end] != 'd' || end > 1 + mostDigits) return {};
    return text.substr(0, end + 1);
}

}  // namespace

FilePattern::FilePattern(const std::string& pattern) {
    bool hasNumber = false;
    for (std::string_view rest = pattern; !rest.empty();) {
        std::string& literal = hasNumber ? after_ : before_;
        if (rest[0] != '%' || rest.substr(0, 2) == "%%") {
            literal += rest[0];
            rest.remove_prefix(rest[0] == '%' ? 2 : 1);
            continue;
        }
        const std::string_view conversion = conversionAt(rest);
        if (conversion.empty()) refuse(pattern, "only %d, %5d, %05d and %% can follow a percent sign");
        if (hasNumber) refuse(pattern, "more than one place for the picture's number");
        hasNumber = true;
        if (conversion[1] == '0') padding_ = '0';
        for (const char c : conversion.substr(1, conversion.size() - 2)) {
            width_ = width_ * 10 + static_cast<std::size_t>(c - '0');
        }
        rest.remove_prefix(conversion.size());
    }
    if (!hasNumber) refuse(pattern, "no place for the picture's number, such as %05d");
}

std::string FilePattern::name(std::uint64_t number) const {
    const std::string digits = std::to_string(number);
    const std::size_t missing = digits.size() < width_ ? width_ - digits.size() : 0;
    return before_ + std::string(missing, padding_) + digits + after_;
}

}  // namespace kvffmpeg::tool
