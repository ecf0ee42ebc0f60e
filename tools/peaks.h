#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvffmpeg::tool {

struct SampleRange {
    std::int16_t least = 0;
    std::int16_t greatest = 0;
};

/// The least and the greatest samples along a sound of any length, in 2 MiB at most: the longer it is, the
/// coarser, but never coarser than a quarter of a column of the widest picture.
class Peaks {
public:
    void add(const std::int16_t* samples, std::size_t count);

    std::uint64_t samples() const noexcept { return samples_; }
    /// Samples that have the least or the greatest value that there is.
    std::uint64_t clippedSamples() const noexcept { return clippedSamples_; }
    /// Of the whole sound.
    SampleRange range() const noexcept;
    /// Of one column of a picture, `column` < `columns`. Not without samples. Where there are more columns
    /// than samples, several show the same one.
    SampleRange rangeOf(int column, int columns) const noexcept;

private:
    void halve();

    std::vector<SampleRange> ranges_;  // of `samplesPerRange_` samples each; the last may have fewer
    std::uint64_t samplesPerRange_ = 1;
    std::uint64_t samples_ = 0;
    std::uint64_t clippedSamples_ = 0;
};

}  // namespace kvffmpeg::tool
