#include "text_style.h"

#include <stdexcept>

#include "errors.h"
#include "fonts.h"

namespace kvffmpeg::tool {

TextStyle styleOf(const TextStyleOptions& options) {
    TextStyle style;
    style.size = options.size;
    style.padding = options.padding;
    if (options.color) style.color = parseColor("--font-color", *options.color);
    if (options.background) style.background = parseColor("--background-color", *options.background);
    style.font = options.font.empty() ? defaultFont() : options.font;
    return style;
}

std::unique_ptr<FreeTypeTextRenderer> makeRenderer(const TextStyle& style) {
    auto renderer = std::make_unique<FreeTypeTextRenderer>(style.font, style.size);
    renderer->setFontColor(style.color);
    renderer->setBackgroundColor(style.background);
    renderer->setPadding(style.padding.left, style.padding.top, style.padding.right, style.padding.bottom);
    return renderer;
}

void requireUtf8(FreeTypeTextRenderer& renderer, const std::string& what, const std::string& text) {
    try {
        renderer.getTextSize(text);
    } catch (const std::range_error&) {
        throw UsageError(what + ": expected text in UTF-8");
    }
}

}  // namespace kvffmpeg::tool
