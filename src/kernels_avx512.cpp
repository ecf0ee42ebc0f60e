// GCC 12 finds uninitialised variables in its own header.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "kernels.h"

// Compiled for AVX-512: nothing here but intrinsics and what has internal linkage, since an inline function
// of a header compiled here could be taken for the whole program.

namespace kvffmpeg::kernels {
namespace {

using std::ptrdiff_t;
using std::uint8_t;
using V = __m512i;
using Half = __m256i;
using Mask = __mmask64;
using HalfMask = __mmask32;

// The first `count` lanes, at most all 64. What is masked out of a load or store is not touched.
Mask firstLanes(ptrdiff_t count) {
    return count >= 64 ? ~Mask{0} : (Mask{1} << count) - 1;
}
HalfMask firstHalfLanes(ptrdiff_t count) {
    return static_cast<HalfMask>(firstLanes(count));
}
V load(const uint8_t* from, Mask lanes) {
    return _mm512_maskz_loadu_epi8(lanes, from);
}
V load(const uint8_t* from) {
    return _mm512_loadu_si512(from);
}
Half loadHalf(const uint8_t* from) {
    return _mm256_loadu_si256(reinterpret_cast<const Half*>(from));
}
Half loadHalf(const uint8_t* from, HalfMask lanes) {
    return _mm256_maskz_loadu_epi8(lanes, from);
}
void store(uint8_t* to, V value) {
    _mm512_storeu_si512(to, value);
}
void storeHalf(uint8_t* to, Half value) {
    _mm256_storeu_si256(reinterpret_cast<Half*>(to), value);
}
V ones() {
    return _mm512_set1_epi8(-1);
}

enum class Rounding { nearest, down };

// (D * (255 - a) + S * a) / 255. The samples are taken as signed, less 128, so that one multiplication of
// bytes with addition of neighbours gives the sum less 128 * 255, which fits in 16 bits. (t * 257) >> 16 is
// t / 255 rounded down after 1 was added, or to nearest after 128.
template <Rounding rounding>
class Blender {
public:
    // What the samples are multiplied with.
    struct Weights {
        V low;
        V high;
    };
    struct HalfWeights {
        Half low;
        Half high;
    };

    Blender() {
        // So that the compiler does not know them. GCC would form the constants anew in every round of a
        // loop; and where it knows that all bits are inverted, it writes an instruction that takes its own
        // target for an input, so that each round waits for the one before.
        asm("" : "+v"(bit7_), "+v"(ones_), "+v"(bias_), "+v"(scale_));
    }

    Weights weights(V alpha) const {
        const V rest = _mm512_xor_si512(alpha, ones_);
        return {_mm512_unpacklo_epi8(rest, alpha), _mm512_unpackhi_epi8(rest, alpha)};
    }
    HalfWeights weights(Half alpha) const {
        const Half rest = _mm256_xor_si256(alpha, half(ones_));
        return {_mm256_unpacklo_epi8(rest, alpha), _mm256_unpackhi_epi8(rest, alpha)};
    }

    V operator()(V destination, V source, const Weights& weights) const {
        const V d = _mm512_xor_si512(destination, bit7_);
        const V s = _mm512_xor_si512(source, bit7_);
        V low = _mm512_maddubs_epi16(weights.low, _mm512_unpacklo_epi8(d, s));
        V high = _mm512_maddubs_epi16(weights.high, _mm512_unpackhi_epi8(d, s));
        low = _mm512_mulhi_epu16(_mm512_add_epi16(low, bias_), scale_);
        high = _mm512_mulhi_epu16(_mm512_add_epi16(high, bias_), scale_);
        return _mm512_packus_epi16(low, high);
    }
    Half operator()(Half destination, Half source, const HalfWeights& weights) const {
        const Half d = _mm256_xor_si256(destination, half(bit7_));
        const Half s = _mm256_xor_si256(source, half(bit7_));
        Half low = _mm256_maddubs_epi16(weights.low, _mm256_unpacklo_epi8(d, s));
        Half high = _mm256_maddubs_epi16(weights.high, _mm256_unpackhi_epi8(d, s));
        low = _mm256_mulhi_epu16(_mm256_add_epi16(low, half(bias_)), half(scale_));
        high = _mm256_mulhi_epu16(_mm256_add_epi16(high, half(bias_)), half(scale_));
        return _mm256_packus_epi16(low, high);
    }
    V operator()(V destination, V source, V alpha) const {
        return (*this)(destination, source, weights(alpha));
    }

private:
    static Half half(V value) { return _mm512_castsi512_si256(value); }

