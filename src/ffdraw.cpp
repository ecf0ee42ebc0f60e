#include "kvffmpeg/ffdraw.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include "ffmpeg_compat.h"
#include "kernels.h"
#include "picture_planes.h"

extern "C" {
#include <libavutil/error.h>
}

namespace kvffmpeg {
namespace {

// ---- Formats

bool isRgb(const AVPixFmtDescriptor& format) noexcept {
    return (format.flags & AV_PIX_FMT_FLAG_RGB) != 0;
}

bool hasAlpha(const AVPixFmtDescriptor& format) noexcept {
    return (format.flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
}

int sampleBytes(const AVComponentDescriptor& component) noexcept {
    return component.depth > 8 ? 2 : 1;
}

/// A component is drawn on in whole bytes, so its bits must lie at the top or at the bottom of them.
bool liesInWholeBytes(const AVComponentDescriptor& component) noexcept {
    return component.depth >= 8 && component.depth <= 16 && component.offset % sampleBytes(component) == 0 &&
           (component.shift == 0 || (component.shift + component.depth) % 8 == 0);
}

// ---- Colours

struct Yuv {
    int y, u, v;
};

/// BT.601 in 1/1024, rounded: luma to 16 ... 235, chroma to 16 ... 240. The shifts round down.
Yuv limitedYuv(int r, int g, int b) noexcept {
    return {(263 * r + 516 * g + 100 * b + 16896) >> 10, ((-152 * r - 298 * g + 450 * b + 511) >> 10) + 128,
            ((450 * r - 377 * g - 73 * b + 511) >> 10) + 128};
}

/// The same to 0 ... 255.
Yuv fullYuv(int r, int g, int b) noexcept {
    return {std::min((306 * r + 601 * g + 117 * b + 512) >> 10, 255),
            ((-173 * r - 339 * g + 512 * b + 511) >> 10) + 128,
            ((512 * r - 429 * g - 83 * b + 511) >> 10) + 128};
}

void setComponent(FFDrawColor& color, const AVComponentDescriptor& component, int value) noexcept {
    std::uint8_t* sample = color.comp[component.plane].u8 + component.offset;
    if (sampleBytes(component) == 1) {
        sample[0] = static_cast<std::uint8_t>(value);
        return;
    }
    const int wide = value << (component.depth + component.shift - 8);
    sample[0] = static_cast<std::uint8_t>(wide);
    sample[1] = static_cast<std::uint8_t>(wide >> 8);
}

/// 0rgb and its like have a byte that no component uses.
void setUnusedByte(FFDrawColor& color, const AVPixFmtDescriptor& format, std::uint8_t value) noexcept {
    bool used[4] = {};
    for (int c = 0; c < format.nb_components; ++c) used[format.comp[c].offset] = true;
    color.comp[0].u8[std::find(used, used + 4, false) - used] = value;
}

// ---- Fills and copies

/// The part of a plane that a rectangle covers.
struct Area {
    std::ptrdiff_t firstByte;  ///< From the plane's start.
    std::ptrdiff_t columns;
    std::ptrdiff_t rows;
};

std::ptrdiff_t offsetOf(const FFDrawContext& draw, unsigned plane, int linesize, int x, int y) noexcept {
    return std::ptrdiff_t{y >> draw.vsub[plane]} * linesize +
           std::ptrdiff_t{x >> draw.hsub[plane]} * draw.pixelstep[plane];
}

std::ptrdiff_t shiftedUp(int size, int shift) noexcept {
    return (std::ptrdiff_t{size} + (1 << shift) - 1) >> shift;
}

Area areaOf(const FFDrawContext& draw, unsigned plane, int linesize, int x, int y, int w, int h) noexcept {
    return {offsetOf(draw, plane, linesize, x, y), shiftedUp(w, draw.hsub[plane]),
            shiftedUp(h, draw.vsub[plane])};
}

/// A span of this size or more is filled fastest by the CPU's own string instruction, which, like the C
/// library's memset and unlike any loop of stores, does not read the memory first.
constexpr std::size_t longSpan = 2048;

/// What a fill repeats.
class Pattern {
public:
    Pattern(const std::uint8_t* bytes, std::size_t step) noexcept
        : step_(step),
          isUniform_(
              std::all_of(bytes + 1, bytes + step, [&](std::uint8_t byte) { return byte == bytes[0]; })) {
        if (isUniform_) {
            bytes_[0] = bytes[0];
            return;
        }
        // There are no other steps than 1, 2, 3, 4 and 6.
        for (std::size_t i = 0; i < sizeof(bytes_); ++i) bytes_[i] = i < step ? bytes[i] : bytes_[i - step];
    }

    void fill(std::uint8_t* span, std::size_t count) const noexcept {
        if (isUniform_) {
            std::memset(span, bytes_[0], count);
            return;
        }
#if defined(__x86_64__)
        if (count >= longSpan && 8 % step_ == 0) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes_, 8);
            std::size_t words = count / 8;
            asm volatile("rep stosq" : "+D"(span), "+c"(words) : "a"(word) : "memory");
            std::memcpy(span, bytes_, count % 8);
            return;
        }
#endif
        kernels::active().repeatRow(span, static_cast<std::ptrdiff_t>(count), bytes_);
    }

private:
    std::size_t step_;
    bool isUniform_;
    std::uint8_t bytes_[kernels::patternBytes] = {};  ///< Only the first one is set if all are the same.
};

void fillRows(std::uint8_t* first, std::ptrdiff_t linesize, std::ptrdiff_t columns, std::ptrdiff_t rows,
              const std::uint8_t* bytes, int pixelstep) noexcept {
    if (columns <= 0 || rows <= 0) return;
    const Pattern pattern(bytes, static_cast<std::size_t>(pixelstep));
    const auto size = static_cast<std::size_t>(columns * pixelstep);
    if (linesize == columns * pixelstep) {
        pattern.fill(first, size * static_cast<std::size_t>(rows));
        return;
    }
    for (std::ptrdiff_t row = 0; row < rows; ++row) pattern.fill(first + row * linesize, size);
}

void copyRows(std::uint8_t* destination, std::ptrdiff_t destinationLinesize, const std::uint8_t* source,
              std::ptrdiff_t sourceLinesize, std::ptrdiff_t rowBytes, std::ptrdiff_t rows) noexcept {
    if (rowBytes <= 0 || rows <= 0) return;
    const auto size = static_cast<std::size_t>(rowBytes);
    if (destinationLinesize == rowBytes && sourceLinesize == rowBytes) {
        std::memmove(destination, source, size * static_cast<std::size_t>(rows));
        return;
    }
    // Within one image, no row may be overwritten before it was read.
    const bool ascending = std::less<>()(destination, source) == (sourceLinesize >= 0);
    for (std::ptrdiff_t i = 0; i < rows; ++i) {
        const std::ptrdiff_t row = ascending ? i : rows - 1 - i;
        std::memmove(destination + row * destinationLinesize, source + row * sourceLinesize, size);
    }
}

// ---- Masks

/// A mask, and the part of it that lies inside the image, in the image's coordinates.
struct Mask {
    const std::uint8_t* bits;
    std::ptrdiff_t linesize;
    std::ptrdiff_t x0, y0;       ///< Of the mask's top-left pixel.
    std::ptrdiff_t left, right;  ///< First column inside, and one past the last.
    std::ptrdiff_t top, bottom;  ///< The same of rows.

