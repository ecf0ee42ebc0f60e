#pragma once

#include <ft2build.h>

#include <cstdint>

#include FT_FREETYPE_H

namespace kvffmpeg {

/// A glyph's coverage as `ff_blend_mask` takes it. Borrows the samples.
struct GlyphMask {
    const std::uint8_t* firstRow = nullptr;  ///< Null: nothing to draw.
    int linesize = 0;                        ///< Negative for bitmaps that are stored bottom up.
    int width = 0;
    int rows = 0;
    int l2depth = 3;
};

/// Turns a bitmap of 2 or 4 bits a pixel, or in colour, into one of 8 bits that is 255 where it is opaque;
/// those of 1 and 8 bits stay. Bitmaps of colours become as opaque as they are dark.
/// @returns false, with the bitmap unchanged, for what is none of these or does not fit together.
bool makeDrawable(FT_Library library, FT_Bitmap& bitmap) noexcept;

/// Not checked: that `makeDrawable` took the bitmap.
GlyphMask maskOf(const FT_Bitmap& bitmap) noexcept;

}  // namespace kvffmpeg
