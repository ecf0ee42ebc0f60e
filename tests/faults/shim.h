#pragma once

// What the preloaded shim and the driver share.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kvffmpeg::faults {

/// Calls on files that can be made to fail.
enum class FileCall : std::uint8_t { open, read, write, seek, map, close };

enum class Effect : std::uint8_t {
    none,
    noMemory,   ///< An allocation gives null.
    error,      ///< A call on a file gives -1 and `error`; a close takes place all the same.
    shortened,  ///< A read or write does half of what it was asked, one byte at least.
};

/// What shall fail: call number `index` (from 1) of the kind that the effect is for, counted while armed.
struct Fault {
    Effect effect = Effect::none;
    bool onwards = false;  ///< And all that come after it.
    int error = 0;
    std::uint64_t index = 0;
};

constexpr std::size_t mostFrames = 48;

struct Backtrace {
    int count = 0;
    std::array<void*, mostFrames> frames{};
};

/// Set in the ordinals of allocations that were made while tracking but not armed.
constexpr std::uint64_t unarmedOrdinal = std::uint64_t{1} << 63;

/// A block that has not been freed. `ordinal` is the number of its allocation.
struct LiveBlock {
    void* address = nullptr;
    std::size_t size = 0;
    std::uint64_t ordinal = 0;
};

constexpr std::size_t mostFileCalls = 1U << 16;

/// The shim's state, shared with the driver that runs in the same process.
struct Shim {
    std::atomic<bool> armed{false};     ///< Of all threads: an operation's workers belong to it.
    std::atomic<bool> tracking{false};  ///< Live blocks are kept account of, armed or not.
    Fault fault;
    std::atomic<std::uint64_t> allocations{0};  ///< Attempts while armed.
    std::atomic<std::uint64_t> unarmedAllocations{0};
    std::atomic<std::uint64_t> fileCalls{0};  ///< While armed.
    std::array<FileCall, mostFileCalls> fileCallKinds{};
    std::atomic<std::uint64_t> fired{0};  ///< How often something failed.
    Backtrace firedAt;                    ///< The first time.
    std::uint64_t tracedOrdinal = 0;      ///< Of an allocation of which `tracedAt` shall tell the place.
    Backtrace tracedAt;
    std::atomic<bool> overflowed{false};  ///< More live blocks than the table holds.

    // Functions of the shim.
    /// Only files below one of these folders fail; the texts must stay.
    void (*watchFolder)(const char* path) = nullptr;
    /// Forgets what is live, counters and what has fired.
    void (*reset)() = nullptr;
    /// Copies up to `most` live blocks; returns how many there are.
    std::size_t (*liveBlocks)(LiveBlock* blocks, std::size_t most) = nullptr;
};

/// The name under which the driver looks for `Shim* function()`.
constexpr const char* shimEntry = "kvffmpeg_fault_shim";

}  // namespace kvffmpeg::faults
