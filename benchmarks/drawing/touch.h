#pragma once

#include <cstddef>
#include <cstdint>

namespace drawing {

// The limit of memory: bytes are loaded and stored as a kernel does it, in vectors of 32 bytes where the CPU
// has them, and nothing is done to them.

/// Reads `source`.
void touchRead(const std::uint8_t* source, std::size_t count);
/// Reads `source`; reads `destination` and writes it back.
void touchUpdate(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
/// Reads `source` and `alpha`; reads `destination` and writes it back.
void touchUpdate(std::uint8_t* destination, const std::uint8_t* source, const std::uint8_t* alpha,
                 std::size_t count);
/// Reads `count` bytes of `u` and `v` each, writes twice as many to `upper` and `lower` each.
void touchKey(std::uint8_t* upper, std::uint8_t* lower, const std::uint8_t* u, const std::uint8_t* v,
              std::size_t count);

}  // namespace drawing
