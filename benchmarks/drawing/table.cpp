#include "table.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace drawing {
namespace {

constexpr double noise = 0.05;
constexpr std::size_t widths[] = {24, 17, 9, 9, 11, 9, 6, 5, 12};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string number(double value, const char* format) {
    char text[32];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

std::string microseconds(double value) {
    return number(value, value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f");
}

/// Medians over the runs of one rival.
struct Figures {
    bool isBuilt;
    double time;
    double ratio;
};

std::vector<Figures> figuresOf(const Outcome& outcome) {
    std::vector<Figures> result;
    for (std::size_t i = 0; i < outcome.names.size(); ++i) {
        std::vector<double> times;
        std::vector<double> ratios;
        for (const std::vector<double>& run : outcome.runs) {
            times.push_back(run[i]);
            ratios.push_back(run[0] / run[i]);
        }
        result.push_back({times[0] >= 0, median(times), median(ratios)});
    }
    return result;
}

/// The index of the fastest rival that a goal is set against; 0 if none is built.
std::size_t fastest(const Goal& goal, const Outcome& outcome, const std::vector<Figures>& figures) {
    std::size_t result = 0;
    for (std::size_t i = 1; i < figures.size(); ++i) {
        const bool counts =
            std::find(goal.against.begin(), goal.against.end(), outcome.names[i]) != goal.against.end();
        if (!counts || !figures[i].isBuilt) continue;
        if (result == 0 || figures[i].time < figures[result].time) result = i;
    }
    return result;
}

}  // namespace

void Table::printCells(const std::vector<std::string>& cells) const {
    if (isMarkdown_) std::cout << '|';
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (isMarkdown_) {
            std::cout << ' ' << cells[i] << (cells[i].empty() ? "|" : " |");
        } else {
            const std::size_t padding = widths[i] > cells[i].size() ? widths[i] - cells[i].size() : 0;
            std::cout << cells[i] << std::string(padding + 1, ' ');
        }
    }
    std::cout << std::endl;
}

void Table::printHead() const {
    const std::vector<std::string> head = {"kernel", "content", "size", "ours, µs", "rival",
                                           "its µs", "ratio",   "goal", "met"};
    printCells(head);
    if (isMarkdown_) std::cout << "|---|---|---|---|---|---|---|---|---|\n";
}

void Table::print(const Outcome& outcome) {
    const std::vector<Figures> figures = figuresOf(outcome);
    const Case& row = outcome.row;
    std::vector<std::string> cells = {isMarkdown_ ? "`" + row.kernel + "`" : row.kernel, row.content,
                                      std::to_string(row.size.w) + "x" + std::to_string(row.size.h),
                                      microseconds(figures[0].time)};
    for (std::size_t i = 1; i < figures.size(); ++i) {
        cells.push_back(outcome.names[i]);
        if (!figures[i].isBuilt) {
            cells.insert(cells.end(), {"(not built)", "", "", ""});
        } else {
            cells.push_back(microseconds(figures[i].time));
            cells.push_back(number(figures[i].ratio, "%.3f"));
            const auto goal = std::find_if(
                outcome.goals.begin(), outcome.goals.end(),
                [&](const Goal& candidate) { return fastest(candidate, outcome, figures) == i; });
            if (goal == outcome.goals.end()) {
                cells.insert(cells.end(), {"", ""});
            } else {
                const bool met = figures[i].ratio <= goal->ratio * (1 + noise);
                cells.push_back(number(goal->ratio, "%.3g"));
                cells.emplace_back(!met ? "no" : figures[i].ratio <= goal->ratio ? "yes" : "within noise");
                ++goals_;
                met_ += met ? 1 : 0;
            }
        }
        printCells(cells);
        cells.assign(4, "");
    }
}

void Table::printSummary() const {
    std::cout << '\n' << met_ << " of " << goals_ << " goals met\n";
}

}  // namespace drawing