    const std::uint8_t* row(std::ptrdiff_t y) const noexcept { return bits + (y - y0) * linesize; }
};

/// The value of pixel i of a row of a mask, 0 ... 255.
template <int l2depth>
unsigned maskValue(const std::uint8_t* row, std::ptrdiff_t i) noexcept {
    if constexpr (l2depth == 3) {
        return row[i];
    } else {
        constexpr unsigned depth = 1U << l2depth;
        constexpr unsigned largest = (1U << depth) - 1;
        constexpr unsigned lastInByte = 7U >> l2depth;
        const unsigned byte = row[i >> (3 - l2depth)];
        const unsigned pixel = lastInByte - (static_cast<unsigned>(i) & lastInByte);
        return ((byte >> (pixel * depth)) & largest) * (255 / largest);
    }
}

/// Samples of a row whose coverage is formed at a time, and the pixels that share them at most.
constexpr std::ptrdiff_t chunkSamples = 128;
constexpr std::ptrdiff_t chunkPixels = chunkSamples * 4;

/// The coverage of `count` samples of a plane from (column, row) on, each the average over the pixels that
/// share the sample, of which those outside the mask count 0.
template <int l2depth>
void averageMask(const Mask& mask, std::ptrdiff_t column, std::ptrdiff_t row, std::ptrdiff_t count,
                 unsigned hsub, unsigned vsub, std::uint8_t* coverage) noexcept {
    std::uint16_t sums[chunkPixels];  // of the rows, one a column of pixels
    std::fill_n(sums, count << hsub, std::uint16_t{0});
    const std::ptrdiff_t start = column << hsub;
    const std::ptrdiff_t left = std::max(mask.left, start);
    const std::ptrdiff_t right = std::min(mask.right, start + (count << hsub));
    const std::ptrdiff_t top = std::max(mask.top, row << vsub);
    const std::ptrdiff_t bottom = std::min(mask.bottom, (row + 1) << vsub);
    for (std::ptrdiff_t y = top; y < bottom; ++y) {
        const std::uint8_t* maskRow = mask.row(y);
        for (std::ptrdiff_t x = left; x < right; ++x) {
            std::uint16_t& sum = sums[x - start];
            sum = static_cast<std::uint16_t>(sum + maskValue<l2depth>(maskRow, x - mask.x0));
        }
    }
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        const std::uint16_t* first = sums + (i << hsub);
        unsigned sum = first[0];
        for (unsigned j = 1; j < 1U << hsub; ++j) sum += first[j];
        coverage[i] = static_cast<std::uint8_t>(sum >> (hsub + vsub));
    }
}

