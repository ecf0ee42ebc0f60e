#pragma once

#include <string>
#include <vector>

#include "contest.h"

namespace drawing {

/// What came out for one row.
struct Outcome {
    Case row;
    std::vector<std::string> names;  ///< The library first.
    std::vector<Goal> goals;
    std::vector<std::vector<double>> runs;  ///< The times of each run, in the order of `names`.
};

/// Prints to the standard output, a row at a time, one line for each rival.
class Table {
public:
    explicit Table(bool isMarkdown) : isMarkdown_(isMarkdown) {}

    void printHead() const;
    void print(const Outcome& outcome);
    /// How many goals there were, and how many were met.
    void printSummary() const;

private:
    void printCells(const std::vector<std::string>& cells) const;

    bool isMarkdown_;
    int goals_ = 0;
    int met_ = 0;
};

}  // namespace drawing
