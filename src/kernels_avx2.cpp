#include <immintrin.h>

#include "kernels.h"

// Compiled for AVX2: nothing here but intrinsics and what has internal linkage, since an inline function of a
// header compiled here could be taken for the whole program.

namespace kvffmpeg::kernels {
namespace {

using std::ptrdiff_t;
using std::uint8_t;
using V = __m256i;
using Half = __m128i;

V load(const uint8_t* from) {
    return _mm256_loadu_si256(reinterpret_cast<const V*>(from));
}
void store(uint8_t* to, V value) {
    _mm256_storeu_si256(reinterpret_cast<V*>(to), value);
}
Half loadHalf(const uint8_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const Half*>(from));
}
void storeHalf(uint8_t* to, Half value) {
    _mm_storeu_si128(reinterpret_cast<Half*>(to), value);
}
V ones() {
    return _mm256_set1_epi8(-1);
}
bool isZero(V value) {
    return _mm256_testz_si256(value, value) != 0;
}
bool isOnes(V value) {
    return _mm256_testc_si256(value, ones()) != 0;
}

enum class Rounding { nearest, down };

// (D * (255 - a) + S * a) / 255. The samples are taken as signed, less 128, so that one multiplication of
// bytes with addition of neighbours gives the sum less 128 * 255, which fits in 16 bits. (t * 257) >> 16 is
// t / 255 rounded down after 1 was added, or to nearest after 128.
// What a run of alphas multiplies the samples with, for U and V alike.
struct Weights {
    explicit Weights(V alpha) {
        const V rest = _mm256_xor_si256(alpha, ones());
        low = _mm256_unpacklo_epi8(rest, alpha);
        high = _mm256_unpackhi_epi8(rest, alpha);
    }
    V low;
    V high;
};

template <Rounding rounding>
V blended(V destination, V source, const Weights& weights) {
    const V bit7 = _mm256_set1_epi8(-128);
    const V scale = _mm256_set1_epi16(257);
    const V d = _mm256_xor_si256(destination, bit7);
    const V s = _mm256_xor_si256(source, bit7);
    V low = _mm256_maddubs_epi16(weights.low, _mm256_unpacklo_epi8(d, s));
    V high = _mm256_maddubs_epi16(weights.high, _mm256_unpackhi_epi8(d, s));
    const V bias = _mm256_set1_epi16(rounding == Rounding::nearest ? -32768 : 32641);
    low = _mm256_mulhi_epu16(_mm256_add_epi16(low, bias), scale);
    high = _mm256_mulhi_epu16(_mm256_add_epi16(high, bias), scale);
    return _mm256_packus_epi16(low, high);
}
template <Rounding rounding>
V blended(V destination, V source, V alpha) {
    return blended<rounding>(destination, source, Weights(alpha));
}
template <Rounding rounding>
Half blended(Half destination, Half source, Half alpha) {
    const Half bit7 = _mm_set1_epi8(-128);
    const Half scale = _mm_set1_epi16(257);
    const Half d = _mm_xor_si128(destination, bit7);
    const Half s = _mm_xor_si128(source, bit7);
    const Half rest = _mm_xor_si128(alpha, _mm_set1_epi8(-1));
    Half low = _mm_maddubs_epi16(_mm_unpacklo_epi8(rest, alpha), _mm_unpacklo_epi8(d, s));
    Half high = _mm_maddubs_epi16(_mm_unpackhi_epi8(rest, alpha), _mm_unpackhi_epi8(d, s));
    const Half bias = _mm_set1_epi16(rounding == Rounding::nearest ? -32768 : 32641);
    low = _mm_mulhi_epu16(_mm_add_epi16(low, bias), scale);
    high = _mm_mulhi_epu16(_mm_add_epi16(high, bias), scale);
    return _mm_packus_epi16(low, high);
}

// Whether a run that begins with this alpha can be all clear or all opaque. Asked first, because it costs
// less than to look at all.
bool mayBeUniform(uint8_t alpha) {
    return static_cast<uint8_t>(alpha + 1) <= 1;
}

// For how many blocks after the last that was not clear the memory of clear ones is asked for all the same:
// the CPU loses track of what is skipped, and has to wait for memory where the next ones begin.
constexpr int follow = 32;

void askFor(const uint8_t* bytes) {
    _mm_prefetch(reinterpret_cast<const char*>(bytes), _MM_HINT_T0);
}

unsigned blendRow(uint8_t* destination, const uint8_t* source, const uint8_t* alpha, ptrdiff_t count) {
    unsigned seen = 0;
    int asked = follow;
    ptrdiff_t i = 0;
    // Two vectors at a time: to look at the alphas of one takes as long.
    for (; i + 64 <= count; i += 64) {
        const V alpha0 = load(alpha + i);
        const V alpha1 = load(alpha + i + 32);
        if (mayBeUniform(alpha[i])) {
            if (isZero(_mm256_or_si256(alpha0, alpha1))) {
                seen |= someNotOpaque;
                if (asked < follow) {
                    ++asked;
                    askFor(destination + i);
                    askFor(source + i);
                }
                continue;
            }
            asked = 0;
            if (isOnes(_mm256_and_si256(alpha0, alpha1))) {
                seen |= someNotClear;
                store(destination + i, load(source + i));
                store(destination + i + 32, load(source + i + 32));
                continue;
            }
        }
        asked = 0;
        seen |= someNotClear | someNotOpaque;
        const V result0 = blended<Rounding::nearest>(load(destination + i), load(source + i), alpha0);
        const V result1 =
            blended<Rounding::nearest>(load(destination + i + 32), load(source + i + 32), alpha1);
        store(destination + i, result0);
        store(destination + i + 32, result1);
    }
    if (i == count) return seen;
    if (i + 32 <= count) {
        store(destination + i,
              blended<Rounding::nearest>(load(destination + i), load(source + i), load(alpha + i)));
        i += 32;
    }
    if (i + 16 <= count) {
        storeHalf(destination + i, blended<Rounding::nearest>(loadHalf(destination + i), loadHalf(source + i),
                                                              loadHalf(alpha + i)));
        i += 16;
    }
    if (i + 8 <= count) {
        const auto load8 = [](const uint8_t* from) {
            return _mm_loadl_epi64(reinterpret_cast<const Half*>(from));
        };
        _mm_storel_epi64(
            reinterpret_cast<Half*>(destination + i),
            blended<Rounding::nearest>(load8(destination + i), load8(source + i), load8(alpha + i)));
        i += 8;
    }
    scalar.blendRow(destination + i, source + i, alpha + i, count - i);
    return someNotClear | someNotOpaque;
}

// The alphas of 16 chroma samples as 16-bit numbers, from 32 bytes of each row of alpha.
V averages(V upper, V lower) {
    const V one = _mm256_set1_epi8(1);
    const V sum = _mm256_add_epi16(_mm256_maddubs_epi16(upper, one), _mm256_maddubs_epi16(lower, one));
    return _mm256_srli_epi16(sum, 2);
}
// The same in the last row, where the left of the two counts three times.
V averages(V upper) {
    const V first = _mm256_and_si256(upper, _mm256_set1_epi16(255));
    const V sum = _mm256_maddubs_epi16(upper, _mm256_set1_epi8(1));
    return _mm256_srli_epi16(_mm256_add_epi16(first, _mm256_srli_epi16(sum, 1)), 1);
}

// 32 bytes; if they end a row, then without the last one, which need not exist.
V loadAlpha(const uint8_t* from, bool endsRow) {
    if (!endsRow) return load(from);
    const Half second = _mm_srli_si128(loadHalf(from + 15), 1);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(loadHalf(from)), second, 1);
}

