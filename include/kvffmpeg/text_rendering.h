#pragma once

#include <map>
#include <string>

#include "kvffmpeg/export.h"
#include "kvffmpeg/picture.h"

/// \file
/// Text in fonts that are one picture of all glyphs.

namespace kvffmpeg {

/// A font that is one picture of 16 x 16 equal cells, one glyph for each byte value: byte c is in column
/// c % 16 and row c / 16, counted from the top left. There is no Unicode, no kerning and no scaling: what the
/// cell holds, alpha included, is the glyph.
///
/// An ordinary value; copies share the pixels, which are never written to. One thread at a time may use a
/// font; copies are independent.
class KVFFMPEG_EXPORT RasterFont {
public:
    RasterFont() = default;  ///< 8 x 8 pixels a glyph, no glyphs.

    /// Cuts the glyphs out of a picture that `loadPicture` reads, in the format in which it arrives. A cell
    /// is a sixteenth of the width by a sixteenth of the height, rounded down; what remains at the right and
    /// at the bottom is not used. The last cell, byte 255, is not loaded. The glyphs of before are gone, also
    /// if loading fails; the size of a glyph then stays.
    ///
    /// Each cell is cut by `Picture::crop`, with its rounding for subsampled formats: 4:2:0 wants cells of
    /// even width and height. Not checked: that the picture is large enough (below 16 pixels a side the
    /// cells have no area), and that its format can be cut. Formats with several pixels in a byte
    /// (monochrome, yuyv422) or with alpha in a fourth plane (yuva420p) give wrong glyphs or, at the end of
    /// the picture, empty ones.
    /// @throws what `loadPicture` throws, such as std::runtime_error "can't open input file" for a missing
    /// file; std::runtime_error "Could not load font " and the path when the file opens but does not decode.
    /// `path` is trusted input, as there.
    void load(const std::string& path);

    int glyphWidth() const noexcept { return glyphWidth_; }    ///< Of a cell, in pixels.
    int glyphHeight() const noexcept { return glyphHeight_; }  ///< Of a cell, in pixels.
    /// By byte value: 0 ... 254 after `load`. Good until the font is changed or destroyed.
    const std::map<unsigned char, Picture>& glyphs() const noexcept { return glyphs_; }

    /// The glyph of `c`, or of the space (32) if `c` has none. If that has none either, an empty picture
    /// becomes the glyph of the space, which is why this is not const. The picture shares the font's pixels:
    /// call `Picture::makeEditable()` before writing to it. Takes a search among at most 256 glyphs.
    Picture getGlyphPicture(unsigned char c);

private:
    int glyphWidth_ = 8;
    int glyphHeight_ = 8;
    std::map<unsigned char, Picture> glyphs_;
};

/// Makes pictures of text with a `RasterFont`. An ordinary value, which holds its own copy of the font. One
/// thread at a time may use a renderer; copies are independent.
class KVFFMPEG_EXPORT TextRenderer {
public:
    TextRenderer() = default;  ///< With a font without glyphs: every text gives an empty picture.

    /// Replaces the font by a copy of `font`, with which it shares the pixels.
    void setFont(RasterFont font) noexcept;
    const RasterFont& font() const noexcept { return font_; }  ///< 8 x 8 without glyphs by default.

    /// A new picture of the text, in the font's pixel format and in AVCOL_RANGE_UNSPECIFIED, `editable()`.
    /// Each byte is one glyph and advances by the width of its picture. A line feed (10) begins a new line
    /// and one at the end adds an empty line; a carriage return (13) goes back to the start of its line, so
    /// that what follows replaces what is there. The picture is as wide as the longest line, and every line
    /// is as high as the highest glyph of the text.
    ///
    /// The background is the glyph of the space, stretched over the whole picture by `Scaler::x`. Spaces
    /// leave it as it is; other glyphs replace it, alpha and all. They are put down by `Picture::bitblt`,
    /// with its rounding of the position: where a cell's width or height is odd, every second glyph or line
    /// lies one pixel further left or up, and in 4:2:0 a cell wants to be a multiple of 4. A byte whose glyph
    /// is empty is given the room of a question mark in the size of the picture, but draws nothing and does
    /// not advance.
    ///
    /// Takes time for the pixels of the picture and, for each byte, for a search among the glyphs and for
    /// the pixels of one.
    /// @returns an empty picture for text without width or height: empty text, line breaks only, a font
    /// without glyphs or with cells without area. Also when the space has an empty glyph, and when libswscale
    /// does not write the font's format, as with palettes (where the text is as large as a space, nothing is
    /// stretched, and it may be drawn nevertheless).
    /// @throws std::bad_alloc when memory runs out and when the text is too large for a picture: FFmpeg wants
    /// (width + 128) * (height + 128) to stay below 2^28, which is about 240 000 glyphs of 8 x 8 in a line.
    Picture renderText(const std::string& text);

private:
    RasterFont font_;
};

}  // namespace kvffmpeg
