#include <benchmark/benchmark.h>

#include "kvffmpeg/timestamp.h"

namespace {

using kvffmpeg::Timestamp;

void timestampCompareEqualBases(benchmark::State& state) {
    Timestamp a(1000000);
    Timestamp b(1000001);
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(a < b);
    }
}
BENCHMARK(timestampCompareEqualBases);

void timestampCompareMixedBases(benchmark::State& state) {
    Timestamp a(1000000);
    Timestamp b(90001, 1, 90000);
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(a < b);
    }
}
BENCHMARK(timestampCompareMixedBases);

void timestampRescale(benchmark::State& state) {
    Timestamp time(90001, 1, 90000);
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(time);
        benchmark::DoNotOptimize(time.rescale({1, 1000000}));
    }
}
BENCHMARK(timestampRescale);

void timestampNow(benchmark::State& state) {
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(kvffmpeg::now());
    }
}
BENCHMARK(timestampNow);

}  // namespace
