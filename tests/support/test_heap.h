#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <new>

/// \file
/// The heap of a test program, the library included: `operator new` and `delete` are replaced by ones that
/// count and that fail on demand. For programs that are built with support/test_heap.cpp. (The address
/// sanitizer then no longer sees a mismatch of new and delete in them; the counters do.)

namespace kvffmpeg::test {

/// What this thread asks of the heap.
struct Heap {
    long failAfter = -1;         ///< So many allocations still succeed; then one fails. Never when negative.
    bool recording = false;      ///< Whether the counters below count.
    int requests = 0;            ///< To new of any kind.
    std::size_t arrayBytes = 0;  ///< The last request to array new.
    int arrayRequests = 0;
    int arrayReleases = 0;
};

Heap& heap() noexcept;
/// False where something else has replaced new once more, as valgrind does: then nothing counts and fails.
bool heapIsOurs();

/// Runs `action` with its first, second, ... allocation failing, until it succeeds; calls `checkUnchanged`
/// after every failure. @returns the number of failures.
template <typename Action, typename Check>
int failEachAllocation(Action action, Check checkUnchanged) {
    for (int failures = 0; failures < 1000; ++failures) {
        heap().failAfter = failures;
        bool thrown = false;
        try {
            action();
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        heap().failAfter = -1;
        if (!thrown) return failures;
        checkUnchanged();
    }
    ADD_FAILURE() << "never succeeds";
    return -1;
}

}  // namespace kvffmpeg::test
