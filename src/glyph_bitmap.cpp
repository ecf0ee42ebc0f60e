#include "glyph_bitmap.h"

#include <cstddef>
#include <cstdlib>
#include <limits>

#include FT_BITMAP_H

namespace kvffmpeg {
namespace {

int bitsOfPixel(const FT_Bitmap& bitmap) noexcept {
    switch (bitmap.pixel_mode) {
        case FT_PIXEL_MODE_MONO:
            return 1;
        case FT_PIXEL_MODE_GRAY2:
            return 2;
        case FT_PIXEL_MODE_GRAY4:
            return 4;
        case FT_PIXEL_MODE_BGRA:
            return 32;
        default:
            return 8;
    }
}

/// Whether there are samples, and as many as rows and pitch say.
bool fitsTogether(const FT_Bitmap& bitmap) noexcept {
    constexpr auto largest = static_cast<unsigned>(std::numeric_limits<int>::max());
    if (bitmap.width == 0 || bitmap.rows == 0) return true;
    if (!bitmap.buffer || bitmap.width > largest || bitmap.rows > largest) return false;
    return (std::int64_t{bitmap.width} * bitsOfPixel(bitmap) + 7) / 8 <= std::llabs(bitmap.pitch);
}

/// Values of `grays` levels become 0 ... 255. The bitmap is one that FreeType has just made, top down.
void spreadLevels(FT_Bitmap& bitmap, int grays) noexcept {
    const int factor = 255 / (grays - 1);
    if (factor == 1) return;
    for (unsigned y = 0; y < bitmap.rows; ++y) {
        unsigned char* row = bitmap.buffer + std::ptrdiff_t{y} * std::abs(bitmap.pitch);
        for (unsigned x = 0; x < bitmap.width; ++x) row[x] = static_cast<unsigned char>(row[x] * factor);
    }
}

}  // namespace

bool makeDrawable(FT_Library library, FT_Bitmap& bitmap) noexcept {
    if (!fitsTogether(bitmap)) return false;
    int grays = 0;
    switch (bitmap.pixel_mode) {
        case FT_PIXEL_MODE_MONO:
        case FT_PIXEL_MODE_GRAY:
            return true;
        case FT_PIXEL_MODE_GRAY2:
            grays = 4;
            break;
        case FT_PIXEL_MODE_GRAY4:
            grays = 16;
            break;
        case FT_PIXEL_MODE_BGRA:
            grays = 256;
            break;
        default:
            return false;
    }
    FT_Bitmap converted;
    FT_Bitmap_Init(&converted);
    if (FT_Bitmap_Convert(library, &bitmap, &converted, 1) != 0 || !fitsTogether(converted)) {
        FT_Bitmap_Done(library, &converted);
        return false;
    }
    spreadLevels(converted, grays);
    FT_Bitmap_Done(library, &bitmap);
    bitmap = converted;
    return true;
}

GlyphMask maskOf(const FT_Bitmap& bitmap) noexcept {
    if (bitmap.width == 0 || bitmap.rows == 0) return {};
    GlyphMask mask;
    mask.width = static_cast<int>(bitmap.width);
    mask.rows = static_cast<int>(bitmap.rows);
    mask.linesize = bitmap.pitch;
    mask.l2depth = bitmap.pixel_mode == FT_PIXEL_MODE_MONO ? 0 : 3;
    mask.firstRow = bitmap.buffer;
    // FreeType points to the first byte in memory, whichever row that is.
    if (bitmap.pitch < 0) mask.firstRow -= std::ptrdiff_t{bitmap.pitch} * (mask.rows - 1);
    return mask;
}

}  // namespace kvffmpeg