// A row of chroma as the vectors take it.
struct ChromaRow {
    uint8_t* destination[2];
    const uint8_t* source[2];
    const uint8_t* upper;
    const uint8_t* lower;  // null in the overlay's last row
    ptrdiff_t count;
    ptrdiff_t left;
};

int lastColumnAlpha(ChromaRow row) {
    const uint8_t* upper = row.upper + 2 * (row.left - 1);
    if (!row.lower) return upper[0];
    const uint8_t* lower = row.lower + 2 * (row.left - 1);
    return (upper[0] + ((lower[0] + upper[0]) >> 1)) >> 1;
}

// Takes the row by value: what is reached through a reference, a store of bytes might have changed.
void blendChromaRow(const ChromaRow row) {
    ptrdiff_t c = 0;
    for (; c + 32 <= row.count; c += 32) {
        const bool endsRow = c + 32 == row.left;
        const V upper0 = load(row.upper + 2 * c);
        const V upper1 = loadAlpha(row.upper + 2 * c + 32, endsRow);
        if (mayBeUniform(row.upper[2 * c]) && c + 33 < row.left) {
            if (isZero(_mm256_or_si256(upper0, upper1))) continue;
            if (isOnes(_mm256_and_si256(upper0, upper1))) {
                for (int plane = 0; plane < 2; ++plane) {
                    store(row.destination[plane] + c, load(row.source[plane] + c));
                }
                continue;
            }
        }
        V alpha0;
        V alpha1;
        if (row.lower) {
            alpha0 = averages(upper0, load(row.lower + 2 * c));
            alpha1 = averages(upper1, loadAlpha(row.lower + 2 * c + 32, endsRow));
        } else {
            alpha0 = averages(upper0);
            alpha1 = averages(upper1);
        }
        V alpha = _mm256_permute4x64_epi64(_mm256_packus_epi16(alpha0, alpha1), 0xD8);
        if (endsRow) alpha = _mm256_insert_epi8(alpha, static_cast<char>(lastColumnAlpha(row)), 31);
        if (isZero(alpha)) continue;
        const Weights weights(alpha);
        for (int plane = 0; plane < 2; ++plane) {
            uint8_t* destination = row.destination[plane] + c;
            store(destination,
                  blended<Rounding::nearest>(load(destination), load(row.source[plane] + c), weights));
        }
    }
    if (c + 16 <= row.count) {
        const bool endsRow = c + 16 == row.left;
        const V upper = loadAlpha(row.upper + 2 * c, endsRow);
        const V wide = row.lower ? averages(upper, loadAlpha(row.lower + 2 * c, endsRow)) : averages(upper);
        Half alpha = _mm_packus_epi16(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
        if (endsRow) alpha = _mm_insert_epi8(alpha, static_cast<char>(lastColumnAlpha(row)), 15);
        for (int plane = 0; plane < 2; ++plane) {
            uint8_t* destination = row.destination[plane] + c;
            storeHalf(destination, blended<Rounding::nearest>(loadHalf(destination),
                                                              loadHalf(row.source[plane] + c), alpha));
        }
        c += 16;
    }
    if (c == row.count) return;
    // Fewer than 16, so that no run is left.
    const ChromaRows rest = {{row.destination[0] + c, row.destination[1] + c},
                             {row.source[0] + c, row.source[1] + c},
                             {},
                             {},
                             row.upper + 2 * c,
                             row.lower ? row.lower - row.upper : 0,
                             1,
                             row.lower == nullptr,
                             row.count - c,
                             row.left - c};
    scalar.blendChromaRows(rest);
}

void blendChromaRows(const ChromaRows& area) {
    for (ptrdiff_t r = 0; r < area.rows; ++r) {
        ChromaRow row = {};
        for (int plane = 0; plane < 2; ++plane) {
            row.destination[plane] = area.destination[plane] + r * area.destinationLinesize[plane];
            row.source[plane] = area.source[plane] + r * area.sourceLinesize[plane];
        }
        row.upper = area.alpha + 2 * r * area.alphaLinesize;
        if (!area.endsOverlay || r + 1 < area.rows) row.lower = row.upper + area.alphaLinesize;
        row.count = area.count;
        row.left = area.left;
        blendChromaRow(row);
    }
}

// With an alpha of 0 for the alpha byte itself, the blend keeps the destination's.
template <int alphaByte>
Half alphaSpread() {
    const auto index = [](int pixel, int byte) {
        return static_cast<char>(byte == alphaByte ? -128 : 4 * pixel + alphaByte);
    };
    return _mm_setr_epi8(index(0, 0), index(0, 1), index(0, 2), index(0, 3), index(1, 0), index(1, 1),
                         index(1, 2), index(1, 3), index(2, 0), index(2, 1), index(2, 2), index(2, 3),
                         index(3, 0), index(3, 1), index(3, 2), index(3, 3));
}

template <int alphaByte>
void blendPackedRow(uint8_t* destination, const uint8_t* source, ptrdiff_t count) {
    const V spread = _mm256_broadcastsi128_si256(alphaSpread<alphaByte>());
    const V mask = _mm256_set1_epi32(alphaByte == 0 ? 255 : static_cast<int>(0xFF000000U));
    int asked = follow;
    ptrdiff_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const V source0 = load(source + 4 * i);
        const V source1 = load(source + 4 * i + 32);
        if (mayBeUniform(source[4 * i + alphaByte])) {
            if (_mm256_testz_si256(_mm256_or_si256(source0, source1), mask) != 0) {
                if (asked < follow) {
                    ++asked;
                    askFor(destination + 4 * i);
                }
                continue;
            }
            if (_mm256_testc_si256(_mm256_and_si256(source0, source1), mask) != 0) {
                asked = 0;
                store(destination + 4 * i, _mm256_blendv_epi8(source0, load(destination + 4 * i), mask));
                store(destination + 4 * i + 32,
                      _mm256_blendv_epi8(source1, load(destination + 4 * i + 32), mask));
                continue;
            }
        }
        asked = 0;
        const V result0 = blended<Rounding::nearest>(load(destination + 4 * i), source0,
                                                     _mm256_shuffle_epi8(source0, spread));
        const V result1 = blended<Rounding::nearest>(load(destination + 4 * i + 32), source1,
                                                     _mm256_shuffle_epi8(source1, spread));
        store(destination + 4 * i, result0);
        store(destination + 4 * i + 32, result1);
    }
    if (i + 8 <= count) {
        const V s = load(source + 4 * i);
        store(destination + 4 * i,
              blended<Rounding::nearest>(load(destination + 4 * i), s, _mm256_shuffle_epi8(s, spread)));
        i += 8;
    }
    if (i + 4 <= count) {
        const Half s = loadHalf(source + 4 * i);
        const Half alpha = _mm_shuffle_epi8(s, alphaSpread<alphaByte>());
        storeHalf(destination + 4 * i, blended<Rounding::nearest>(loadHalf(destination + 4 * i), s, alpha));
        i += 4;
    }
    const auto rest = alphaByte == 0 ? scalar.blendArgbRow : scalar.blendRgbaRow;
    rest(destination + 4 * i, source + 4 * i, count - i);
}

