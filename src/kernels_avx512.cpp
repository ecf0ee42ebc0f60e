#include <immintrin.h>

#include "kernels.h"

// Compiled for AVX-512: nothing here but intrinsics and what has internal linkage, since an inline function
// of a header compiled here could be taken for the whole program.

namespace kvffmpeg {
namespace kernels {
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
V ones() {
    return _mm512_set1_epi8(-1);
}

enum class Rounding { nearest, down };

// (D * (255 - a) + S * a) / 255. The samples are taken as signed, less 128, so that one multiplication of
// bytes with addition of neighbours gives the sum less 128 * 255, which fits in 16 bits. (t * 257) >> 16 is
// t / 255 rounded down after 1 was added, or to nearest after 128.
template <Rounding rounding>
V blended(V destination, V source, V alpha) {
    const V bit7 = _mm512_set1_epi8(-128);
    const V scale = _mm512_set1_epi16(257);
    const V d = _mm512_xor_si512(destination, bit7);
    const V s = _mm512_xor_si512(source, bit7);
    const V rest = _mm512_xor_si512(alpha, ones());
    V low = _mm512_maddubs_epi16(_mm512_unpacklo_epi8(rest, alpha), _mm512_unpacklo_epi8(d, s));
    V high = _mm512_maddubs_epi16(_mm512_unpackhi_epi8(rest, alpha), _mm512_unpackhi_epi8(d, s));
    const V bias = _mm512_set1_epi16(rounding == Rounding::nearest ? -32768 : 32641);
    low = _mm512_mulhi_epu16(_mm512_add_epi16(low, bias), scale);
    high = _mm512_mulhi_epu16(_mm512_add_epi16(high, bias), scale);
    return _mm512_packus_epi16(low, high);
}
template <Rounding rounding>
Half blended(Half destination, Half source, Half alpha) {
    const Half bit7 = _mm256_set1_epi8(-128);
    const Half scale = _mm256_set1_epi16(257);
    const Half d = _mm256_xor_si256(destination, bit7);
    const Half s = _mm256_xor_si256(source, bit7);
    const Half rest = _mm256_xor_si256(alpha, _mm256_set1_epi8(-1));
    Half low = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(rest, alpha), _mm256_unpacklo_epi8(d, s));
    Half high = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(rest, alpha), _mm256_unpackhi_epi8(d, s));
    const Half bias = _mm256_set1_epi16(rounding == Rounding::nearest ? -32768 : 32641);
    low = _mm256_mulhi_epu16(_mm256_add_epi16(low, bias), scale);
    high = _mm256_mulhi_epu16(_mm256_add_epi16(high, bias), scale);
    return _mm256_packus_epi16(low, high);
}

void blendRow(uint8_t* destination, const uint8_t* source, const uint8_t* alpha, ptrdiff_t count) {
    ptrdiff_t i = 0;
    for (; i + 64 <= count; i += 64) {
        const V a = load(alpha + i);
        if (_mm512_test_epi8_mask(a, a) == 0) continue;
        V result = load(source + i);
        if (_mm512_cmpneq_epi8_mask(a, ones()) != 0) {
            result = blended<Rounding::nearest>(load(destination + i), result, a);
        }
        _mm512_storeu_si512(destination + i, result);
    }
    if (i < count) {
        const Mask lanes = firstLanes(count - i);
        const V result = blended<Rounding::nearest>(load(destination + i, lanes), load(source + i, lanes),
                                                    load(alpha + i, lanes));
        _mm512_mask_storeu_epi8(destination + i, lanes, result);
    }
}

int lastColumnAlpha(const ChromaRow& row) {
    const uint8_t* upper = row.upper + 2 * (row.left - 1);
    if (!row.lower) return upper[0];
    const uint8_t* lower = row.lower + 2 * (row.left - 1);
    return (upper[0] + ((lower[0] + upper[0]) >> 1)) >> 1;
}

// The alphas of 32 chroma samples, from a row of 64 and the one below it, if any.
Half chromaAlphas(V upper, const uint8_t* lower, Mask lanes) {
    const V one = _mm512_set1_epi8(1);
    V sum = _mm512_maddubs_epi16(upper, one);
    if (lower) {
        sum = _mm512_add_epi16(sum, _mm512_maddubs_epi16(load(lower, lanes), one));
        return _mm512_cvtepi16_epi8(_mm512_srli_epi16(sum, 2));
    }
    const V first = _mm512_and_si512(upper, _mm512_set1_epi16(255));
    sum = _mm512_add_epi16(first, _mm512_srli_epi16(sum, 1));
    return _mm512_cvtepi16_epi8(_mm512_srli_epi16(sum, 1));
}

