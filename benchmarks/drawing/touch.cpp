#include "touch.h"

// Plain loops, which the compiler turns into vectors. From the L3 cache on, wider ones are no faster.
#define KVFFMPEG_WIDEST_VECTORS __attribute__((target_clones("default", "avx2")))

namespace drawing {
namespace {

// The compiler must believe that the value can be another: so it keeps the loads and stores.
volatile std::uint8_t zero = 0;

using Vector __attribute__((vector_size(32), aligned(1), may_alias)) = std::uint8_t;

}  // namespace

KVFFMPEG_WIDEST_VECTORS
void touchRead(const std::uint8_t* source, std::size_t count) {
    Vector first = {};
    Vector second = {};  // one alone would wait for its own last step
    for (; count >= 2 * sizeof(Vector); count -= 2 * sizeof(Vector), source += 2 * sizeof(Vector)) {
        const auto* vectors = static_cast<const Vector*>(static_cast<const void*>(source));
        first |= vectors[0];
        second |= vectors[1];
    }
    std::uint8_t rest = 0;
    for (std::size_t i = 0; i < count; ++i) rest |= source[i];
    first |= second;
    asm volatile("" : : "m"(first), "r"(rest));  // somebody might want to see them
}

KVFFMPEG_WIDEST_VECTORS
void touchUpdate(std::uint8_t* __restrict destination, const std::uint8_t* __restrict source,
                 std::size_t count) {
    const std::uint8_t mask = zero;
    for (std::size_t i = 0; i < count; ++i) {
        destination[i] = static_cast<std::uint8_t>(destination[i] ^ (source[i] & mask));
    }
}

KVFFMPEG_WIDEST_VECTORS
void touchUpdate(std::uint8_t* __restrict destination, const std::uint8_t* __restrict source,
                 const std::uint8_t* __restrict alpha, std::size_t count) {
    const std::uint8_t mask = zero;
    for (std::size_t i = 0; i < count; ++i) {
        destination[i] = static_cast<std::uint8_t>(destination[i] ^ ((source[i] ^ alpha[i]) & mask));
    }
}

KVFFMPEG_WIDEST_VECTORS
void touchKey(std::uint8_t* __restrict upper, std::uint8_t* __restrict lower,
              const std::uint8_t* __restrict u, const std::uint8_t* __restrict v, std::size_t count) {
    const std::uint8_t mask = zero;
    for (std::size_t i = 0; i < count; ++i) {
        const auto first = static_cast<std::uint8_t>(u[i] ^ mask);
        const auto second = static_cast<std::uint8_t>(v[i] ^ mask);
        upper[i] = first;
        upper[count + i] = second;
        lower[i] = first;
        lower[count + i] = second;
    }
}

}  // namespace drawing
