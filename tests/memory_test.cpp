#include "kvffmpeg/memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/test_heap.h"

namespace kvffmpeg {
namespace {

using test::failEachAllocation;
using test::Heap;
using test::heap;

static_assert(!std::is_copy_constructible_v<MemBuffer> && !std::is_copy_assignable_v<MemBuffer>);
static_assert(!std::is_move_constructible_v<MemBuffer> && !std::is_move_assignable_v<MemBuffer>);
static_assert(!std::is_copy_constructible_v<FixedBufferPool> &&
              std::is_move_constructible_v<FixedBufferPool>);
static_assert(!std::is_copy_constructible_v<PoolAllocator>);

// 22 below 0, as FFmpeg's error for invalid arguments arrives, and the first size that no longer fits.
const std::size_t minus22 = static_cast<std::size_t>(-22);
const std::size_t firstTooLarge = static_cast<std::size_t>(PTRDIFF_MAX) - 31;

/// Counts what array new and delete do while it lives.
struct Recording {
    Recording() {
        heap() = Heap{};
        heap().recording = true;
    }
    ~Recording() { heap() = Heap{}; }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
};

std::vector<unsigned char> numbered(std::size_t count, unsigned char first = 1) {
    std::vector<unsigned char> bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(first + i);
    return bytes;
}
std::vector<unsigned char> content(MemBuffer& buffer, std::size_t count) {
    return {buffer.data(), buffer.data() + count};
}
void setContent(MemBuffer& buffer, const std::vector<unsigned char>& bytes) {
    std::copy(bytes.begin(), bytes.end(), buffer.data());
}

struct Status {
    std::size_t total = 4711, used = 4711;  // must be overwritten
    bool operator==(const Status& other) const { return total == other.total && used == other.used; }
};
void PrintTo(const Status& status, std::ostream* out) {
    *out << status.used << " of " << status.total;
}
template <typename Pool>
Status status(const Pool& pool) {
    Status result;
    pool.getStatus(result.total, result.used);
    return result;
}
/// Frees a block that a pool gave out and whose pool is gone: it came from array new of bytes.
void freeLeaked(void* block) {
    delete[] static_cast<unsigned char*>(block);
}

TEST(MemBufferTest, DefaultIsEmpty) {
    MemBuffer buffer;
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), nullptr);
}

TEST(MemBufferTest, OwnedBlockIsOneArrayNewOfSizePlus32) {
    const Recording recording;
    {
        MemBuffer buffer(100, nullptr);
        EXPECT_EQ(buffer.size(), 100u);
        EXPECT_NE(buffer.data(), nullptr);
        EXPECT_EQ(heap().arrayRequests, 1);
        EXPECT_EQ(heap().arrayBytes, 132u);
        EXPECT_EQ(heap().arrayReleases, 0);
    }
    EXPECT_EQ(heap().arrayReleases, 1);
}

TEST(MemBufferTest, PaddingIsReadableAndWritable) {
    MemBuffer buffer(100, nullptr);
    const std::vector<unsigned char> bytes = numbered(132);
    setContent(buffer, bytes);
    EXPECT_EQ(content(buffer, 132), bytes);
    MemBuffer small(1, nullptr);
    setContent(small, numbered(33));
    EXPECT_EQ(content(small, 33), numbered(33));
}

TEST(MemBufferTest, SizeZeroAllocatesNothing) {
    // resize(0) of an empty buffer: the current size is already large enough.
    const Recording recording;
    MemBuffer buffer(0, nullptr);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(heap().arrayRequests, 0);
}

TEST(MemBufferTest, OutsideMemoryReportsSizeZeroAndIsNotFreed) {
    std::vector<unsigned char> outside = numbered(100);
    {
        MemBuffer buffer(100, outside.data());
        EXPECT_EQ(buffer.size(), 0u);
        EXPECT_EQ(buffer.data(), outside.data());
    }
    EXPECT_EQ(outside, numbered(100));
}

TEST(MemBufferTest, OutsideMemoryMayClaimAnySize) {
    unsigned char outside = 7;
    MemBuffer buffer(minus22, &outside);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), &outside);
}