// The alpha bytes of 32 samples, whose pixels are given in order, four bytes each.
V packAlphas(V pixels0, V pixels1, V pixels2, V pixels3) {
    const V words0 = _mm256_packus_epi32(_mm256_srli_epi32(pixels0, 24), _mm256_srli_epi32(pixels1, 24));
    const V words1 = _mm256_packus_epi32(_mm256_srli_epi32(pixels2, 24), _mm256_srli_epi32(pixels3, 24));
    return _mm256_permutevar8x32_epi32(_mm256_packus_epi16(words0, words1),
                                       _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// The even ones of 16 pixels.
V loadEvenPixels(const uint8_t* pixels) {
    const __m256 both =
        _mm256_shuffle_ps(_mm256_castsi256_ps(load(pixels)), _mm256_castsi256_ps(load(pixels + 32)), 0x88);
    return _mm256_permute4x64_epi64(_mm256_castps_si256(both), 0xD8);
}

void composeRow(uint8_t* destination, const uint8_t* source, const uint8_t* pixels, ptrdiff_t count,
                int pixelsPerSample) {
    ptrdiff_t i = 0;
    for (; i + 32 <= count; i += 32) {
        const uint8_t* from = pixels + 4 * i * ptrdiff_t{pixelsPerSample};
        const V alpha = pixelsPerSample == 1
                            ? packAlphas(load(from), load(from + 32), load(from + 64), load(from + 96))
                            : packAlphas(loadEvenPixels(from), loadEvenPixels(from + 64),
                                         loadEvenPixels(from + 128), loadEvenPixels(from + 192));
        if (isZero(alpha)) continue;
        V result = load(source + i);
        if (!isOnes(alpha)) result = blended<Rounding::down>(load(destination + i), result, alpha);
        store(destination + i, result);
    }
    scalar.composeRow(destination + i, source + i, pixels + 4 * i * ptrdiff_t{pixelsPerSample}, count - i,
                      pixelsPerSample);
}

// 16 squared distances, at most 65535.
V squaredDistances(const uint8_t* u, const uint8_t* v, V keyU, V keyV) {
    const V du = _mm256_sub_epi16(_mm256_cvtepu8_epi16(loadHalf(u)), keyU);
    const V dv = _mm256_sub_epi16(_mm256_cvtepu8_epi16(loadHalf(v)), keyV);
    return _mm256_adds_epu16(_mm256_mullo_epi16(du, du), _mm256_mullo_epi16(dv, dv));
}

V greater(V distances, V limit) {
    const V beyond = _mm256_subs_epu16(distances, limit);
    return _mm256_xor_si256(_mm256_cmpeq_epi16(beyond, _mm256_setzero_si256()), ones());
}

// Eight alphas as 32-bit numbers, 0 ... 255, from distances of 32 bits.
V wideAlphas(const uint8_t* u, const uint8_t* v, const KeyRule& rule) {
    const auto load8 = [](const uint8_t* from) {
        return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const Half*>(from)));
    };
    const V both = _mm256_or_si256(load8(u), _mm256_slli_epi32(load8(v), 16));
    const V difference = _mm256_sub_epi16(both, _mm256_set1_epi32(rule.u | rule.v << 16));
    const V distances = _mm256_madd_epi16(difference, difference);
    const V threshold = _mm256_set1_epi32(rule.threshold);
    if (!rule.soft) return _mm256_srli_epi32(_mm256_cmpgt_epi32(distances, threshold), 24);
    const __m256 beyond = _mm256_cvtepi32_ps(_mm256_sub_epi32(distances, threshold));
    const __m256 quotient = _mm256_div_ps(beyond, _mm256_set1_ps(rule.divisor));
    const V alphas = _mm256_cvttps_epi32(_mm256_min_ps(quotient, _mm256_set1_ps(255.0F)));
    return _mm256_max_epi32(alphas, _mm256_setzero_si256());
}

