#include "mask_kernels_256.inc"

// Compiled for AVX-512: nothing here but intrinsics and what has internal linkage, since an inline function
// of a header compiled here could be taken for the whole program.

namespace kvffmpeg::kernels {
namespace {

// The first `count` lanes. What is masked out of a load or store is not touched. Whole vectors go without a
// mask, which is faster.
__mmask32 firstLanes(ptrdiff_t count) {
    return count >= 32 ? ~__mmask32{0} : (__mmask32{1} << count) - 1;
}

struct MaskedMemory {
    static V load(const uint8_t* from, ptrdiff_t count) {
        if (count >= 32) return _mm256_loadu_si256(reinterpret_cast<const V*>(from));
        return _mm256_maskz_loadu_epi8(firstLanes(count), from);
    }
    static void store(uint8_t* to, ptrdiff_t count, V value) {
        if (count >= 32) {
            _mm256_storeu_si256(reinterpret_cast<V*>(to), value);
            return;
        }
        _mm256_mask_storeu_epi8(to, firstLanes(count), value);
    }
    static Half loadHalf(const uint8_t* from, ptrdiff_t count) {
        return _mm_maskz_loadu_epi8(static_cast<__mmask16>(firstLanes(count)), from);
    }
    static void storeHalf(uint8_t* to, ptrdiff_t count, Half value) {
        _mm_mask_storeu_epi8(to, static_cast<__mmask16>(firstLanes(count)), value);
    }
};

// Of pixels, masked stores of a few cost more than what AVX2 does instead.
void blendPixels(uint8_t* pixels, ptrdiff_t linesize, const uint8_t* values, unsigned usedBytes,
                 const Coverage& coverage) {
    avx2Masks.blendPixels(pixels, linesize, values, usedBytes, coverage);
}

}  // namespace

const MaskKernels avx512Masks = {blendBytes<MaskedMemory>, blendPixels, blendChroma<MaskedMemory>};

}  // namespace kvffmpeg::kernels
