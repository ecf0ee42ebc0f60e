#pragma once

#include <cstddef>
#include <cstdint>

#include "mask_kernels.h"

namespace kvffmpeg::kernels {

/// Rows of chroma of a 4:2:0 blend, U and V together because they share their alphas. All pointers are at the
/// first column and row that are blended.
struct ChromaRows {
    std::uint8_t* destination[2];
    const std::uint8_t* source[2];
    std::ptrdiff_t destinationLinesize[2];
    std::ptrdiff_t sourceLinesize[2];
    const std::uint8_t* alpha;  ///< In luma's resolution, at twice the first chroma column and row.
    std::ptrdiff_t alphaLinesize;
    std::ptrdiff_t rows;
    bool endsOverlay;      ///< Whether the last of these rows is the overlay's last.
    std::ptrdiff_t count;  ///< Columns to blend.
    std::ptrdiff_t left;   ///< Columns of the overlay from the first one on, at least `count`.
};

/// How alpha follows from the squared distance d to the key colour.
struct KeyRule {
    std::uint8_t u;
    std::uint8_t v;
    bool soft;  ///< If so: the float (d - threshold) / divisor, cut to an int of 0 ... 255. Else: 0 or 255.
    int threshold;  ///< Not negative.
    float divisor;  ///< If soft, more than 0, possibly infinite.
    // What follows from the rest: most pixels are clearly this or that.
    int clearUpTo;   ///< The greatest distance whose alpha is 0, or -1.
    int opaqueFrom;  ///< The least distance whose alpha is 255, or more than all there are.
};
/// Completes the rule. Not soft for a divisor that is not more than 0.
KeyRule keyRule(std::uint8_t u, std::uint8_t v, int threshold, float divisor) noexcept;

/// What a row of alpha holds.
enum AlphaSeen : unsigned {
    someNotClear = 1,   ///< An alpha other than 0.
    someNotOpaque = 2,  ///< An alpha other than 255.
};

/// The inner loops in one way of writing them. All variants give the same bytes and touch no byte beyond the
/// counts given, which may be 0. Destination and source may be the same, but must not overlap otherwise;
/// only the scalar variant, which goes sample by sample from the left, takes any overlap.
struct Variant {
    const char* name;
    bool (*supported)() noexcept;  ///< Whether this CPU runs it.

    /// `count` samples of one byte. Returns which of `AlphaSeen` were among the alphas, or might have been.
    unsigned (*blendRow)(std::uint8_t* destination, const std::uint8_t* source, const std::uint8_t* alpha,
                         std::ptrdiff_t count);
    void (*blendChromaRows)(const ChromaRows& area);
    /// `count` pixels of four bytes, alpha last.
    void (*blendRgbaRow)(std::uint8_t* destination, const std::uint8_t* source, std::ptrdiff_t count);
    /// `count` pixels of four bytes, alpha first.
    void (*blendArgbRow)(std::uint8_t* destination, const std::uint8_t* source, std::ptrdiff_t count);
    /// (S * a + D * (255 - a)) / 255, rounded down, for `count` samples of one byte. The alpha of a sample is
    /// the last byte of a pixel of four; sample i takes pixel i * `pixelsPerSample` (1 or 2). Reads the
    /// pixels 0 ... count * pixelsPerSample - 1 at most.
    void (*composeRow)(std::uint8_t* destination, const std::uint8_t* source, const std::uint8_t* pixels,
                       std::ptrdiff_t count, int pixelsPerSample);
    /// The alphas of `count` chroma samples, 2 * count bytes in each of the two rows.
    void (*keyRow)(std::uint8_t* upper, std::uint8_t* lower, const std::uint8_t* u, const std::uint8_t* v,
                   std::ptrdiff_t count, const KeyRule& rule);
    /// Replaces each of `count` bytes by its entry in the table of 256.
    void (*mapRow)(std::uint8_t* row, std::ptrdiff_t count, const std::uint8_t* table);
    /// Writes `count` bytes, which repeat the `patternBytes` of the pattern from its first on.
    void (*repeatRow)(std::uint8_t* row, std::ptrdiff_t count, const std::uint8_t* pattern);

    const MaskKernels* masks;
};

/// The length of what `repeatRow` repeats: a multiple of 1, 2, 3, 4 and 6.
constexpr std::ptrdiff_t patternBytes = 192;

/// The scalar `blendChromaRows` for U (0) or V (1) alone.
void blendChromaPlane(const ChromaRows& area, int plane);

extern const Variant scalar;
extern const Variant avx2;
extern const Variant avx512;      ///< The parts F, BW and VL.
extern const Variant avx512vbmi;  ///< And VBMI, for table look-ups.

struct VariantList {
    const Variant* const* first;
    std::size_t count;
    const Variant* const* begin() const noexcept { return first; }
    const Variant* const* end() const noexcept { return first + count; }
};
/// All variants, plainest first, whether or not this CPU runs them.
VariantList all() noexcept;

/// The last of `all()` that this CPU runs, found on the first call.
const Variant& active() noexcept;

/// For tests and measurements: makes `active()` return `variant`, which this CPU must run, or what it would
/// return by itself, if null. Not while another thread draws.
void setActive(const Variant* variant) noexcept;

}  // namespace kvffmpeg::kernels
