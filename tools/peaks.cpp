#include "peaks.h"

#include <algorithm>
#include <limits>

#include "arguments.h"

namespace kvffmpeg::tool {
namespace {

constexpr std::size_t mostRanges = std::size_t{1} << 19;
// After halving there are still enough for every column.
static_assert(mostRanges / 2 / 4 >= longestSide);

constexpr std::int16_t lowest = std::numeric_limits<std::int16_t>::min();
constexpr std::int16_t highest = std::numeric_limits<std::int16_t>::max();

SampleRange joined(SampleRange a, SampleRange b) {
    return {std::min(a.least, b.least), std::max(a.greatest, b.greatest)};
}

template <typename Iterator>
SampleRange joined(Iterator first, Iterator last) {
    SampleRange result = *first;
    while (++first != last) result = joined(result, *first);
    return result;
}

}  // namespace

void Peaks::add(const std::int16_t* samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::int16_t sample = samples[i];
        if (sample == lowest || sample == highest) ++clippedSamples_;
        if (samples_ % samplesPerRange_ == 0) {
            if (ranges_.size() == mostRanges) halve();
            ranges_.push_back({sample, sample});
        } else {
            ranges_.back() = joined(ranges_.back(), {sample, sample});
        }
        ++samples_;
    }
}

/// Only when all ranges are full and even in number.
void Peaks::halve() {
    for (std::size_t i = 0; i < ranges_.size() / 2; ++i) {
        ranges_[i] = joined(ranges_[2 * i], ranges_[2 * i + 1]);
    }
    ranges_.resize(ranges_.size() / 2);
    samplesPerRange_ *= 2;
}

SampleRange Peaks::range() const noexcept {
    return ranges_.empty() ? SampleRange() : joined(ranges_.begin(), ranges_.end());
}

SampleRange Peaks::rangeOf(int column, int columns) const noexcept {
    const auto x = static_cast<std::uint64_t>(column);
    const auto width = static_cast<std::uint64_t>(columns);
    const std::uint64_t first = x * samples_ / width;
    const std::uint64_t last = std::max((x + 1) * samples_ / width, first + 1) - 1;
    const auto begin = ranges_.begin();
    return joined(begin + static_cast<std::ptrdiff_t>(first / samplesPerRange_),
                  begin + static_cast<std::ptrdiff_t>(last / samplesPerRange_ + 1));
}

}  // namespace kvffmpeg::tool