// 16 alphas, each twice.
V wideAlphaPairs(const uint8_t* u, const uint8_t* v, const KeyRule& rule) {
    const V words = _mm256_permute4x64_epi64(
        _mm256_packus_epi32(wideAlphas(u, v, rule), wideAlphas(u + 8, v + 8, rule)), 0xD8);
    return _mm256_or_si256(words, _mm256_slli_epi16(words, 8));
}

template <typename Alphas>
ptrdiff_t keyBlocks(uint8_t* upper, uint8_t* lower, ptrdiff_t count, const Alphas& alphas) {
    ptrdiff_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const V alpha = alphas(i);
        store(upper + 2 * i, alpha);
        store(lower + 2 * i, alpha);
    }
    return i;
}

void keyRow(uint8_t* upper, uint8_t* lower, const uint8_t* u, const uint8_t* v, ptrdiff_t count,
            const KeyRule& rule) {
    const V keyU = _mm256_set1_epi16(rule.u);
    const V keyV = _mm256_set1_epi16(rule.v);
    const V clear = _mm256_set1_epi16(static_cast<short>(rule.clearUpTo));
    const V belowOpaque = _mm256_set1_epi16(static_cast<short>(rule.opaqueFrom - 1));
    ptrdiff_t i = 0;
    if (rule.opaqueFrom > 65535) {  // only keys that cover most of all colours
        i = keyBlocks(upper, lower, count,
                      [&](ptrdiff_t at) { return wideAlphaPairs(u + at, v + at, rule); });
    } else if (rule.opaqueFrom - rule.clearUpTo == 1) {
        i = keyBlocks(upper, lower, count, [&](ptrdiff_t at) {
            return greater(squaredDistances(u + at, v + at, keyU, keyV), clear);
        });
    } else {
        i = keyBlocks(upper, lower, count, [&](ptrdiff_t at) {
            const V distances = squaredDistances(u + at, v + at, keyU, keyV);
            const V beyond = greater(distances, clear);
            if (isZero(_mm256_xor_si256(beyond, greater(distances, belowOpaque)))) return beyond;
            return wideAlphaPairs(u + at, v + at, rule);
        });
    }
    scalar.keyRow(upper + 2 * i, lower + 2 * i, u + i, v + i, count - i, rule);
}

