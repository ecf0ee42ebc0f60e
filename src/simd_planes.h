#pragma once

#include <cstddef>

#include "ffmpeg_ptr.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/picture.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

// FFmpeg's vectorised code reads and writes past the ends of rows, where its own frames have padding.
// Pictures have none.

namespace kvffmpeg {

constexpr std::size_t paletteBytes = 1024;  // 256 entries

/// What a picture's planes hold: bytes of a row and rows, chroma rounded up, as FFmpeg stores them.
struct PlaneShapes {
    PlaneShapes(AVPixelFormat format, rect_size_t size) noexcept;
    static std::size_t bytesOfRow(AVPixelFormat format, int width, std::size_t plane) noexcept;

    std::size_t count = 0;  ///< Without the palette, which is in planes[1] and has no rows.
    bool hasPalette = false;
    std::size_t rowBytes[4] = {};
    std::size_t rows[4] = {};
};

/// Whether FFmpeg's vectorised code, given this picture's own memory, stays inside it and gives the result
/// that it gives with ample padding around every row. A wrong "no" costs a copy.
///
/// libswscale reads and writes rows in steps of up to 32 bytes or 16 pixels, past the end of the row where
/// that is no multiple; in some converters it leaves the last pixels out instead, in others it handles rows
/// in pairs; and some SIMD code crashes below 16-byte alignment. More alignment cannot be asked: blocks of
/// the heap are only 16-aligned. Found by trying, beside pages that must not be touched: with rows of 16 n
/// bytes and 8 n pixels, all 30 940 pairs of formats that release 5.1 converts give the right result (but for
/// bytes that it never writes), at the same size and scaled, with heights from 1 to 8; so do samples of them
/// with every algorithm and with SIMD limited to SSE2, SSSE3, AVX and AVX2. With rows of 8 n bytes some do
/// not. Twice that is asked because newer releases have wider converters: those of 7.1 read beyond the 32
/// spare bytes behind packed RGB of other widths.
bool isSafeForSimd(const Picture& picture, const PlaneShapes& shapes) noexcept;

/// Copies a picture into planes for its format and size whose rows and ends have padding. To halve the chroma
/// of a picture of odd width, FFmpeg reads one pixel beyond the row: the last one is repeated.
void copyToPaddedPlanes(const Picture& picture, const PlaneShapes& shapes, unsigned char* const planes[4],
                        const int linesizes[4]) noexcept;

/// Whether there is a picture of a known format, with all its planes.
bool hasPixels(const Picture& picture) noexcept;

/// For libavfilter and encoders: the frame that `picture` was exported to, or, where its memory is not safe,
/// a padded copy of it. @throws std::bad_alloc.
FramePtr withPadding(FramePtr frame, const Picture& picture);

}  // namespace kvffmpeg