TEST(MemBufferTest, ShrinkingKeepsTheBlock) {
    MemBuffer buffer(100, nullptr);
    const unsigned char* const block = buffer.data();
    setContent(buffer, numbered(100));
    buffer.resize(50);
    EXPECT_EQ(buffer.size(), 50u);
    EXPECT_EQ(buffer.data(), block);
    buffer.resize(50);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(content(buffer, 50), numbered(50));
    buffer.resize(0);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), block);
}

TEST(MemBufferTest, GrowingAfterShrinkingReallocatesAndKeepsTheShrunkContent) {
    MemBuffer buffer(100, nullptr);
    setContent(buffer, numbered(100));
    buffer.resize(50);
    const Recording recording;
    buffer.resize(80);
    EXPECT_EQ(buffer.size(), 80u);
    EXPECT_EQ(heap().arrayRequests, 1);
    EXPECT_EQ(heap().arrayBytes, 112u);
    EXPECT_EQ(heap().arrayReleases, 1);
    EXPECT_EQ(content(buffer, 50), numbered(50));
}

TEST(MemBufferTest, GrowingMovesTheWholeContent) {
    MemBuffer buffer(100, nullptr);
    setContent(buffer, numbered(100));
    buffer.resize(1000);
    EXPECT_EQ(buffer.size(), 1000u);
    EXPECT_EQ(content(buffer, 100), numbered(100));
}

TEST(MemBufferTest, ResizingAnEmptyBufferToZeroKeepsItEmpty) {
    MemBuffer buffer;
    buffer.resize(0);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), nullptr);
}

TEST(MemBufferTest, ResizingOutsideMemoryToZeroChangesNothing) {
    std::vector<unsigned char> outside = numbered(10);
    MemBuffer buffer(10, outside.data());
    buffer.resize(0);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), outside.data());
}

TEST(MemBufferTest, GrowingOutsideMemoryFreesItAndStaysExternal) {
    auto* const outside = new unsigned char[10];
    unsigned char* grown = nullptr;
    {
        const Recording recording;
        MemBuffer buffer(10, outside);
        buffer.resize(20);  // frees `outside`: nothing is copied, the size was 0
        EXPECT_EQ(heap().arrayBytes, 52u);
        EXPECT_EQ(heap().arrayReleases, 1);
        EXPECT_EQ(buffer.size(), 20u);
        EXPECT_NE(buffer.data(), outside);
        setContent(buffer, numbered(20));
        buffer.resize(30);
        EXPECT_EQ(heap().arrayReleases, 2);
        EXPECT_EQ(content(buffer, 20), numbered(20));
        grown = buffer.data();
    }
    std::memset(grown, 0, 62);  // not freed with the buffer: the flag has not changed
    delete[] grown;
}

TEST(MemBufferTest, SizesThatDoNotFitAreBadAllocWithoutAnAllocation) {
    const Recording recording;
    for (std::size_t size : {minus22, firstTooLarge, SIZE_MAX, SIZE_MAX - 31, SIZE_MAX - 32,
                             static_cast<std::size_t>(PTRDIFF_MAX)}) {
        EXPECT_THROW(MemBuffer(size, nullptr), std::bad_alloc) << size;
    }
    EXPECT_EQ(heap().arrayRequests, 0);
}

TEST(MemBufferTest, FailedResizeChangesNothing) {
    MemBuffer buffer(10, nullptr);
    setContent(buffer, numbered(10));
    const unsigned char* const block = buffer.data();
    const auto checkUnchanged = [&] {
        EXPECT_EQ(buffer.size(), 10u);
        EXPECT_EQ(buffer.data(), block);
        EXPECT_EQ(content(buffer, 10), numbered(10));
    };
    for (std::size_t size : {minus22, firstTooLarge}) {
        EXPECT_THROW(buffer.resize(size), std::bad_alloc) << size;
        checkUnchanged();
    }
    EXPECT_EQ(failEachAllocation([&] { buffer.resize(20); }, checkUnchanged), 1);
    EXPECT_EQ(buffer.size(), 20u);
}

TEST(MemBufferTest, FailedResizeOfOutsideMemoryChangesNothing) {
    std::vector<unsigned char> outside = numbered(10);
    MemBuffer buffer(10, outside.data());
    EXPECT_THROW(buffer.resize(minus22), std::bad_alloc);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), outside.data());
    EXPECT_EQ(outside, numbered(10));
}

