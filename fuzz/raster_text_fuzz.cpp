// The image of a raster font and a text for it. The image is at the front; from the end: the length of the
// text and before it the text.

#include "fuzz_support.h"

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

// Large images make large texts. What those cost is no find.
constexpr std::int64_t mostPixels = 4 << 20;

void use(const std::string& path, const std::string& text) {
    RasterFont font;
    const bool loaded = mayThrow([&] { font.load(path); });
    KVFFMPEG_FUZZ_REQUIRE(loaded == !font.glyphs().empty());
    const std::int64_t cell = std::int64_t{font.glyphWidth()} * font.glyphHeight();
    const auto characters = static_cast<std::int64_t>(text.size());
    if (cell * characters * (characters + 1) > mostPixels) return;
    for (const char c : text) (void)font.getGlyphPicture(static_cast<unsigned char>(c));
    TextRenderer renderer;
    renderer.setFont(font);
    mayThrow([&] {
        const Picture first = renderer.renderText(text);
        const Picture again = renderer.renderText(text);
        KVFFMPEG_FUZZ_REQUIRE(first.size() == again.size());
        if (first.empty()) return;
        // Not the font's cell: glyphs of subsampled formats are cut to whole chroma samples.
        const rect_size_t glyph = font.getGlyphPicture(' ').size();
        KVFFMPEG_FUZZ_REQUIRE(glyph.w > 0 && first.width() % glyph.w == 0);
        KVFFMPEG_FUZZ_REQUIRE(glyph.h > 0 && first.height() % glyph.h == 0);
    });
}

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static const bool prepared = fuzz::prepare();
    (void)prepared;
    fuzz::Input input(data, size);
    const std::size_t length = input.lastByte();
    const std::string text = input.lastText(length);
    const fuzz::MemoryFile image(input.rest(), input.left());
    use(image.path(), text);
    return 0;
}
