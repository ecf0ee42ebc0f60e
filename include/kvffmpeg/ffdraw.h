#pragma once

#include <cstdint>

#include "kvffmpeg/color.h"
#include "kvffmpeg/export.h"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
}

namespace kvffmpeg {

/// \file
/// Drawing into the planes of an image, whatever its pixel format, under the names that libavfilter uses for
/// its own functions, which it does not export. Planes are given as in an AVFrame: linesizes in bytes, at
/// least as long as a row, or negative for images stored bottom up. Positions and sizes are in pixels.
///
/// The functions touch nothing but their arguments and allocate nothing; any number of threads may draw at
/// the same time into different images, or into different rows and columns of one.

/// For `ff_draw_init`: `ff_blend_mask` draws alpha as it draws the other components. Without it alpha keeps
/// its value. Fills and copies always write alpha.
constexpr unsigned FF_DRAW_PROCESS_ALPHA = 1;
/// For `ff_draw_init`: colours become full-range luma and chroma (white is 255, not 235).
constexpr unsigned FF_DRAW_FULL_RANGE = 0x10000;

/// How a pixel format is drawn on. Made by `ff_draw_init`; a plain value.
struct FFDrawContext {
    const AVPixFmtDescriptor* desc = nullptr;  ///< libavutil's, which lives for ever.
    AVPixelFormat format = AV_PIX_FMT_NONE;    ///< What it draws on.
    unsigned nb_planes = 0;                    ///< 1 ... 4.
    int pixelstep[4] = {};      ///< Bytes from one sample position to the next in a row of each plane.
    std::uint8_t hsub[4] = {};  ///< log2 of how many pixels share a sample position of each plane: in a row
    std::uint8_t vsub[4] = {};  ///< and in a column.
    std::uint8_t hsub_max = 0;  ///< The largest of `hsub`.
    std::uint8_t vsub_max = 0;  ///< The largest of `vsub`.
    int full_range = 0;         ///< 1 when colours become full-range luma and chroma, else 0.
    unsigned flags = 0;         ///< As given.
};

/// A colour in the terms of one pixel format. Made by `ff_draw_color`; a plain value.
struct FFDrawColor {
    /// One sample position of a plane.
    union Component {
        std::uint32_t u32[4];  ///< As 32-bit numbers.
        std::uint16_t u16[8];  ///< As 16-bit samples.
        std::uint8_t u8[16];   ///< As bytes.
    };

    std::uint8_t rgba[4] = {};  ///< Red, green, blue, alpha.
    Component comp[4] = {};     ///< What a fill repeats in each plane: the first `pixelstep` bytes.
};

/// Prepares drawing on images of a format. Drawn on are the little-endian and 8-bit formats of 8 to 16 bits
/// per component that store each component in whole bytes of its own, with one pixel per step: planar and
/// semi-planar YUV, gray, and planar and packed RGB, with alpha and without. Not drawn on are, for example,
/// palettes, rgb565, yuyv422, rgb48, rgba64, p010, big-endian, bit-packed, floating-point and hardware
/// formats.
///
/// `flags` are FF_DRAW_PROCESS_ALPHA and FF_DRAW_FULL_RANGE; others are kept and have no effect. The yuvj
/// formats are full-range without being told.
/// @returns 0; or, with `*draw` unchanged, AVERROR(EINVAL) for what is no pixel format and AVERROR(ENOSYS)
/// for a format that is not drawn on.
KVFFMPEG_EXPORT int ff_draw_init(FFDrawContext* draw, AVPixelFormat format, unsigned flags) noexcept;

/// Turns `rgba` (red, green, blue, alpha, 0 ... 255 each, not premultiplied) into a colour of the context's
/// format. RGB is taken over; YUV and gray are those of BT.601. More than 8 bits are the 8-bit value shifted
/// up, so that 255 is 1020 in 10 bits. The unused byte of 0rgb, rgb0, 0bgr and bgr0 becomes the alpha, other
/// bytes without a meaning are 0.
KVFFMPEG_EXPORT void ff_draw_color(const FFDrawContext* draw, FFDrawColor* color,
                                   const std::uint8_t rgba[4]) noexcept;

/// Sets every component of the rectangle, alpha included, to the colour, which is of the same format. In a
/// subsampled plane the rectangle starts at the sample that holds (x, y) and has its width and height rounded
/// up: align it to the chroma grid for luma and chroma that agree. Without a width or height (also a negative
/// one) nothing is drawn, and no plane need exist. Not checked: that the rectangle lies within the planes.
KVFFMPEG_EXPORT void ff_fill_rectangle(const FFDrawContext* draw, const FFDrawColor* color,
                                       std::uint8_t* const dst[], const int dst_linesize[], int x, int y,
                                       int w, int h) noexcept;

/// Copies a rectangle, alpha included, from one image of the context's format to another, or to another place
/// of the same (the two may overlap). Subsampled planes are treated as by `ff_fill_rectangle`, on both sides.
/// Not checked: that the rectangles lie within the planes.
KVFFMPEG_EXPORT void ff_copy_rectangle2(const FFDrawContext* draw, std::uint8_t* const dst[],
                                        const int dst_linesize[], const std::uint8_t* const src[],
                                        const int src_linesize[], int dst_x, int dst_y, int src_x, int src_y,
                                        int w, int h) noexcept;

/// Draws the colour onto an image of `dst_w` x `dst_h` pixels through a mask, such as a glyph, whose top-left
/// pixel lies at (x0, y0). The mask may stick out on any side or lie outside; positions may be any int.
///
/// `l2depth` 3 is a mask of one byte a pixel, 0 (transparent) ... 255; 2, 1 and 0 are 4, 2 and 1 bits a
/// pixel, the leftmost pixel in the highest bits. (Any other depth draws nothing.) `mask_linesize` is in
/// bytes and may be negative. `endianness` is not looked at.
///
/// A sample that several pixels share is drawn with the average of their mask values; pixels without mask
/// count as 0 there. Where the mask and the colour are opaque, 8-bit samples become exactly the colour's;
/// samples of more bits keep 0.4 % of what they were.
/// Not checked: that the planes hold `dst_w` x `dst_h` pixels, and the mask `mask_w` x `mask_h`.
KVFFMPEG_EXPORT void ff_blend_mask(const FFDrawContext* draw, const FFDrawColor* color,
                                   std::uint8_t* const dst[], const int dst_linesize[], int dst_w, int dst_h,
                                   const std::uint8_t* mask, int mask_linesize, int mask_w, int mask_h,
                                   int l2depth, unsigned endianness, int x0, int y0) noexcept;

/// Prepares drawing on a format, with alpha drawn like the other components; `fullRange` as for pictures of
/// AVCOL_RANGE_JPEG.
/// @throws std::runtime_error "Drawing is not supported for " and the format's name, or "(pix fmt unknown)".
KVFFMPEG_EXPORT FFDrawContext initDrawContext(AVPixelFormat format, bool fullRange);

/// The colour in the terms of the context's format. Of each component the low 8 bits count.
KVFFMPEG_EXPORT FFDrawColor initDrawColor(const FFDrawContext& context, Color color) noexcept;

}  // namespace kvffmpeg
