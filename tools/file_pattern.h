#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvffmpeg::tool {

/// Names of numbered files: text with one number in it, written as %d, %5d (padded with spaces) or %05d
/// (padded with zeros); %% is a percent sign.
class FilePattern {
public:
    /// @throws UsageError when there is not exactly one number, and for any other use of a percent sign.
    explicit FilePattern(const std::string& pattern);

    std::string name(std::uint64_t number) const;

private:
    std::string before_;
    std::string after_;
    std::size_t width_ = 0;
    char padding_ = ' ';
};

}  // namespace kvffmpeg::tool