using AverageMask = decltype(&averageMask<3>);

/// By l2depth.
constexpr AverageMask averageMasks[] = {averageMask<0>, averageMask<1>, averageMask<2>, averageMask<3>};

/// How opaque a colour makes a sample where the mask is 1 of 255, so that the full mask of an opaque colour
/// is all but 2^24 (8 bits) or 2^16 (more bits).
std::uint32_t opacityOf(const AVComponentDescriptor& component, std::uint8_t alpha) noexcept {
    return sampleBytes(component) == 1 ? (0x10307U * alpha + 3) >> 8 : (0x101U * alpha + 2) >> 8;
}

// The weights of both sums are 0x1010101 and 0x10001 together, so that neither overflows: times 0xff and
// 0xffff these are exactly 2^32 - 1.

void blendBytes(std::uint8_t* samples, std::ptrdiff_t step, std::uint32_t value, std::uint32_t opacity,
                const std::uint8_t* coverage, std::ptrdiff_t count) noexcept {
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        if (coverage[i] == 0) continue;
        const std::uint32_t weight = coverage[i] * opacity;
        const std::uint32_t old = samples[i * step];
        samples[i * step] = static_cast<std::uint8_t>(((0x1010101 - weight) * old + weight * value) >> 24);
    }
}

void blendWords(std::uint8_t* samples, std::ptrdiff_t step, std::uint32_t value, std::uint32_t opacity,
                const std::uint8_t* coverage, std::ptrdiff_t count) noexcept {
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        if (coverage[i] == 0) continue;
        const std::uint32_t weight = coverage[i] * opacity;
        std::uint8_t* sample = samples + i * step;
        const std::uint32_t old = sample[0] | std::uint32_t{sample[1]} << 8;
        const std::uint32_t blended = ((0x10001 - weight) * old + weight * value) >> 16;
        sample[0] = static_cast<std::uint8_t>(blended);
        sample[1] = static_cast<std::uint8_t>(blended >> 8);
    }
}