// A shuffle looks up 16 entries by the low half of a byte and gives 0 where bit 7 is set. Taking 16 off
// between the sixteenths of the table, with saturation, a byte below 128 meets every sixteenth up to its own;
// as each but the first holds its difference to the one before, they add up to the entry.
constexpr int sixteenths = 8;

void buildTables(V (&tables)[sixteenths], const uint8_t* table) {
    V previous = _mm256_setzero_si256();
    for (V& differences : tables) {
        const V entries = _mm256_broadcastsi128_si256(loadHalf(table));
        differences = _mm256_xor_si256(entries, previous);
        previous = entries;
        table += 16;
    }
}

constexpr ptrdiff_t mapped = 4;  // vectors at a time

void addEntries(V (&sums)[mapped], const V (&bytes)[mapped], const V (&tables)[sixteenths]) {
    const V sixteen = _mm256_set1_epi8(16);
    V indices[mapped] = {bytes[0], bytes[1], bytes[2], bytes[3]};
    for (const V& table : tables) {
        for (ptrdiff_t i = 0; i < mapped; ++i) {
            sums[i] = _mm256_xor_si256(sums[i], _mm256_shuffle_epi8(table, indices[i]));
            indices[i] = _mm256_subs_epi8(indices[i], sixteen);
        }
    }
}

