#include "mutators.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace kvffmpeg::mutation {
namespace {

constexpr std::size_t header = 1024;
constexpr std::size_t overwrittenHeader = 512;

std::size_t place(std::size_t size, Random& random) {
    return random.below(random.below(2) == 0 ? std::min(size, header) : size);
}

void flipBits(Bytes& bytes, Random& random) {
    std::set<std::size_t> bits;  // a bit that is flipped twice would be as it was
    const std::size_t count = std::min<std::size_t>(1 + random.below(16), bytes.size() * 8);
    while (bits.size() < count) bits.insert(place(bytes.size(), random) * 8 + random.below(8));
    for (const std::size_t bit : bits) bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
}

void addNoise(Bytes& bytes, Random& random) {
    std::set<std::size_t> places;
    const std::size_t count = 1 + random.below(std::max<std::size_t>(bytes.size() / 50, 1));
    for (std::size_t i = 0; i < count; ++i) places.insert(place(bytes.size(), random));
    for (const std::size_t at : places) bytes[at] ^= static_cast<std::uint8_t>(1 + random.below(255));
}

void overwriteHeader(Bytes& bytes, std::uint8_t value, Random& random) {
    const std::size_t end = std::min(bytes.size(), overwrittenHeader);
    const std::size_t first = random.below(end);
    const std::size_t length = 1 + random.below(std::min<std::size_t>(end - first, 64));
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(first), length, value);
}

void writeExtremes(Bytes& bytes, Random& random) {
    const std::size_t count = 1 + random.below(4);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t width = std::size_t{1} << random.below(4);
        const std::uint64_t largest = ~std::uint64_t{0} >> (64 - 8 * width);
        const std::uint64_t values[] = {0,           1,      largest / 2 - 1, largest / 2, largest / 2 + 1,
                                        largest - 1, largest};
        const std::uint64_t value = values[random.below(std::size(values))];
        const bool bigEndian = random.below(2) == 0;
        const std::size_t at = place(bytes.size(), random);
        for (std::size_t b = 0; b < width && at + b < bytes.size(); ++b) {
            bytes[at + b] = static_cast<std::uint8_t>(value >> (8 * (bigEndian ? width - 1 - b : b)));
        }
    }
}

void moveBlock(Bytes& bytes, Random& random) {
    if (bytes.size() < 2) return;
    // Rotating [first, last) so that `middle` comes first exchanges two neighbours, that is, moves a block.
    const std::size_t first = place(bytes.size() - 1, random);
    const std::size_t length = 2 + random.below(std::min<std::size_t>(bytes.size() - first - 1, 4096));
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(first);
    const auto middle = begin + static_cast<std::ptrdiff_t>(1 + random.below(length - 1));
    std::rotate(begin, middle, begin + static_cast<std::ptrdiff_t>(length));
}

}  // namespace

std::uint64_t Random::next() noexcept {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
}

const char* nameOf(Kind kind) noexcept {
    switch (kind) {
        case Kind::cut:
            return "cut";
        case Kind::bitFlips:
            return "bit flips";
        case Kind::byteNoise:
            return "byte noise";
        case Kind::headerZeros:
            return "header 00";
        case Kind::headerOnes:
            return "header FF";
        case Kind::extremes:
            return "extreme numbers";
        case Kind::blockMove:
            return "block move";
    }
    return "unknown";
}

Kind kindOf(std::uint32_t index) noexcept {
    return kinds[index % kinds.size()];
}

std::uint64_t seedOf(std::uint64_t seed, std::string_view fileName, std::uint32_t index) noexcept {
    Random random(seed);
    std::uint64_t mixed = random.next();
    for (const char c : fileName) mixed = Random(mixed ^ static_cast<unsigned char>(c)).next();
    return Random(mixed ^ index).next();
}

Bytes mutated(const Bytes& original, Kind kind, std::uint64_t seed) {
    Bytes bytes = original;
    if (bytes.empty()) return bytes;
    Random random(seed);
    switch (kind) {
        case Kind::cut:
            bytes.resize(place(bytes.size(), random));
            break;
        case Kind::bitFlips:
            flipBits(bytes, random);
            break;
        case Kind::byteNoise:
            addNoise(bytes, random);
            break;
        case Kind::headerZeros:
            overwriteHeader(bytes, 0x00, random);
            break;
        case Kind::headerOnes:
            overwriteHeader(bytes, 0xFF, random);
            break;
        case Kind::extremes:
            writeExtremes(bytes, random);
            break;
        case Kind::blockMove:
            moveBlock(bytes, random);
            break;
    }
    return bytes;
}

std::vector<std::size_t> cutLengths(std::size_t size, std::size_t count) {
    count = std::min(count, size);
    std::set<std::size_t> lengths;
    const std::size_t close = count / 2;
    for (std::size_t i = 0; i < close; ++i) {
        const double exponent = static_cast<double>(i) / static_cast<double>(close);
        lengths.insert(static_cast<std::size_t>(std::pow(static_cast<double>(size), exponent)) - 1);
    }
    const std::size_t even = count - close;
    for (std::size_t i = 0; i < even; ++i) lengths.insert((size - 1) * (i + 1) / even);
    // Near the beginning several of them fall on one length.
    for (std::size_t length = 0; lengths.size() < count; ++length) lengths.insert(length);
    return {lengths.begin(), lengths.end()};
}

}  // namespace kvffmpeg::mutation