TEST(FixedBufferPoolTest, NewPoolHoldsNothing) {
    const FixedBufferPool pool(64);
    EXPECT_EQ(status(pool), (Status{0, 0}));
}

TEST(FixedBufferPoolTest, BlocksAreArrayNewOfExactlyTheBlockSize) {
    FixedBufferPool pool(77);
    const Recording recording;
    void* const block = pool.alloc();
    EXPECT_EQ(heap().arrayRequests, 1);
    EXPECT_EQ(heap().arrayBytes, 77u);
    std::memset(block, 1, 77);
    pool.release(block);
    EXPECT_EQ(heap().arrayReleases, 0);
}

TEST(FixedBufferPoolTest, StatusCountsBytesOfAllAndOfUsedBlocks) {
    FixedBufferPool pool(10);
    void* const a = pool.alloc();
    EXPECT_EQ(status(pool), (Status{10, 10}));
    void* const b = pool.alloc();
    EXPECT_EQ(status(pool), (Status{20, 20}));
    pool.release(a);
    EXPECT_EQ(status(pool), (Status{20, 10}));
    pool.release(b);
    EXPECT_EQ(status(pool), (Status{20, 0}));
}

TEST(FixedBufferPoolTest, ReuseIsLastInFirstOut) {
    FixedBufferPool pool(10);
    void* const a = pool.alloc();
    void* const b = pool.alloc();
    void* const c = pool.alloc();
    EXPECT_EQ((std::set<void*>{a, b, c}).size(), 3u);
    pool.release(b);
    pool.release(c);
    pool.release(a);
    EXPECT_EQ(pool.alloc(), a);
    EXPECT_EQ(pool.alloc(), c);
    EXPECT_EQ(pool.alloc(), b);
    for (void* block : {a, b, c}) pool.release(block);
}

TEST(FixedBufferPoolTest, AHitDoesNotAllocate) {
    FixedBufferPool pool(10);
    pool.release(pool.alloc());
    heap().failAfter = 0;
    void* const block = pool.alloc();
    pool.release(block);
    EXPECT_EQ(heap().failAfter, 0) << "something was allocated";
    heap().failAfter = -1;
    EXPECT_EQ(status(pool), (Status{10, 0}));
}

TEST(FixedBufferPoolTest, ReleasingAForeignPointerIsIgnored) {
    FixedBufferPool pool(10);
    void* const block = pool.alloc();
    unsigned char foreign[10];
    pool.release(foreign);
    pool.release(nullptr);
    EXPECT_EQ(status(pool), (Status{10, 10}));
    pool.release(block);
    EXPECT_EQ(status(pool), (Status{10, 0}));
}

TEST(FixedBufferPoolTest, ReleasingTwiceIsIgnored) {
    FixedBufferPool pool(10);
    void* const block = pool.alloc();
    pool.release(block);
    pool.release(block);
    EXPECT_EQ(status(pool), (Status{10, 0}));
    void* const again = pool.alloc();
    void* const other = pool.alloc();
    EXPECT_EQ(again, block);
    EXPECT_NE(other, block);
    pool.release(again);
    pool.release(other);
}

TEST(FixedBufferPoolTest, UsedBlocksOutliveThePoolAndFreeOnesAreReleased) {
    void* used = nullptr;
    {
        FixedBufferPool pool(10);
        used = pool.alloc();
        pool.release(pool.alloc());  // freed with the pool, or the leak check would tell
        const Recording recording;
        std::memset(used, 7, 10);
    }
    std::memset(used, 8, 10);
    EXPECT_EQ(static_cast<unsigned char*>(used)[9], 8);
    freeLeaked(used);
}

TEST(FixedBufferPoolTest, MovingTakesOverAllBlocksAndLeavesTheBlockSize) {
    FixedBufferPool source(10);
    void* const free = source.alloc();
    void* const used = source.alloc();
    source.release(free);
    FixedBufferPool target(std::move(source));
    EXPECT_EQ(status(target), (Status{20, 10}));
    EXPECT_EQ(status(source), (Status{0, 0}));
    EXPECT_EQ(target.alloc(), free);
    target.release(free);
    target.release(used);
    EXPECT_EQ(status(target), (Status{20, 0}));

    void* const fresh = source.alloc();
    EXPECT_EQ(status(source), (Status{10, 10}));
    source.release(fresh);
}

