#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "operation.h"
#include "shim.h"

namespace kvffmpeg::faults {

enum class Stage : std::uint8_t { prepare, run, close, again, done };

enum class Thrown : std::uint8_t { nothing, badAlloc, runtimeError, outOfRange, rangeError, other };

/// What a forked process found out about one fault. Written by it, also from a signal handler, and read when
/// it has ended.
struct Report {
    Stage stage = Stage::prepare;
    Thrown thrown = Thrown::nothing;
    std::array<char, 200> text{};   ///< Of the exception.
    std::uint64_t result = 0;       ///< Without an exception.
    std::uint64_t resultOfNew = 0;  ///< Of a new object, without a fault.
    bool newGaveResult = false;
    std::uint64_t allocations = 0;
    std::uint64_t fileCalls = 0;
    std::uint64_t fired = 0;
    Backtrace firedAt;
    int signal = 0;
    Backtrace crashedAt;
    std::size_t leakedBlocks = 0;
    std::size_t leakedBytes = 0;
    std::size_t leakedRoots = 0;
    std::array<std::uint64_t, 16> leaked{};  ///< Ordinals of the first of them that no other one holds.
    Backtrace tracedAt;
    int descriptors = 0;  ///< More than before.
    bool overflowed = false;
    std::array<FileCall, mostFileCalls> fileCallKinds{};
};

/// A fault that is being tried in a process of its own, forked from one that has one thread: it makes the
/// operation ready, runs and destroys it under the fault, looks at what is left behind, and runs a new one.
class Point {
public:
    /// @throws std::runtime_error without memory to share.
    Point();
    ~Point();
    Point(const Point&) = delete;
    Point& operator=(const Point&) = delete;

    /// The one before must have finished. The shim is that of this process.
    void start(Shim& shim, const Operation& operation, const Fault& fault, unsigned seconds,
               std::uint64_t tracedOrdinal = 0);
    /// Waits. Good until the next start.
    const Report& finish();

private:
    Report* report_ = nullptr;
    int child_ = 0;
};

}  // namespace kvffmpeg::faults
