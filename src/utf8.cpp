#include "utf8.h"

#include <cstddef>
#include <stdexcept>

namespace kvffmpeg {
namespace {

struct Decoded {
    char32_t codePoint;
    std::size_t bytes;  ///< 0: no UTF-8.
};

constexpr Decoded invalid{0, 0};

Decoded decodeFirst(const unsigned char* bytes, std::size_t count) noexcept {
    const unsigned first = bytes[0];
    if (first < 0x80) return {first, 1};
    // A first byte below 0xC2 continues a sequence or begins an overlong one.
    if (first < 0xC2 || first > 0xF4) return invalid;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (count < length) return invalid;
    char32_t codePoint = first & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xC0) != 0x80) return invalid;
        codePoint = codePoint << 6 | (bytes[i] & 0x3FU);
    }
    if (length == 3 && (codePoint < 0x800 || (codePoint >= 0xD800 && codePoint <= 0xDFFF))) return invalid;
    if (length == 4 && (codePoint < 0x10000 || codePoint > 0x10FFFF)) return invalid;
    return {codePoint, length};
}

}  // namespace

std::u32string decodeUtf8(const std::string& text) {
    std::u32string decoded;
    decoded.reserve(text.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (std::size_t i = 0; i < text.size();) {
        const Decoded next = decodeFirst(bytes + i, text.size() - i);
        if (next.bytes == 0) throw std::range_error("wstring_convert::from_bytes");
        decoded += next.codePoint;
        i += next.bytes;
    }
    return decoded;
}

}  // namespace kvffmpeg