void mapRow(uint8_t* row, ptrdiff_t count, const uint8_t* table) {
    ptrdiff_t i = 0;
    if (count >= mapped * 32) {
        V lowTables[sixteenths];
        V highTables[sixteenths];
        buildTables(lowTables, table);
        buildTables(highTables, table + 128);
        const V bit7 = _mm256_set1_epi8(-128);
        for (; i + mapped * 32 <= count; i += mapped * 32) {
            V bytes[mapped];
            V sums[mapped];
            for (ptrdiff_t k = 0; k < mapped; ++k) {
                bytes[k] = load(row + i + 32 * k);
                sums[k] = _mm256_setzero_si256();
            }
            addEntries(sums, bytes, lowTables);
            for (V& byte : bytes) byte = _mm256_xor_si256(byte, bit7);
            addEntries(sums, bytes, highTables);
            for (ptrdiff_t k = 0; k < mapped; ++k) store(row + i + 32 * k, sums[k]);
        }
    }
    scalar.mapRow(row + i, count - i, table);
}

void repeatRow(uint8_t* row, ptrdiff_t count, const uint8_t* pattern) {
    V parts[6];
    for (V& part : parts) {
        part = load(pattern);
        pattern += 32;
    }
    static_assert(sizeof(parts) == patternBytes, "the parts are the pattern");
    ptrdiff_t i = 0;
    for (; i + patternBytes <= count; i += patternBytes) {
        uint8_t* to = row + i;
        for (const V& part : parts) {
            store(to, part);
            to += 32;
        }
    }
    scalar.repeatRow(row + i, count - i, pattern - patternBytes);
}

bool supported() noexcept {
    return __builtin_cpu_supports("avx2") != 0;
}

}  // namespace

const Variant avx2 = {
    "avx2",     supported, blendRow, blendChromaRows, blendPackedRow<3>, blendPackedRow<0>,
    composeRow, keyRow,    mapRow,   repeatRow,       &avx2Masks,
};

}  // namespace kvffmpeg::kernels