/// Blends the first `components` components, as far as they are in the plane, of `count` samples of a row.
void blendSamples(const FFDrawContext& draw, unsigned plane, int components, const FFDrawColor& color,
                  std::uint8_t* samples, const std::uint8_t* coverage, std::ptrdiff_t count) noexcept {
    const std::uint32_t opacity = opacityOf(draw.desc->comp[0], color.rgba[3]);
    for (int c = 0; c < components; ++c) {
        const AVComponentDescriptor& component = draw.desc->comp[c];
        if (static_cast<unsigned>(component.plane) != plane) continue;
        const std::uint8_t* value = color.comp[plane].u8 + component.offset;
        std::uint8_t* first = samples + component.offset;
        if (sampleBytes(component) == 1) {
            blendBytes(first, component.step, value[0], opacity, coverage, count);
        } else {
            blendWords(first, component.step, value[0] | std::uint32_t{value[1]} << 8, opacity, coverage,
                       count);
        }
    }
}

/// Which bytes of a plane's pixels the first `components` components are, a bit for each; 0 when one of them
/// has more than a byte.
unsigned drawnBytes(const FFDrawContext& draw, unsigned plane, int components) noexcept {
    unsigned bytes = 0;
    for (int c = 0; c < components; ++c) {
        const AVComponentDescriptor& component = draw.desc->comp[c];
        if (static_cast<unsigned>(component.plane) != plane) continue;
        if (sampleBytes(component) != 1) return 0;
        bytes |= 1U << component.offset;
    }
    return bytes;
}

/// Draws a plane through a mask of 8 bits in the way that this CPU does best, and with the first plane of
/// 4:2:0 chroma the second.
/// @returns how many planes were drawn; 0 for those that there is no such way for.
unsigned blendByKernel(const FFDrawContext& draw, unsigned plane, int components, const FFDrawColor& color,
                       std::uint8_t* const dst[], const int linesizes[], const Mask& mask) noexcept {
    const kernels::MaskKernels& kernel = *kernels::active().masks;
    const kernels::Coverage coverage{mask.row(mask.top) + (mask.left - mask.x0), mask.linesize,
                                     mask.right - mask.left, mask.bottom - mask.top,
                                     opacityOf(draw.desc->comp[0], color.rgba[3])};
    const unsigned bytes = drawnBytes(draw, plane, components);
    const int step = draw.pixelstep[plane];
    const std::uint8_t* values = color.comp[plane].u8;
    const auto at = [&](unsigned p) {
        return dst[p] + (mask.top >> draw.vsub[p]) * linesizes[p] + (mask.left >> draw.hsub[p]) * step;
    };
    if (draw.hsub[plane] == 0 && draw.vsub[plane] == 0) {
        if (step == 1 && bytes == 1) {
            kernel.blendBytes(at(plane), linesizes[plane], values[0], coverage);
            return 1;
        }
        if (step == 4 && bytes != 0) {
            kernel.blendPixels(at(plane), linesizes[plane], values, bytes, coverage);
            return 1;
        }
    } else if (draw.hsub[plane] == 1 && draw.vsub[plane] == 1 && plane == 1 && step == 1 && bytes == 1 &&
               draw.pixelstep[2] == 1 && drawnBytes(draw, 2, components) == 1) {
        kernel.blendChroma({{at(1), at(2)},
                            {linesizes[1], linesizes[2]},
                            {values[0], color.comp[2].u8[0]},
                            (mask.left & 1) != 0,
                            (mask.top & 1) != 0},
                           coverage);
        return 2;
    }
    return 0;
}

}  // namespace

