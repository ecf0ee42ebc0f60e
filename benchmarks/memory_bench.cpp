#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

#include "kvffmpeg/memory.h"

namespace {

using kvffmpeg::MemBuffer;
using kvffmpeg::PoolAllocator;

void memBufferMakeAndFree(benchmark::State& state) {
    for (auto unused : state) {
        static_cast<void>(unused);
        MemBuffer buffer(static_cast<std::size_t>(state.range(0)), nullptr);
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(memBufferMakeAndFree)->Arg(4096)->Arg(1920 * 1080 * 3 / 2);

void memBufferGrow(benchmark::State& state) {
    for (auto unused : state) {
        static_cast<void>(unused);
        MemBuffer buffer(static_cast<std::size_t>(state.range(0)), nullptr);
        buffer.resize(buffer.size() * 2);
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(memBufferGrow)->Arg(4096)->Arg(1 << 20);

/// One block of a recurring size, with others of that size out; the argument is how many.
void poolAllocatorReuse(benchmark::State& state) {
    constexpr std::size_t size = 1920 * 1080 * 3 / 2;
    PoolAllocator pool;
    std::vector<void*> out;
    for (int i = 0; i < state.range(0); ++i) out.push_back(pool.alloc(size));
    for (auto unused : state) {
        static_cast<void>(unused);
        void* block = pool.alloc(size);
        benchmark::DoNotOptimize(block);
        pool.release(block);
    }
    for (void* block : out) pool.release(block);
}
BENCHMARK(poolAllocatorReuse)->Arg(0)->Arg(8)->Arg(64);

PoolAllocator& sharedPool() {
    static PoolAllocator pool;
    return pool;
}

void poolAllocatorFromThreads(benchmark::State& state) {
    for (auto unused : state) {
        static_cast<void>(unused);
        void* block = sharedPool().alloc(4096);
        benchmark::DoNotOptimize(block);
        sharedPool().release(block);
    }
}
BENCHMARK(poolAllocatorFromThreads)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