TEST(FixedBufferPoolTest, FailedAllocationChangesNothing) {
    FixedBufferPool pool(10);
    void* const first = pool.alloc();
    void* block = nullptr;
    const int failures = failEachAllocation([&] { block = pool.alloc(); },
                                            [&] {
                                                EXPECT_EQ(status(pool), (Status{10, 10}));
                                            });
    EXPECT_GE(failures, 1);
    EXPECT_EQ(status(pool), (Status{20, 20}));
    pool.release(first);
    pool.release(block);
}

TEST(FixedBufferPoolTest, SizesThatDoNotFitAreBadAlloc) {
    for (std::size_t size : {minus22, SIZE_MAX, static_cast<std::size_t>(PTRDIFF_MAX) + 1}) {
        FixedBufferPool pool(size);
        EXPECT_THROW(pool.alloc(), std::bad_alloc) << size;
        EXPECT_EQ(status(pool), (Status{0, 0}));
    }
}

TEST(PoolAllocatorTest, EverySizeHasAPoolOfItsOwn) {
    PoolAllocator allocator;
    void* const a = allocator.alloc(1000);
    void* const b = allocator.alloc(1000);
    void* const c = allocator.alloc(1001);
    EXPECT_EQ(status(allocator), (Status{3001, 3001}));
    for (void* block : {a, c, b}) allocator.release(block);
    EXPECT_EQ(status(allocator), (Status{3001, 0}));
    EXPECT_EQ(allocator.alloc(1000), b);
    EXPECT_EQ(allocator.alloc(1001), c);
    EXPECT_EQ(status(allocator), (Status{3001, 2001}));
    allocator.release(b);
    allocator.release(c);
}

TEST(PoolAllocatorTest, NewAllocatorHoldsNothing) {
    EXPECT_EQ(status(PoolAllocator()), (Status{0, 0}));
}

TEST(PoolAllocatorTest, BlocksOfSizeZeroAreDistinct) {
    PoolAllocator allocator;
    void* const a = allocator.alloc(0);
    void* const b = allocator.alloc(0);
    EXPECT_NE(a, b);
    EXPECT_EQ(status(allocator), (Status{0, 0}));
    allocator.release(a);
    allocator.release(b);
}

TEST(PoolAllocatorTest, ReleasingTwiceIsBadAllocAndChangesNothing) {
    PoolAllocator allocator;
    void* const block = allocator.alloc(10);
    allocator.release(block);
    EXPECT_THROW(allocator.release(block), std::bad_alloc);
    EXPECT_EQ(status(allocator), (Status{10, 0}));
    EXPECT_EQ(allocator.alloc(10), block);
    EXPECT_EQ(status(allocator), (Status{10, 10}));
    allocator.release(block);
}

TEST(PoolAllocatorTest, ReleasingAForeignPointerIsBadAllocAndChangesNothing) {
    PoolAllocator allocator;
    void* const block = allocator.alloc(10);
    unsigned char foreign[10];
    EXPECT_THROW(allocator.release(foreign), std::bad_alloc);
    EXPECT_THROW(allocator.release(nullptr), std::bad_alloc);
    EXPECT_THROW(allocator.release(static_cast<unsigned char*>(block) + 1), std::bad_alloc);
    EXPECT_EQ(status(allocator), (Status{10, 10}));
    allocator.release(block);
    EXPECT_EQ(status(allocator), (Status{10, 0}));
}

TEST(PoolAllocatorTest, BlocksThatAreOutOutliveTheAllocator) {
    void* block = nullptr;
    {
        PoolAllocator allocator;
        block = allocator.alloc(10);
        allocator.release(allocator.alloc(10));
    }
    std::memset(block, 1, 10);
    EXPECT_EQ(static_cast<unsigned char*>(block)[9], 1);
    freeLeaked(block);
}