    V bit7_ = _mm512_set1_epi8(-128);
    V ones_ = _mm512_set1_epi8(-1);
    V bias_ = _mm512_set1_epi16(rounding == Rounding::nearest ? -32768 : 32641);
    V scale_ = _mm512_set1_epi16(257);
};
using NearestBlender = Blender<Rounding::nearest>;

bool anyLane(V value) {
    return _mm512_test_epi32_mask(value, value) != 0;
}
bool allOnes(V value) {
    return _mm512_cmpneq_epi32_mask(value, ones()) == 0;
}

// Whether a run that begins with this alpha can be all clear or all opaque. Asked first, because it costs
// less than to look at all.
bool mayBeUniform(uint8_t alpha) {
    return static_cast<uint8_t>(alpha + 1) <= 1;
}

// Blends, copies or skips 64 samples.
unsigned blendBlock(const NearestBlender& blended, uint8_t* destination, const uint8_t* source,
                    uint8_t firstAlpha, V alpha) {
    if (mayBeUniform(firstAlpha)) {
        if (!anyLane(alpha)) return someNotOpaque;
        if (allOnes(alpha)) {
            store(destination, load(source));
            return someNotClear;
        }
    }
    store(destination, blended(load(destination), load(source), alpha));
    return someNotClear | someNotOpaque;
}

// For how many blocks after the last that was not clear the memory of clear ones is asked for all the same:
// the CPU loses track of what is skipped, and has to wait for memory where the next ones begin.
constexpr int follow = 16;

void askFor(const uint8_t* bytes) {
    _mm_prefetch(reinterpret_cast<const char*>(bytes), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(bytes + 64), _MM_HINT_T0);
}

unsigned blendRow(uint8_t* destination, const uint8_t* source, const uint8_t* alpha, ptrdiff_t count) {
    const NearestBlender blended;
    unsigned seen = 0;
    int asked = follow;
    ptrdiff_t i = 0;
    for (; i + 128 <= count; i += 128) {
        const V alpha0 = load(alpha + i);
        const V alpha1 = load(alpha + i + 64);
        if (mayBeUniform(alpha[i])) {
            if (!anyLane(_mm512_or_si512(alpha0, alpha1))) {
                seen |= someNotOpaque;
                if (asked < follow) {
                    ++asked;
                    askFor(destination + i);
                    askFor(source + i);
                }
                continue;
            }
            if (allOnes(_mm512_and_si512(alpha0, alpha1))) {
                seen |= someNotClear;
                asked = 0;
                store(destination + i, load(source + i));
                store(destination + i + 64, load(source + i + 64));
                continue;
            }
        }
        asked = 0;
        seen |= blendBlock(blended, destination + i, source + i, alpha[i], alpha0);
        seen |= blendBlock(blended, destination + i + 64, source + i + 64, alpha[i + 64], alpha1);
    }
    if (i + 64 <= count) {
        seen |= blendBlock(blended, destination + i, source + i, alpha[i], load(alpha + i));
        i += 64;
    }
    if (i < count) {
        const Mask lanes = firstLanes(count - i);
        const V a = load(alpha + i, lanes);
        seen |= someNotOpaque;  // perhaps
        if (!anyLane(a)) return seen;
        seen |= someNotClear;
        const V result = blended(load(destination + i, lanes), load(source + i, lanes), a);
        _mm512_mask_storeu_epi8(destination + i, lanes, result);
    }
    return seen;
}

// A row of chroma as the vectors take it.
struct ChromaRow {
    uint8_t* destination[2];
    const uint8_t* source[2];
    const uint8_t* upper;
    const uint8_t* lower;  // not in the overlay's last row
    ptrdiff_t count;
    ptrdiff_t left;
};

template <bool hasLower>
int lastColumnAlpha(ChromaRow row) {
    const uint8_t* upper = row.upper + 2 * (row.left - 1);
    if (!hasLower) return upper[0];
    const uint8_t* lower = row.lower + 2 * (row.left - 1);
    return (upper[0] + ((lower[0] + upper[0]) >> 1)) >> 1;
}

// The alphas of 32 chroma samples, from a row of 64 and the one below it, if any.
template <bool hasLower>
V chromaAlphaWords(V upper, V lower) {
    const V one = _mm512_set1_epi8(1);
    const V sum = _mm512_maddubs_epi16(upper, one);
    if (hasLower) return _mm512_srli_epi16(_mm512_add_epi16(sum, _mm512_maddubs_epi16(lower, one)), 2);
    const V first = _mm512_and_si512(upper, _mm512_set1_epi16(255));
    return _mm512_srli_epi16(_mm512_add_epi16(first, _mm512_srli_epi16(sum, 1)), 1);
}
template <bool hasLower>
Half chromaAlphas(V upper, V lower) {
    return _mm512_cvtepi16_epi8(chromaAlphaWords<hasLower>(upper, lower));
}

// The same for 64.
template <bool hasLower>
V chromaAlphas(V upper0, V upper1, V lower0, V lower1) {
    const V words0 = chromaAlphaWords<hasLower>(upper0, lower0);
    const V words1 = chromaAlphaWords<hasLower>(upper1, lower1);
    const V order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
    return _mm512_permutexvar_epi64(order, _mm512_packus_epi16(words0, words1));
}

// Blends 32 columns of U and V.
void blendChromaRun(const NearestBlender& blended, ChromaRow row, ptrdiff_t column, Half alpha) {
    const auto weights = blended.weights(alpha);
    for (int plane = 0; plane < 2; ++plane) {
        uint8_t* destination = row.destination[plane] + column;
        storeHalf(destination, blended(loadHalf(destination), loadHalf(row.source[plane] + column), weights));
    }
}

// The same for 64.
void blendChromaRun(const NearestBlender& blended, ChromaRow row, ptrdiff_t column, V alpha) {
    const auto weights = blended.weights(alpha);
    for (int plane = 0; plane < 2; ++plane) {
        uint8_t* destination = row.destination[plane] + column;
        store(destination, blended(load(destination), load(row.source[plane] + column), weights));
    }
}

// The same for fewer than 32, which are the first lanes.
void blendChromaRun(const NearestBlender& blended, ChromaRow row, ptrdiff_t column, Half alpha,
                    HalfMask lanes) {
    const auto weights = blended.weights(alpha);
    for (int plane = 0; plane < 2; ++plane) {
        uint8_t* destination = row.destination[plane] + column;
        const Half source = loadHalf(row.source[plane] + column, lanes);
        _mm256_mask_storeu_epi8(destination, lanes, blended(loadHalf(destination, lanes), source, weights));
    }
}

// Whether the run of 32 that begins here must be looked at, as its upper alphas may decide alone.
bool mayBeDecided(ChromaRow row, ptrdiff_t column) {
    return mayBeUniform(row.upper[2 * column]) && column + 33 < row.left;
}

// Takes the row by value: what is reached through a reference, a store of bytes might have changed.
template <bool hasLower>
void blendChroma(const NearestBlender& blended, const ChromaRow row) {
    // The overlay's width may be odd: its last column of chroma then covers one of alpha.
    constexpr Mask allButLast = ~Mask{0} >> 1;
    const auto lower = [&](ptrdiff_t byte) { return hasLower ? load(row.lower + byte) : V{}; };
    const bool endsOverlay = row.count == row.left;
    ptrdiff_t c = 0;
    while (c + 32 <= row.count && c + 32 < row.left) {
        const ptrdiff_t byte = 2 * c;
        const V upper0 = load(row.upper + byte);
        if (mayBeDecided(row, c)) {
            const bool clear = !anyLane(upper0);
            if (clear || allOnes(upper0)) {
                for (int plane = 0; plane < 2 && !clear; ++plane) {
                    storeHalf(row.destination[plane] + c, loadHalf(row.source[plane] + c));
                }
                c += 32;
                continue;
            }
        }
        if (c + 64 > row.count || mayBeDecided(row, c + 32)) {
            blendChromaRun(blended, row, c, chromaAlphas<hasLower>(upper0, lower(byte)));
            c += 32;
            continue;
        }
        if (c + 64 < row.left) {
            blendChromaRun(
                blended, row, c,
                chromaAlphas<hasLower>(upper0, load(row.upper + byte + 64), lower(byte), lower(byte + 64)));
        } else {
            const V upper1 = load(row.upper + byte + 64, allButLast);
            const V lower1 = hasLower ? load(row.lower + byte + 64, allButLast) : V{};
            const V alpha = chromaAlphas<hasLower>(upper0, upper1, lower(byte), lower1);
            constexpr Mask last = Mask{1} << 63;
            blendChromaRun(
                blended, row, c,
                _mm512_mask_set1_epi8(alpha, last, static_cast<char>(lastColumnAlpha<hasLower>(row))));
        }
        c += 64;
    }
    const ptrdiff_t columns = row.count - c;
    if (columns == 0) return;
    const Mask lanes = columns == 32 ? allButLast : firstLanes(endsOverlay ? 2 * columns - 1 : 2 * columns);
    const V upper0 = load(row.upper + 2 * c, lanes);
    const V lower0 = hasLower ? load(row.lower + 2 * c, lanes) : upper0;
    if (!anyLane(_mm512_or_si512(upper0, lower0))) return;
    Half alpha = chromaAlphas<hasLower>(upper0, lower0);
    if (endsOverlay) {
        const HalfMask last = HalfMask{1} << (columns - 1);
        alpha = _mm256_mask_set1_epi8(alpha, last, static_cast<char>(lastColumnAlpha<hasLower>(row)));
    }
    if (columns == 32) {
        blendChromaRun(blended, row, c, alpha);
    } else {
        blendChromaRun(blended, row, c, alpha, firstHalfLanes(columns));
    }
}

void blendChromaRows(const ChromaRows& given) {
    const ChromaRows area = given;
    const NearestBlender blended;
    for (ptrdiff_t r = 0; r < area.rows; ++r) {
        ChromaRow row = {};
        for (int plane = 0; plane < 2; ++plane) {
            row.destination[plane] = area.destination[plane] + r * area.destinationLinesize[plane];
            row.source[plane] = area.source[plane] + r * area.sourceLinesize[plane];
        }
        row.upper = area.alpha + 2 * r * area.alphaLinesize;
        row.count = area.count;
        row.left = area.left;
        if (area.endsOverlay && r + 1 == area.rows) {
            blendChroma<false>(blended, row);
        } else {
            row.lower = row.upper + area.alphaLinesize;
            blendChroma<true>(blended, row);
        }
    }
}

template <int alphaByte>
V alphaMask() {
    return _mm512_set1_epi32(alphaByte == 0 ? 255 : static_cast<int>(0xFF000000U));
}

// With an alpha of 0 for the alpha byte itself, the blend keeps the destination's.
template <int alphaByte>
V spreadAlpha(V pixels) {
    constexpr char none = -128;
    const __m128i index =
        alphaByte == 0 ? _mm_setr_epi8(none, 0, 0, 0, none, 4, 4, 4, none, 8, 8, 8, none, 12, 12, 12)
                       : _mm_setr_epi8(3, 3, 3, none, 7, 7, 7, none, 11, 11, 11, none, 15, 15, 15, none);
    return _mm512_shuffle_epi8(pixels, _mm512_broadcast_i32x4(index));
}

// The bits of `there` where the mask has ones, and of `elsewhere` where it has none.
V chosen(V mask, V there, V elsewhere) {
    return _mm512_ternarylogic_epi32(mask, there, elsewhere, 0xCA);
}

// Blends, copies or skips 16 pixels.
template <int alphaByte>
void blendPackedBlock(const NearestBlender& blended, uint8_t* destination, V source, uint8_t firstAlpha,
                      V mask) {
    if (mayBeUniform(firstAlpha)) {
        if (_mm512_test_epi32_mask(source, mask) == 0) return;
        if (_mm512_cmpneq_epi32_mask(_mm512_and_si512(source, mask), mask) == 0) {
            store(destination, chosen(mask, load(destination), source));
            return;
        }
    }
    store(destination, blended(load(destination), source, spreadAlpha<alphaByte>(source)));
}

template <int alphaByte>
void blendPackedRow(uint8_t* destination, const uint8_t* source, ptrdiff_t count) {
    const NearestBlender blended;
    const V mask = alphaMask<alphaByte>();
    const ptrdiff_t bytes = 4 * count;
    int asked = follow;
    ptrdiff_t i = 0;
    for (; i + 128 <= bytes; i += 128) {
        const V source0 = load(source + i);
        const V source1 = load(source + i + 64);
        if (mayBeUniform(source[i + alphaByte])) {
            if (_mm512_test_epi32_mask(_mm512_or_si512(source0, source1), mask) == 0) {
                if (asked < follow) {
                    ++asked;
                    askFor(destination + i);
                }
                continue;
            }
            const V both = _mm512_ternarylogic_epi32(source0, source1, mask, 0x80);
            if (_mm512_cmpneq_epi32_mask(both, mask) == 0) {
                asked = 0;
                store(destination + i, chosen(mask, load(destination + i), source0));
                store(destination + i + 64, chosen(mask, load(destination + i + 64), source1));
                continue;
            }
        }
        asked = 0;
        blendPackedBlock<alphaByte>(blended, destination + i, source0, source[i + alphaByte], mask);
        blendPackedBlock<alphaByte>(blended, destination + i + 64, source1, source[i + 64 + alphaByte], mask);
    }
    for (; i < bytes; i += 64) {
        const Mask lanes = firstLanes(bytes - i);
        const V s = load(source + i, lanes);
        const V d = load(destination + i, lanes);
        _mm512_mask_storeu_epi8(destination + i, lanes, blended(d, s, spreadAlpha<alphaByte>(s)));
    }
}

// The alpha bytes of 16 pixels, or of every other of 32.
__m128i loadAlphas(const uint8_t* pixels, ptrdiff_t samples, int pixelsPerSample) {
    if (pixelsPerSample == 1) {
        const auto lanes = static_cast<__mmask16>(firstLanes(samples < 0 ? 0 : samples));
        return _mm512_cvtepi32_epi8(_mm512_srli_epi32(_mm512_maskz_loadu_epi32(lanes, pixels), 24));
    }
    const auto half = [&](ptrdiff_t skipped) {
        const ptrdiff_t left = samples - skipped;
        const auto lanes = static_cast<__mmask8>(firstLanes(left < 0 ? 0 : left));
        const V both = _mm512_maskz_loadu_epi64(lanes, pixels + 8 * skipped);
        return _mm512_cvtepi64_epi8(_mm512_srli_epi64(both, 24));
    };
    return _mm_unpacklo_epi64(half(0), half(8));
}

// The alpha bytes of 64 samples, whose pixels are given in order, four bytes each.
V packAlphas(V pixels0, V pixels1, V pixels2, V pixels3) {
    const V words0 = _mm512_packus_epi32(_mm512_srli_epi32(pixels0, 24), _mm512_srli_epi32(pixels1, 24));
    const V words1 = _mm512_packus_epi32(_mm512_srli_epi32(pixels2, 24), _mm512_srli_epi32(pixels3, 24));
    const V order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    return _mm512_permutexvar_epi32(order, _mm512_packus_epi16(words0, words1));
}

// The even ones of 32 pixels.
V loadEvenPixels(const uint8_t* pixels) {
    const V even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    return _mm512_permutex2var_epi32(load(pixels), even, load(pixels + 64));
}

void composeRow(uint8_t* destination, const uint8_t* source, const uint8_t* pixels, ptrdiff_t count,
                int pixelsPerSample) {
    const Blender<Rounding::down> blended;
    ptrdiff_t i = 0;
    for (; i + 64 <= count; i += 64) {
        const uint8_t* from = pixels + 4 * i * ptrdiff_t{pixelsPerSample};
        const V alpha = pixelsPerSample == 1
                            ? packAlphas(load(from), load(from + 64), load(from + 128), load(from + 192))
                            : packAlphas(loadEvenPixels(from), loadEvenPixels(from + 128),
                                         loadEvenPixels(from + 256), loadEvenPixels(from + 384));
        if (mayBeUniform(from[3])) {
            if (!anyLane(alpha)) continue;
            if (allOnes(alpha)) {
                store(destination + i, load(source + i));
                continue;
            }
        }
        store(destination + i, blended(load(destination + i), load(source + i), alpha));
    }
    for (; i < count; i += 32) {
        const HalfMask lanes = firstHalfLanes(count - i);
        const uint8_t* from = pixels + 4 * i * ptrdiff_t{pixelsPerSample};
        const __m128i first = loadAlphas(from, count - i, pixelsPerSample);
        const __m128i second =
            loadAlphas(from + ptrdiff_t{64} * pixelsPerSample, count - i - 16, pixelsPerSample);
        const Half alpha = _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
        if (_mm256_testz_si256(alpha, alpha) != 0) continue;
        const Half result =
            blended(loadHalf(destination + i, lanes), loadHalf(source + i, lanes), blended.weights(alpha));
        _mm256_mask_storeu_epi8(destination + i, lanes, result);
    }
}

// 16 alphas as bytes, from distances of 32 bits.
__m128i wideAlphas(__m128i u, __m128i v, const KeyRule& rule) {
    const V both = _mm512_or_si512(_mm512_cvtepu8_epi32(u), _mm512_slli_epi32(_mm512_cvtepu8_epi32(v), 16));
    const V difference = _mm512_sub_epi16(both, _mm512_set1_epi32(rule.u | rule.v << 16));
    const V distances = _mm512_madd_epi16(difference, difference);
    if (!rule.soft) {
        return _mm_movm_epi8(_mm512_cmpgt_epi32_mask(distances, _mm512_set1_epi32(rule.threshold)));
    }
    const V beyond = _mm512_sub_epi32(distances, _mm512_set1_epi32(rule.threshold));
    const __m512 quotient = _mm512_div_ps(_mm512_cvtepi32_ps(beyond), _mm512_set1_ps(rule.divisor));
    const V alphas = _mm512_cvttps_epi32(_mm512_min_ps(quotient, _mm512_set1_ps(255.0F)));
    return _mm512_cvtepi32_epi8(_mm512_max_epi32(alphas, _mm512_setzero_si512()));
}

// 32 alphas, each twice.
V wideAlphas(Half u, Half v, const KeyRule& rule) {
    const __m128i low = wideAlphas(_mm256_castsi256_si128(u), _mm256_castsi256_si128(v), rule);
    const __m128i high = wideAlphas(_mm256_extracti128_si256(u, 1), _mm256_extracti128_si256(v, 1), rule);
    const V wide = _mm512_cvtepu8_epi16(_mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1));
    return _mm512_or_si512(wide, _mm512_slli_epi16(wide, 8));
}

// Decides in 16 bits, in which distances fit where it matters, except for keys that cover most of all
// colours.
class KeyLimits {
public:
    explicit KeyLimits(const KeyRule& rule)
        : rule_(rule),
          u_(_mm512_set1_epi16(rule.u)),
          v_(_mm512_set1_epi16(rule.v)),
          clear_(_mm512_set1_epi16(static_cast<short>(rule.clearUpTo))),
          opaque_(_mm512_set1_epi16(static_cast<short>(rule.opaqueFrom))) {}