int ff_draw_init(FFDrawContext* draw, AVPixelFormat format, unsigned flags) noexcept {
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    if (!desc || !desc->name) return AVERROR(EINVAL);
    const std::uint64_t known =
        AV_PIX_FMT_FLAG_PLANAR | AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_ALPHA | compat::pseudoPalFlag;
    if ((desc->flags & ~known) != 0) return AVERROR(ENOSYS);
    if (format == AV_PIX_FMT_P010LE || format == AV_PIX_FMT_P010BE) return AVERROR(ENOSYS);

    FFDrawContext made;
    for (int c = 0; c < desc->nb_components; ++c) {
        const AVComponentDescriptor& component = desc->comp[c];
        if (!liesInWholeBytes(component) || component.plane > 3 || component.step >= 8)
            return AVERROR(ENOSYS);
        int& step = made.pixelstep[component.plane];
        if (step != 0 && (step != component.step || (step == 6 && component.depth == 16)))
            return AVERROR(ENOSYS);
        step = component.step;
        made.nb_planes = std::max(made.nb_planes, static_cast<unsigned>(component.plane) + 1);
    }
    if (made.nb_planes == 0) return AVERROR(ENOSYS);

    made.desc = desc;
    made.format = format;
    made.hsub[1] = made.hsub[2] = made.hsub_max = desc->log2_chroma_w;
    made.vsub[1] = made.vsub[2] = made.vsub_max = desc->log2_chroma_h;
    made.full_range = (flags & FF_DRAW_FULL_RANGE) != 0 || planes::isFullRangeFormat(format) ? 1 : 0;
    made.flags = flags;
    *draw = made;
    return 0;
}

void ff_draw_color(const FFDrawContext* draw, FFDrawColor* color, const std::uint8_t rgba[4]) noexcept {
    const AVPixFmtDescriptor& format = *draw->desc;
    FFDrawColor made;
    std::copy_n(rgba, 4, made.rgba);
    const int alpha = rgba[3];
    int values[4] = {rgba[0], rgba[1], rgba[2], alpha};
    if (!isRgb(format)) {
        const Yuv yuv =
            draw->full_range ? fullYuv(rgba[0], rgba[1], rgba[2]) : limitedYuv(rgba[0], rgba[1], rgba[2]);
        const bool gray = format.nb_components < 3;
        values[0] = yuv.y;
        values[1] = gray ? alpha : yuv.u;
        values[2] = yuv.v;
    }
    for (int c = 0; c < format.nb_components; ++c) setComponent(made, format.comp[c], values[c]);
    if (isRgb(format) && format.nb_components == 3 && draw->pixelstep[0] == 4) {
        setUnusedByte(made, format, rgba[3]);
    }
    *color = made;
}

void ff_fill_rectangle(const FFDrawContext* draw, const FFDrawColor* color, std::uint8_t* const dst[],
                       const int dst_linesize[], int x, int y, int w, int h) noexcept {
    if (w <= 0 || h <= 0) return;
    for (unsigned p = 0; p < draw->nb_planes; ++p) {
        const Area area = areaOf(*draw, p, dst_linesize[p], x, y, w, h);
        fillRows(dst[p] + area.firstByte, dst_linesize[p], area.columns, area.rows, color->comp[p].u8,
                 draw->pixelstep[p]);
    }
}

void ff_copy_rectangle2(const FFDrawContext* draw, std::uint8_t* const dst[], const int dst_linesize[],
                        const std::uint8_t* const src[], const int src_linesize[], int dst_x, int dst_y,
                        int src_x, int src_y, int w, int h) noexcept {
    if (w <= 0 || h <= 0) return;
    for (unsigned p = 0; p < draw->nb_planes; ++p) {
        const Area area = areaOf(*draw, p, dst_linesize[p], dst_x, dst_y, w, h);
        copyRows(dst[p] + area.firstByte, dst_linesize[p],
                 src[p] + offsetOf(*draw, p, src_linesize[p], src_x, src_y), src_linesize[p],
                 area.columns * draw->pixelstep[p], area.rows);
    }
}