TEST(PoolAllocatorTest, FailedAllocationChangesNothing) {
    // From no pool at all, and with a pool of that size whose blocks are all out.
    PoolAllocator allocator;
    std::vector<void*> blocks;
    for (std::size_t round = 0; round < 40; ++round) {  // far enough for the tables to grow
        const Status before = status(allocator);
        const std::size_t size = round % 3 == 0 ? 100 + round : 100;
        void* block = nullptr;
        const int failures = failEachAllocation([&] { block = allocator.alloc(size); },
                                                [&] {
                                                    ASSERT_EQ(status(allocator), before) << round;
                                                    for (void* used : blocks) {
                                                        std::memset(used, 1, 100);
                                                    }
                                                });
        EXPECT_GE(failures, 1);
        blocks.push_back(block);
    }
    EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), blocks.size());
    for (void* block : blocks) EXPECT_NO_THROW(allocator.release(block));
    EXPECT_EQ(status(allocator).used, 0u);
}

TEST(PoolAllocatorTest, FailureOfAHitLosesNoBlock) {
    PoolAllocator allocator;
    void* const block = allocator.alloc(50);
    allocator.release(block);
    void* again = nullptr;
    failEachAllocation([&] { again = allocator.alloc(50); },
                       [&] {
                           EXPECT_EQ(status(allocator), (Status{50, 0}));
                       });
    EXPECT_EQ(again, block);
    EXPECT_EQ(status(allocator), (Status{50, 50}));
    allocator.release(again);
}

TEST(PoolAllocatorTest, ReleaseDoesNotAllocate) {
    PoolAllocator allocator;
    void* const block = allocator.alloc(50);
    heap().failAfter = 0;
    allocator.release(block);
    EXPECT_EQ(heap().failAfter, 0) << "something was allocated";
    heap().failAfter = -1;
}

TEST(PoolAllocatorTest, SizesThatDoNotFitAreBadAllocAndChangeNothing) {
    PoolAllocator allocator;
    void* const block = allocator.alloc(10);
    for (std::size_t size : {minus22, SIZE_MAX}) {
        EXPECT_THROW(allocator.alloc(size), std::bad_alloc) << size;
        EXPECT_EQ(status(allocator), (Status{10, 10}));
    }
    allocator.release(block);
}

TEST(PoolAllocatorTest, ManyThreadsNeverShareABlockAndNoneIsLost) {
    constexpr int threads = 8, rounds = 400;
    const std::vector<std::size_t> sizes{64, 100, 100, 257};  // the hundreds meet most
    PoolAllocator allocator;
    std::vector<std::string> errors(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::vector<std::pair<unsigned char*, std::size_t>> held;
            const auto mark = static_cast<unsigned char>(t + 1);
            const auto releaseFirst = [&] {
                const auto [block, size] = held.front();
                if (std::count(block, block + size, mark) != static_cast<std::ptrdiff_t>(size)) {
                    errors[static_cast<std::size_t>(t)] = "a block was written by another thread";
                }
                held.erase(held.begin());
                allocator.release(block);
            };
            for (int round = 0; round < rounds; ++round) {
                const std::size_t size = sizes[static_cast<std::size_t>(round) % sizes.size()];
                auto* const block = static_cast<unsigned char*>(allocator.alloc(size));
                std::memset(block, mark, size);
                held.emplace_back(block, size);
                if (held.size() > 5) releaseFirst();
                const Status snapshot = status(allocator);
                if (snapshot.used > snapshot.total || snapshot.used < size) {
                    errors[static_cast<std::size_t>(t)] = "an inconsistent status";
                }
            }
            while (!held.empty()) releaseFirst();
        });
    }
    for (std::thread& worker : workers) worker.join();
    for (const std::string& error : errors) EXPECT_EQ(error, "");
    EXPECT_EQ(status(allocator).used, 0u);
    EXPECT_GT(status(allocator).total, 0u);
}

TEST(PoolAllocatorTest, BlocksMayBeReleasedByAnotherThread) {
    PoolAllocator allocator;
    std::vector<void*> blocks;
    std::thread([&] {
        for (int i = 0; i < 10; ++i) blocks.push_back(allocator.alloc(33));
    }).join();
    for (void* block : blocks) allocator.release(block);
    EXPECT_EQ(status(allocator), (Status{330, 0}));
}

}  // namespace
}  // namespace kvffmpeg
