#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "point.h"

namespace kvffmpeg::faults {

/// What came of the points of one operation.
struct Row {
    std::string operation;
    std::uint64_t possible = 0;  ///< Points that there are.
    std::uint64_t points = 0;    ///< That were run.
    std::uint64_t same = 0;      ///< The right result in spite of the fault.
    std::uint64_t other = 0;     ///< Another result, without an exception.
    std::uint64_t badAlloc = 0;
    std::uint64_t runtimeError = 0;
    std::uint64_t otherExceptions = 0;  ///< Documented ones of other types.
    std::uint64_t crashesTheirs = 0;
    std::uint64_t hangsTheirs = 0;
    std::uint64_t leaksTheirs = 0;
    // All that follow count against us.
    std::uint64_t swallowed = 0;     ///< Another result, without an exception, where one is promised.
    std::uint64_t undocumented = 0;  ///< Exceptions.
    std::uint64_t crashesOurs = 0;
    std::uint64_t hangsOurs = 0;
    std::uint64_t leaksOurs = 0;
    std::uint64_t descriptors = 0;  ///< Left open.
    std::uint64_t notAgain = 0;     ///< A new object did not give the right result.

    std::uint64_t againstUs() const {
        return swallowed + undocumented + crashesOurs + hangsOurs + leaksOurs + descriptors + notAgain;
    }
    void add(const Row& row);
};

/// What was found and where, with how often and the first point that shows it.
class Findings {
public:
    void add(const std::string& what, const std::string& point);
    void print(std::ostream& out) const;

private:
    struct Entry {
        std::uint64_t count = 0;
        std::string firstPoint;
    };
    std::map<std::string, Entry> entries_;
};

/// As Markdown.
void printHeader(std::ostream& out, const std::string& title);
void printRow(std::ostream& out, const Row& row);

}  // namespace kvffmpeg::faults
