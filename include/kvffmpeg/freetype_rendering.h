#pragma once

#include <memory>
#include <string>

#include "kvffmpeg/color.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"

/// \file
/// Text in any font that FreeType reads.

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace kvffmpeg {

/// Text in any font that FreeType reads, drawn onto pictures of any format that `ff_draw_init` takes.
///
/// All sizes and positions are in pixels. Text is UTF-8. Each code point is one glyph, from left to right,
/// kerned by the font's "kern" table; there is no shaping. A tab is as wide as four spaces wherever it
/// stands, a line feed begins a new line, other control characters (below 32, and 127) are ignored. A code
/// point that the font lacks or that FreeType cannot render is drawn as the font's question mark (in a font
/// without one, as its sign for missing glyphs); one for which that fails too is left out. Bitmap fonts of 1
/// to 8 bits a pixel are drawn as well; bitmaps in colour are drawn in the font colour, the darker the more
/// opaque.
///
/// A glyph is rendered when it is first needed and kept for the life of the renderer, about width x height
/// bytes each, as is the kerning of each pair. The layout of the last text is kept too: measuring and then
/// drawing a text lays it out once.
///
/// One thread at a time may use a renderer; different ones are independent. Neither copied nor moved.
class KVFFMPEG_EXPORT FreeTypeTextRenderer {
public:
    /// The first face of the font file, at `size` pixels per em: 0 ... 65535, where 0 counts as 1. A font of
    /// bitmaps has only the sizes that are in it. From some ten thousand pixels on FreeType gives up on large
    /// glyphs, which become question marks or are left out then.
    ///
    /// Defaults: font colour {255, 225, 255}, background opaque black, no padding, no line spacing.
    /// @throws std::runtime_error "Could not initialize FreeType library"; or, each followed by the path:
    /// "Could not load font ", "Could not select unicode charmap for font ",
    /// "Could not set fontsize for font ".
    FreeTypeTextRenderer(const std::string& fontPath, int size);
    ~FreeTypeTextRenderer();  ///< Frees the font and all glyphs.
    FreeTypeTextRenderer(const FreeTypeTextRenderer&) = delete;
    FreeTypeTextRenderer& operator=(const FreeTypeTextRenderer&) = delete;

    /// Of the glyphs; where alpha is below 255 they are blended. Does not change the layout.
    void setFontColor(const Color& color);
    /// Of the block behind the glyphs, padding included, which replaces what was there, alpha and all. With
    /// an alpha of 0 there is no background. Does not change the layout.
    void setBackgroundColor(const Color& color);
    /// Space around the text. Negative values are not refused: they cut the block, not the glyphs.
    void setPadding(int left, int top, int right, int bottom);
    /// Added between two lines; may be negative.
    void setLineSpacing(int spacing);

    /// The size of the block that `drawTo` would draw. Without padding: the longest line's advances by the
    /// height of all lines, each rounded up to an even number, so that text without padding fits 4:2:0. A
    /// line feed at the end adds a line. An empty text has no size but the padding. Sizes beyond what an int
    /// holds are cut.
    ///
    /// Here and below, when the text is not UTF-8, the renderer keeps its last layout and can be used on.
    /// @throws std::range_error "wstring_convert::from_bytes" for a text that is not UTF-8.
    rect_size_t getTextSize(const std::string& text);

    /// Draws the block with its top-left corner at `position`; what lies outside the picture is left out, so
    /// any position will do. The background is drawn by `DrawUtils::fillRectangle`, with its rounding for
    /// subsampled formats; the glyphs are drawn by `ff_blend_mask`, alpha like the other components.
    ///
    /// Without a background the glyphs are drawn into the picture's memory also if others share it: call
    /// `Picture::makeEditable()` first. Text of size 0 x 0 does nothing, whatever the picture.
    /// @throws what `getTextSize` throws; std::runtime_error "fillRectangle: Picture must be editable" when
    /// there is a background; "Drawing is not supported for " and the pixel format's name. Nothing is drawn
    /// then.
    void drawTo(Picture& picture, const std::string& text, point_t position);

    /// A new picture that is the block, with rows without padding. With a background it is yuv420p. Without,
    /// it is yuva420p, of the font colour all over and as opaque as the glyphs cover it, ready to be composed
    /// onto others. Empty for text of size 0 x 0.
    /// @throws what `getTextSize` throws; std::bad_alloc for a block without width or height, such as that of
    /// "\n", and for one that is too large.
    Picture drawYUV(const std::string& text, AVColorRange range);

private:
    struct FtFace;
    struct Glyph;
    struct Character;
    struct KVFFMPEG_INTERNAL State;
    std::unique_ptr<State> state_;
};

}  // namespace kvffmpeg