void blendChromaRow(const ChromaRow& row) {
    for (ptrdiff_t c = 0; c < row.count; c += 32) {
        const ptrdiff_t columns = row.count - c < 32 ? row.count - c : 32;
        const HalfMask lanes = firstHalfLanes(columns);
        const bool endsRow = c + columns == row.left;
        // The overlay's width may be odd: its last column of chroma then covers one of alpha.
        const Mask alphaLanes = firstLanes(endsRow ? 2 * columns - 1 : 2 * columns);
        const V upper = load(row.upper + 2 * c, alphaLanes);
        if (columns == 32 && c + 33 < row.left) {
            if (_mm512_test_epi8_mask(upper, upper) == 0) continue;
            if (_mm512_cmpneq_epi8_mask(upper, ones()) == 0) {
                for (int plane = 0; plane < 2; ++plane) {
                    const Half source = loadHalf(row.source[plane] + c, lanes);
                    _mm256_mask_storeu_epi8(row.destination[plane] + c, lanes, source);
                }
                continue;
            }
        }
        Half alpha = chromaAlphas(upper, row.lower ? row.lower + 2 * c : nullptr, alphaLanes);
        if (endsRow) {
            const Half last = _mm256_set1_epi8(static_cast<char>(lastColumnAlpha(row)));
            alpha = _mm256_mask_mov_epi8(alpha, HalfMask{1} << (columns - 1), last);
        }
        if (_mm256_testz_si256(alpha, alpha) != 0) continue;
        for (int plane = 0; plane < 2; ++plane) {
            uint8_t* destination = row.destination[plane] + c;
            const Half result = blended<Rounding::nearest>(loadHalf(destination, lanes),
                                                           loadHalf(row.source[plane] + c, lanes), alpha);
            _mm256_mask_storeu_epi8(destination, lanes, result);
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

template <int alphaByte>
void blendPackedRow(uint8_t* destination, const uint8_t* source, ptrdiff_t count) {
    const V mask = alphaMask<alphaByte>();
    ptrdiff_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const V s = load(source + 4 * i);
        if (_mm512_test_epi32_mask(s, mask) == 0) continue;
        const V d = load(destination + 4 * i);
        V result;
        if (_mm512_cmpneq_epi32_mask(_mm512_and_si512(s, mask), mask) == 0) {
            result = _mm512_ternarylogic_epi32(mask, d, s, 0xCA);  // mask ? d : s
        } else {
            result = blended<Rounding::nearest>(d, s, spreadAlpha<alphaByte>(s));
        }
        _mm512_storeu_si512(destination + 4 * i, result);
    }
    if (i < count) {
        const Mask lanes = firstLanes(4 * (count - i));
        const V s = load(source + 4 * i, lanes);
        const V d = load(destination + 4 * i, lanes);
        _mm512_mask_storeu_epi8(destination + 4 * i, lanes,
                                blended<Rounding::nearest>(d, s, spreadAlpha<alphaByte>(s)));
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

void composeRow(uint8_t* destination, const uint8_t* source, const uint8_t* pixels, ptrdiff_t count,
                int pixelsPerSample) {
    for (ptrdiff_t i = 0; i < count; i += 32) {
        const HalfMask lanes = firstHalfLanes(count - i);
        const uint8_t* from = pixels + 4 * i * pixelsPerSample;
        const __m128i first = loadAlphas(from, count - i, pixelsPerSample);
        const __m128i second = loadAlphas(from + 64 * pixelsPerSample, count - i - 16, pixelsPerSample);
        const Half alpha = _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
        if (_mm256_testz_si256(alpha, alpha) != 0) continue;
        const Half result =
            blended<Rounding::down>(loadHalf(destination + i, lanes), loadHalf(source + i, lanes), alpha);
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

bool supported() noexcept {
    return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
           __builtin_cpu_supports("avx512vl") != 0 && __builtin_cpu_supports("avx2") != 0;
}

bool vbmiSupported() noexcept {
    return supported() && __builtin_cpu_supports("avx512vbmi") != 0;
}

}  // namespace

const Variant avx512 = {
    "avx512",          supported,  blendRow, blendChromaRow, blendPackedRow<3>,
    blendPackedRow<0>, composeRow, keyRow,   mapRow,
};
const Variant avx512vbmi = {
    "avx512vbmi",      vbmiSupported, blendRow, blendChromaRow,      blendPackedRow<3>,
    blendPackedRow<0>, composeRow,    keyRow,   mapRowByPermutation,
};

}  // namespace kernels
}  // namespace kvffmpeg
