// rows.h: names and sizes of the benchmark rows, shared by all programs so that their rows match.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

inline constexpr std::int64_t large = 17'000'000;  // elements, far beyond every cache
inline constexpr std::int64_t side = 4096;         // of square matrices
inline constexpr std::int64_t sizes[] = {1, 1'000, 100'000, large};
inline constexpr std::int64_t product_sizes[] = {64, 128, 256, 512, 1024, 2048};

/// Inputs of the layer rows: images [N, C, H, W], and rows of features.
inline constexpr std::int64_t image_shape[] = {32, 64, 32, 32};
inline constexpr std::int64_t feature_rows = 8192;
inline constexpr std::int64_t features = 768;

/// A row: one call of `operation` per iteration. `bytes` moved or `flops` done per call tell compare.py how
/// to rate it; 0 where a row is neither.
inline void row(const std::string& name, std::function<void()> operation, std::int64_t bytes = 0,
                std::int64_t flops = 0) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [operation = std::move(operation), bytes, flops](benchmark::State& state) {
                                     operation();  // First use of memory is not what a row is about.
                                     for (auto _ : state) {
                                         operation();
                                     }
                                     state.counters["bytes"] = static_cast<double>(bytes);
                                     state.counters["flops"] = static_cast<double>(flops);
                                 })
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

inline int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