    static bool fits(const KeyRule& rule) { return rule.opaqueFrom <= 65535; }
    V hard(Half u, Half v) const {
        return _mm512_movm_epi16(_mm512_cmpgt_epu16_mask(distances(u, v), clear_));
    }
    V soft(Half u, Half v) const {
        const V all = distances(u, v);
        const HalfMask beyond = _mm512_cmpgt_epu16_mask(all, clear_);
        if (beyond == _mm512_cmpge_epu16_mask(all, opaque_)) return _mm512_movm_epi16(beyond);
        return wideAlphas(u, v, rule_);
    }

private:
    V distances(Half u, Half v) const {
        const V du = _mm512_sub_epi16(_mm512_cvtepu8_epi16(u), u_);
        const V dv = _mm512_sub_epi16(_mm512_cvtepu8_epi16(v), v_);
        return _mm512_adds_epu16(_mm512_mullo_epi16(du, du), _mm512_mullo_epi16(dv, dv));
    }

    const KeyRule& rule_;
    V u_;
    V v_;
    V clear_;
    V opaque_;
};

template <typename Alphas>
void keyBlocks(uint8_t* upper, uint8_t* lower, const uint8_t* u, const uint8_t* v, ptrdiff_t count,
               const Alphas& alphas) {
    ptrdiff_t i = 0;
    for (; i + 32 <= count; i += 32) {
        const V alpha = alphas(loadHalf(u + i), loadHalf(v + i));
        _mm512_storeu_si512(upper + 2 * i, alpha);
        _mm512_storeu_si512(lower + 2 * i, alpha);
    }
    if (i < count) {
        const HalfMask lanes = firstHalfLanes(count - i);
        const Mask pairs = firstLanes(2 * (count - i));
        const V alpha = alphas(loadHalf(u + i, lanes), loadHalf(v + i, lanes));
        _mm512_mask_storeu_epi8(upper + 2 * i, pairs, alpha);
        _mm512_mask_storeu_epi8(lower + 2 * i, pairs, alpha);
    }
}

void keyRow(uint8_t* upper, uint8_t* lower, const uint8_t* u, const uint8_t* v, ptrdiff_t count,
            const KeyRule& rule) {
    const KeyLimits limits(rule);
    if (!KeyLimits::fits(rule)) {
        keyBlocks(upper, lower, u, v, count, [&](Half us, Half vs) { return wideAlphas(us, vs, rule); });
    } else if (rule.opaqueFrom - rule.clearUpTo == 1) {
        keyBlocks(upper, lower, u, v, count, [&](Half us, Half vs) { return limits.hard(us, vs); });
    } else {
        keyBlocks(upper, lower, u, v, count, [&](Half us, Half vs) { return limits.soft(us, vs); });
    }
}

void mapRow(uint8_t* row, ptrdiff_t count, const uint8_t* table) {
    avx2.mapRow(row, count, table);
}

__attribute__((target("avx512vbmi"))) void mapRowByPermutation(uint8_t* row, ptrdiff_t count,
                                                               const uint8_t* table) {
    const V quarter0 = load(table);
    const V quarter1 = load(table + 64);
    const V quarter2 = load(table + 128);
    const V quarter3 = load(table + 192);
    for (ptrdiff_t i = 0; i < count; i += 64) {
        const Mask lanes = firstLanes(count - i);
        const V bytes = load(row + i, lanes);
        const V low = _mm512_permutex2var_epi8(quarter0, bytes, quarter1);
        const V high = _mm512_permutex2var_epi8(quarter2, bytes, quarter3);
        const V result = _mm512_mask_mov_epi8(low, _mm512_movepi8_mask(bytes), high);
        _mm512_mask_storeu_epi8(row + i, lanes, result);
    }
}

void repeatRow(uint8_t* row, ptrdiff_t count, const uint8_t* pattern) {
    const V first = load(pattern);
    const V second = load(pattern + 64);
    const V third = load(pattern + 128);
    ptrdiff_t i = 0;
    for (; i + patternBytes <= count; i += patternBytes) {
        store(row + i, first);
        store(row + i + 64, second);
        store(row + i + 128, third);
    }
    for (ptrdiff_t done = 0; i + done < count; done += 64) {
        const Mask lanes = firstLanes(count - i - done);
        _mm512_mask_storeu_epi8(row + i + done, lanes, load(pattern + done));
    }
}

bool supported() noexcept {
    return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
           __builtin_cpu_supports("avx512vl") != 0 && __builtin_cpu_supports("avx2") != 0;
}

bool vbmiSupported() noexcept {
    return supported() && __builtin_cpu_supports("avx512vbmi") != 0;
}

}  // namespace

const Variant avx512 = {
    "avx512",   supported, blendRow, blendChromaRows, blendPackedRow<3>, blendPackedRow<0>,
    composeRow, keyRow,    mapRow,   repeatRow,       &avx512Masks,
};
const Variant avx512vbmi = {
    "avx512vbmi",        vbmiSupported,     blendRow,     blendChromaRows,
    blendPackedRow<3>,   blendPackedRow<0>, composeRow,   keyRow,
    mapRowByPermutation, repeatRow,         &avx512Masks,
};

}  // namespace kvffmpeg::kernels