void ff_blend_mask(const FFDrawContext* draw, const FFDrawColor* color, std::uint8_t* const dst[],
                   const int dst_linesize[], int dst_w, int dst_h, const std::uint8_t* mask,
                   int mask_linesize, int mask_w, int mask_h, int l2depth, unsigned /*endianness*/, int x0,
                   int y0) noexcept {
    if (l2depth < 0 || l2depth > 3 || color->rgba[3] == 0) return;
    const std::ptrdiff_t x = x0;
    const std::ptrdiff_t y = y0;
    const Mask clipped{mask,
                       mask_linesize,
                       x,
                       y,
                       std::max<std::ptrdiff_t>(x, 0),
                       std::min<std::ptrdiff_t>(x + mask_w, dst_w),
                       std::max<std::ptrdiff_t>(y, 0),
                       std::min<std::ptrdiff_t>(y + mask_h, dst_h)};
    if (clipped.left >= clipped.right || clipped.top >= clipped.bottom) return;

    const AVPixFmtDescriptor& format = *draw->desc;
    const bool keepAlpha = hasAlpha(format) && (draw->flags & FF_DRAW_PROCESS_ALPHA) == 0;
    const int components = format.nb_components - (keepAlpha ? 1 : 0);  // alpha is the last
    std::uint8_t averages[chunkSamples];
    for (unsigned p = 0; p < draw->nb_planes; ++p) {
        if (l2depth == 3) {
            const unsigned drawn = blendByKernel(*draw, p, components, *color, dst, dst_linesize, clipped);
            if (drawn > 0) {
                p += drawn - 1;
                continue;
            }
        }
        const unsigned hsub = draw->hsub[p];
        const unsigned vsub = draw->vsub[p];
        const bool bytesAsTheyAre = hsub == 0 && vsub == 0 && l2depth == 3;
        const std::ptrdiff_t firstColumn = clipped.left >> hsub;
        const std::ptrdiff_t endColumn = ((clipped.right - 1) >> hsub) + 1;
        const std::ptrdiff_t endRow = ((clipped.bottom - 1) >> vsub) + 1;
        const std::ptrdiff_t chunk = bytesAsTheyAre ? endColumn - firstColumn : chunkSamples;
        for (std::ptrdiff_t row = clipped.top >> vsub; row < endRow; ++row) {
            std::uint8_t* samples = dst[p] + row * dst_linesize[p];
            for (std::ptrdiff_t column = firstColumn; column < endColumn; column += chunk) {
                const std::ptrdiff_t count = std::min(chunk, endColumn - column);
                const std::uint8_t* coverage = averages;
                if (bytesAsTheyAre) {
                    coverage = clipped.row(row) + (column - x);
                } else {
                    averageMasks[l2depth](clipped, column, row, count, hsub, vsub, averages);
                }
                blendSamples(*draw, p, components, *color, samples + column * draw->pixelstep[p], coverage,
                             count);
            }
        }
    }
}

FFDrawContext initDrawContext(AVPixelFormat format, bool fullRange) {
    FFDrawContext context;
    const unsigned flags = FF_DRAW_PROCESS_ALPHA | (fullRange ? FF_DRAW_FULL_RANGE : 0U);
    if (ff_draw_init(&context, format, flags) < 0) {
        const char* name = av_get_pix_fmt_name(format);
        throw std::runtime_error(std::string("Drawing is not supported for ") +
                                 (name ? name : "(pix fmt unknown)"));
    }
    return context;
}

FFDrawColor initDrawColor(const FFDrawContext& context, Color color) noexcept {
    const std::uint8_t rgba[4] = {
        static_cast<std::uint8_t>(color.red), static_cast<std::uint8_t>(color.green),
        static_cast<std::uint8_t>(color.blue), static_cast<std::uint8_t>(color.alpha)};
    FFDrawColor made;
    ff_draw_color(&context, &made, rgba);
    return made;
}

}  // namespace kvffmpeg
