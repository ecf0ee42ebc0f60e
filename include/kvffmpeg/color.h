#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "kvffmpeg/export.h"

/// \file
/// Colours, from and to text.

namespace kvffmpeg {

/// A colour: red, green, blue and alpha, each 0 ... 255 (not checked). A plain value.
struct KVFFMPEG_EXPORT Color {
    std::uint32_t red = 0;      ///< 0 ... 255.
    std::uint32_t green = 0;    ///< 0 ... 255.
    std::uint32_t blue = 0;     ///< 0 ... 255.
    std::uint32_t alpha = 255;  ///< 255 is opaque.

    constexpr Color() noexcept = default;  ///< Opaque black.
    /// The colour of these components, opaque by default.
    constexpr Color(unsigned r, unsigned g, unsigned b, unsigned a = 255) noexcept
        : red(r), green(g), blue(b), alpha(a) {}
    /// From any text that FFmpeg takes for a colour: "red", "#ff8000", "0x00FF0080", "red@0.5". Without an
    /// alpha part it is opaque.
    /// @throws std::runtime_error "Can not parse color value " and the text.
    explicit Color(const std::string& text);
};

/// Equal in all four components.
constexpr bool operator==(const Color& a, const Color& b) noexcept {
    return a.red == b.red && a.green == b.green && a.blue == b.blue && a.alpha == b.alpha;
}
/// Different in a component.
constexpr bool operator!=(const Color& a, const Color& b) noexcept {
    return !(a == b);
}

/// Writes "#" and the components in lower-case hexadecimal, red with two digits and the others with as many
/// as they need: {1, 2, 3, 255} is "#0123ff". Meant for people; only components from 16 on read back as they
/// were. Leaves the stream's fill character at '0'; its flags come back.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Color& color);
/// Reads one word and parses it, also when there was none to read (an exhausted stream throws, with an empty
/// text). Does nothing when the stream is bad.
/// @throws what the constructor from text throws; `color` keeps its value then.
KVFFMPEG_EXPORT std::istream& operator>>(std::istream& in, Color& color);

}  // namespace kvffmpeg
