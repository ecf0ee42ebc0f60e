// A font and a text for it. The font is at the front; from the end: the length of the text, flags, the size
// in pixels, and before them the text.

#include "fuzz_support.h"

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

// Hostile fonts say how large the text is. What large pictures cost is no find.
constexpr std::int64_t mostPixels = 4 << 20;

void draw(FreeTypeTextRenderer& renderer, const std::string& text, unsigned flags) {
    rect_size_t size;
    // Text that is not UTF-8 is refused.
    if (!mayThrow([&] { size = renderer.getTextSize(text); })) return;
    KVFFMPEG_FUZZ_REQUIRE(size == renderer.getTextSize(text));
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_GRAY8}) {
        mayThrow([&] {
            Picture picture({67, 43}, format);
            picture.fillWithDebugData();
            for (const point_t position : {point_t{3, 5}, point_t{-31, -17}, point_t{INT32_MAX, INT32_MIN}}) {
                renderer.drawTo(picture, text, position);
            }
        });
    }
    if (std::int64_t{size.w} * size.h > mostPixels) return;
    mayThrow([&] {
        const Picture picture =
            renderer.drawYUV(text, (flags & 1) != 0 ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG);
        KVFFMPEG_FUZZ_REQUIRE(picture.empty() || picture.size() == size);
    });
}

void use(const std::string& path, int size, const std::string& text, unsigned flags) {
    mayThrow([&] {
        FreeTypeTextRenderer renderer(path, size);
        draw(renderer, text, flags);
        renderer.setBackgroundColor({0, 0, 0, 0});
        renderer.setFontColor({255, 128, 0, (flags & 2) != 0 ? 255U : 100U});
        renderer.setPadding(static_cast<int>(flags >> 2 & 7) - 2, 1, 2, static_cast<int>(flags >> 5));
        renderer.setLineSpacing(static_cast<int>(flags & 15) - 4);
        draw(renderer, "A?\t\xC3\xA9\n" + text, flags);
    });
}

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static const bool prepared = fuzz::prepare();
    (void)prepared;
    fuzz::Input input(data, size);
    const std::size_t length = input.lastByte() % 64;
    const unsigned flags = input.lastByte();
    const int pixelSize = input.lastByte();
    const std::string text = input.lastText(length);
    const fuzz::MemoryFile font(input.rest(), input.left());
    use(font.path(), pixelSize, text, flags);
    return 0;
}
