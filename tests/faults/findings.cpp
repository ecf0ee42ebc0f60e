#include "findings.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <utility>
#include <vector>

namespace kvffmpeg::faults {
namespace {

constexpr std::uint64_t Row::*const columns[] = {
    &Row::possible,     &Row::points,          &Row::same,          &Row::other,       &Row::badAlloc,
    &Row::runtimeError, &Row::otherExceptions, &Row::crashesTheirs, &Row::hangsTheirs, &Row::leaksTheirs,
    &Row::crashesOurs,  &Row::hangsOurs,       &Row::leaksOurs,     &Row::descriptors, &Row::swallowed,
    &Row::undocumented, &Row::notAgain};

constexpr const char* titles[] = {"points",        "run",           "right result",  "other result",
                                  "bad_alloc",     "runtime_error", "other types",   "crashes: theirs",
                                  "hangs: theirs", "leaks: theirs", "crashes: ours", "hangs: ours",
                                  "leaks: ours",   "descriptors",   "swallowed",     "undocumented",
                                  "new one fails"};

}  // namespace

void Row::add(const Row& row) {
    for (const auto column : columns) this->*column += row.*column;
}

void Findings::add(const std::string& what, const std::string& point) {
    Entry& entry = entries_[what];
    if (entry.count++ != 0) return;
    entry.firstPoint = point;
    std::clog << point << ": " << what << std::endl;  // for those who do not wait for the tables
}

void Findings::print(std::ostream& out) const {
    std::vector<std::pair<std::string, Entry>> sorted(entries_.begin(), entries_.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.second.count > b.second.count; });
    out << "\n| what | times | first at |\n|---|---:|---|\n";
    for (const auto& [what, entry] : sorted) {
        out << "| " << what << " | " << entry.count << " | `" << entry.firstPoint << "` |\n";
    }
}

void printHeader(std::ostream& out, const std::string& title) {
    out << "\n## " << title << "\n\n| operation |";
    for (const char* column : titles) out << ' ' << column << " |";
    out << "\n|---|";
    for (std::size_t i = 0; i < std::size(titles); ++i) out << "---:|";
    out << '\n' << std::flush;
}

void printRow(std::ostream& out, const Row& row) {
    out << "| " << row.operation << " |";
    for (const auto column : columns) out << ' ' << row.*column << " |";
    out << '\n' << std::flush;
}

}  // namespace kvffmpeg::faults
