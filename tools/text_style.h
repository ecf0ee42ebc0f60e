#pragma once

#include <memory>
#include <optional>
#include <string>

#include "arguments.h"
#include "kvffmpeg/color.h"
#include "kvffmpeg/freetype_rendering.h"

namespace kvffmpeg::tool {

/// The largest text that can be asked for, in pixels per em; FreeType gives up not far beyond.
constexpr int largestFontSize = 10000;

/// How texts are to look, as it stands on the command line.
struct TextStyleOptions {
    std::string font;
    int size = 24;
    std::optional<std::string> color;
    std::optional<std::string> background;
    PaddingArgument padding;
    std::string given;  ///< One of the options that say how texts look; empty when none was given.
};

/// How texts look.
struct TextStyle {
    std::string font;  ///< A file.
    int size = 24;
    Color color{255, 255, 255};
    Color background{0, 0, 0, 0};  ///< None, as its alpha is 0.
    PaddingArgument padding;
};

/// Without a font on the command line it is `defaultFont()`.
/// @throws UsageError for texts that are no colours; std::runtime_error when no font can be found.
TextStyle styleOf(const TextStyleOptions& options);

/// A renderer that writes in this style. @throws std::runtime_error for a font that cannot be used.
std::unique_ptr<FreeTypeTextRenderer> makeRenderer(const TextStyle& style);

/// @throws UsageError, which begins with `what`, when `text` is not UTF-8.
void requireUtf8(FreeTypeTextRenderer& renderer, const std::string& what, const std::string& text);

}  // namespace kvffmpeg::tool
