#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kvffmpeg::mutation {

using Bytes = std::vector<std::uint8_t>;

/// A small generator (splitmix64) that gives the same numbers everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() noexcept;
    /// Below `end`, which is not 0.
    std::size_t below(std::size_t end) noexcept { return static_cast<std::size_t>(next() % end); }

private:
    std::uint64_t state_;
};

/// What a mutation does to a file. Places are half of the time in the first KiB, where headers are.
enum class Kind {
    cut,          ///< The end is missing.
    bitFlips,     ///< 1 to 16 bits are the other way round.
    byteNoise,    ///< Up to one in fifty bytes, at least one, has another value.
    headerZeros,  ///< A run in the first 512 bytes is 00.
    headerOnes,   ///< A run in the first 512 bytes is FF.
    extremes,   ///< 1 to 4 numbers of 1, 2, 4 or 8 bytes are the least or largest of their kind, or near it.
    blockMove,  ///< A block is at another place.
};

constexpr std::array<Kind, 7> kinds{Kind::cut,        Kind::bitFlips, Kind::byteNoise, Kind::headerZeros,
                                    Kind::headerOnes, Kind::extremes, Kind::blockMove};

const char* nameOf(Kind kind) noexcept;
/// The kinds take turns.
Kind kindOf(std::uint32_t index) noexcept;
/// One number of the three that say which mutation is meant.
std::uint64_t seedOf(std::uint64_t seed, std::string_view fileName, std::uint32_t index) noexcept;

/// The same bytes for the same arguments. An empty original stays empty.
Bytes mutated(const Bytes& original, Kind kind, std::uint64_t seed);

/// `count` different lengths below `size`, or all of them when there are fewer; ascending. Half of them lie
/// closer together the nearer they are to the beginning, the others evenly.
std::vector<std::size_t> cutLengths(std::size_t size, std::size_t count);

}  // namespace kvffmpeg::mutation
