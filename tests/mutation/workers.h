#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "exercise.h"

namespace kvffmpeg::mutation {

/// True in a program that is built with the address sanitizer.
bool isSanitized() noexcept;

struct Limits {
    double seconds = 2;  ///< Of processor time; ten times as long by the clock on the wall.
    std::size_t bytes = std::size_t{1} << 30;  ///< Of resident memory, of the whole worker.
};

/// One run, as seen from outside.
struct Result {
    std::size_t item = 0;
    Outcome outcome;  ///< Without a death. `failures` tells also of limits, open descriptors and leaks.
    std::string
        death;  ///< How the worker ended during the run, such as "Segmentation fault"; empty: it lived.
    std::string report;  ///< What it wrote to stderr: a stack, a sanitizer's words. For deaths and failures.
};

using Job = std::function<void(std::size_t item, Outcome& outcome)>;

/// Runs the job once for each item, in `workers` child processes that go on after each run and are replaced
/// when they die. Results are delivered as they come, to this process. A run over a limit goes on for a
/// while, so that the result tells how long it takes: five times the time, twice the memory; then it is
/// killed.
/// @throws std::system_error when no process can be made.
void runInWorkers(std::size_t items, unsigned workers, const Limits& limits, const Job& job,
                  const std::function<void(const Result&)>& deliver);

}  // namespace kvffmpeg::mutation
