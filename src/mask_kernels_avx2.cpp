#include "mask_kernels_256.inc"

// Compiled for AVX2: nothing here but intrinsics and what has internal linkage, since an inline function of a
// header compiled here could be taken for the whole program.

namespace kvffmpeg::kernels {
namespace {

// There are masked loads and stores of words, but some CPUs take dozens of cycles for a store. Here parts of
// a vector are put together of two loads, at the part's beginning and end, which overlap.

// The first `count` bytes, fewer than 16.
Half loadPart(const uint8_t* from, ptrdiff_t count) {
    const auto loadWord = [](const uint8_t* bytes) {
        int word = 0;
        __builtin_memcpy(&word, bytes, 4);
        return _mm_cvtsi32_si128(word);
    };
    const auto loadTwoWords = [](const uint8_t* words) {
        return _mm_loadl_epi64(reinterpret_cast<const Half*>(words));
    };
    const auto movedDown = [](Half bytes, ptrdiff_t by) {
        return _mm_srl_epi64(bytes, _mm_cvtsi32_si128(static_cast<int>(8 * by)));
    };
    if (count >= 8) {
        return _mm_unpacklo_epi64(loadTwoWords(from), movedDown(loadTwoWords(from + count - 8), 16 - count));
    }
    if (count >= 4) {
        return _mm_unpacklo_epi32(loadWord(from), movedDown(loadWord(from + count - 4), 8 - count));
    }
    int word = from[0];
    if (count > 1) word |= from[1] << 8;
    if (count > 2) word |= from[2] << 16;
    return _mm_cvtsi32_si128(word);
}

// The first `count` bytes, fewer than 16.
void storePart(uint8_t* to, ptrdiff_t count, Half value) {
    if ((count & 8) != 0) {
        _mm_storel_epi64(reinterpret_cast<Half*>(to), value);
        value = _mm_unpackhi_epi64(value, value);
        to += 8;
    }
    if ((count & 4) != 0) {
        const int word = _mm_cvtsi128_si32(value);
        __builtin_memcpy(to, &word, 4);
        value = _mm_srli_epi64(value, 32);
        to += 4;
    }
    int rest = _mm_cvtsi128_si32(value);
    for (ptrdiff_t i = 0; i < (count & 3); ++i, rest >>= 8) to[i] = static_cast<uint8_t>(rest);
}

struct PartMemory {
    static V load(const uint8_t* from, ptrdiff_t count) {
        if (count >= 32) return _mm256_loadu_si256(reinterpret_cast<const V*>(from));
        if (count <= 16) return halves(loadHalf(from, count), _mm_setzero_si128());
        return halves(loadHalf(from, 16), loadHalf(from + 16, count - 16));
    }
    static void store(uint8_t* to, ptrdiff_t count, V value) {
        if (count >= 32) {
            _mm256_storeu_si256(reinterpret_cast<V*>(to), value);
        } else if (count >= 16) {
            _mm_storeu_si128(reinterpret_cast<Half*>(to), _mm256_castsi256_si128(value));
            storePart(to + 16, count - 16, _mm256_extracti128_si256(value, 1));
        } else {
            storePart(to, count, _mm256_castsi256_si128(value));
        }
    }
    static Half loadHalf(const uint8_t* from, ptrdiff_t count) {
        if (count >= 16) return _mm_loadu_si128(reinterpret_cast<const Half*>(from));
        return loadPart(from, count);
    }
    static void storeHalf(uint8_t* to, ptrdiff_t count, Half value) {
        if (count >= 16) {
            _mm_storeu_si128(reinterpret_cast<Half*>(to), value);
        } else {
            storePart(to, count, value);
        }
    }
    static Half loadEight(const uint8_t* from, ptrdiff_t count) {
        if (count >= 8) return _mm_loadl_epi64(reinterpret_cast<const Half*>(from));
        return loadPart(from, count);
    }
    static V loadPixels(const uint8_t* from, ptrdiff_t count) { return load(from, 4 * count); }
    static void storePixels(uint8_t* to, ptrdiff_t count, V value) { store(to, 4 * count, value); }
};

}  // namespace

const MaskKernels avx2Masks = {blendBytes<PartMemory>, blendPixels<PartMemory>, blendChroma<PartMemory>};

}  // namespace kvffmpeg::kernels
