// rows.h: names and sizes of the benchmark rows, shared by all programs so that their rows match.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

inline constexpr std::int64_t large = 17'000'000;  // elements, far beyond every cache
inline constexpr std::int64_t side = 4096;         // of square matrices
inline constexpr std::int64_t sizes[] = {1, 1'000, 100'000, large};
inline constexpr std::int64_t product_sizes[] = {64, 128, 256, 512, 1024, 2048};
/// Products of networks: few rows, long and short depths, batches.
struct Product {
    const char* name;
    std::int64_t batch, rows, depth, cols;
    bool float64 = false;
    std::int64_t flops() const { return 2 * batch * rows * depth * cols; }
};
inline constexpr Product products[] = {
    {"512x768x3072", 1, 512, 768, 3072},         {"512x3072x768", 1, 512, 3072, 768},
    {"128x768x768", 1, 128, 768, 768},           {"128x4096x4096", 1, 128, 4096, 4096},
    {"8x4096x4096", 1, 8, 4096, 4096},           {"1x4096x4096", 1, 1, 4096, 4096},
    {"96x128x64x128", 96, 128, 64, 128},         {"float64/256", 1, 256, 256, 256, true},
    {"float64/1024", 1, 1024, 1024, 1024, true},
};
inline constexpr std::int64_t class_sizes[][2] = {{128, 10}, {4096, 1000}, {64, 50'000}};  // rows x classes

inline std::string by(const std::int64_t (&size)[2]) { return std::to_string(size[0]) + "x" + std::to_string(size[1]); }
inline std::vector<std::int64_t> shape_of(const std::int64_t (&size)[2]) { return {size[0], size[1]}; }

struct Batch {
    const char* name;
    std::int64_t count, n;
};
inline constexpr Batch matrix_batches[] = {{"64x16", 64, 16}, {"1x128", 1, 128}, {"1x400", 1, 400}};

/// Elements of symmetric matrices, count x n x n, scattered over [-0.5, 0.5).
inline void fill_symmetric(const Batch& batch, float* element) {
    for (std::int64_t row = 0; row < batch.count * batch.n; ++row) {
        for (std::int64_t col = 0; col < batch.n; ++col) {
            const std::int64_t other = row / batch.n * batch.n + col;
            const std::int64_t mixed = std::max(row, other) * 7919 + std::min(row, other) * 104729;
            *element++ = static_cast<float>(mixed % 1009) / 1009.0F - 0.5F;
        }
    }
}
/// A convolution layer of square planes: a forward row, and one of all three gradients.
struct Conv {
    const char* name;
    std::int64_t batch, inputs, outputs, side;
    int kernel, stride, padding;
    std::int64_t groups;
    bool transposed;
    bool float64 = false;
    /// Multiplications and additions of the forward pass.
    std::int64_t flops() const {
        const std::int64_t out = (side + 2 * padding - kernel) / stride + 1;
        const std::int64_t positions = transposed ? side * side : out * out;
        return 2 * batch * positions * kernel * kernel * inputs / groups * outputs;
    }
};
inline constexpr Conv convolutions[] = {
    {"3x3/3_32", 32, 3, 32, 32, 3, 1, 1, 1, false},
    {"3x3/64_64", 32, 64, 64, 32, 3, 1, 1, 1, false},
    {"3x3/128_128", 8, 128, 128, 28, 3, 1, 1, 1, false},
    {"1x1/64_64", 8, 64, 64, 56, 1, 1, 0, 1, false},
    {"7x7_stride2/3_64", 8, 3, 64, 224, 7, 2, 3, 1, false},
    {"depthwise/128", 8, 128, 128, 56, 3, 1, 1, 128, false},
    {"transposed4x4_stride2/64_32", 8, 64, 32, 28, 4, 2, 1, 1, true},
    {"3x3/64_64/56_b1", 1, 64, 64, 56, 3, 1, 1, 1, false},
    {"3x3/64_64/56_b8", 8, 64, 64, 56, 3, 1, 1, 1, false},
    {"3x3/128_128/28_b1", 1, 128, 128, 28, 3, 1, 1, 1, false},
    {"3x3/256_256/14_b1", 1, 256, 256, 14, 3, 1, 1, 1, false},
    {"3x3/256_256/14_b8", 8, 256, 256, 14, 3, 1, 1, 1, false},
    {"3x3/512_512/7_b1", 1, 512, 512, 7, 3, 1, 1, 1, false},
    {"3x3/512_512/7_b8", 8, 512, 512, 7, 3, 1, 1, 1, false},
    {"3x3_stride2/128_128/56_b1", 1, 128, 128, 56, 3, 2, 1, 1, false},
    {"3x3_stride2/128_128/56_b8", 8, 128, 128, 56, 3, 2, 1, 1, false},
    {"1x1/64_256/56_b1", 1, 64, 256, 56, 1, 1, 0, 1, false},
    {"1x1/256_64/56_b1", 1, 256, 64, 56, 1, 1, 0, 1, false},
    {"1x1/1024_256/14_b1", 1, 1024, 256, 14, 1, 1, 0, 1, false},
    {"1x1/512_2048/7_b1", 1, 512, 2048, 7, 1, 1, 0, 1, false},
    {"7x7_stride2/3_64/224_b1", 1, 3, 64, 224, 7, 2, 3, 1, false},
    {"depthwise/32/112_b1", 1, 32, 32, 112, 3, 1, 1, 32, false},
    {"depthwise/128/56_b1", 1, 128, 128, 56, 3, 1, 1, 128, false},
    {"depthwise/512/14_b1", 1, 512, 512, 14, 3, 1, 1, 512, false},
    {"depthwise/512/14_b8", 8, 512, 512, 14, 3, 1, 1, 512, false},
    {"depthwise/1024/7_b1", 1, 1024, 1024, 7, 3, 1, 1, 1024, false},
    {"depthwise_stride2/64/112_b1", 1, 64, 64, 112, 3, 2, 1, 64, false},
    {"depthwise_stride2/128/56_b1", 1, 128, 128, 56, 3, 2, 1, 128, false},
    {"float64/3x3/64_64", 32, 64, 64, 32, 3, 1, 1, 1, false, true},
    {"float64/3x3/128_128/28_b1", 1, 128, 128, 28, 3, 1, 1, 1, false, true},
    {"float64/3x3/256_256/14_b8", 8, 256, 256, 14, 3, 1, 1, 1, false, true},
    {"float64/3x3/512_512/7_b8", 8, 512, 512, 7, 3, 1, 1, 1, false, true},
    {"float64/3x3_stride2/128_128/56_b1", 1, 128, 128, 56, 3, 2, 1, 1, false, true},
    {"float64/1x1/64_256/56_b1", 1, 64, 256, 56, 1, 1, 0, 1, false, true},
    {"float64/1x1/1024_256/14_b1", 1, 1024, 256, 14, 1, 1, 0, 1, false, true},
    {"float64/7x7_stride2/3_64/224_b1", 1, 3, 64, 224, 7, 2, 3, 1, false, true},
    {"float64/depthwise/128/56_b1", 1, 128, 128, 56, 3, 1, 1, 128, false, true},
    {"float64/transposed4x4_stride2/64_32", 8, 64, 32, 28, 4, 2, 1, 1, true, true},
};

/// Inputs of the layer rows: images [N, C, H, W], and rows of features.
inline constexpr std::int64_t image_shape[] = {32, 64, 32, 32};
inline constexpr std::int64_t feature_rows = 8192;
inline constexpr std::int64_t features = 768;

/// Rows of exponentials and norms: small ones, where a call's own time counts, and large ones.
inline constexpr std::int64_t softmax_sizes[][2] = {{1536, 128}, {4096, 1000}};
inline constexpr std::int64_t norm_sizes[][2] = {{128, 768}, {8192, 768}};
inline constexpr std::int64_t function_sizes[] = {128 * 3072, 1'000'000, large};

/// Attention over [batch, heads, length, width].
struct Attention {
    const char* name;
    std::int64_t batch, heads, length, width;
    bool causal;
    bool wide;  // float64
    std::vector<std::int64_t> shape() const { return {batch, heads, length, width}; }
    std::int64_t flops() const { return 4 * batch * heads * length * length * width / (causal ? 2 : 1); }
};
inline constexpr Attention attentions[] = {
    {"1x12x128x64", 1, 12, 128, 64, false, false},       {"8x12x128x64", 8, 12, 128, 64, false, false},
    {"16x4x64x64/causal", 16, 4, 64, 64, true, false},   {"1x8x1024x64", 1, 8, 1024, 64, false, false},
    {"1x8x1024x64/causal", 1, 8, 1024, 64, true, false}, {"8x12x128x64/float64", 8, 12, 128, 64, false, true},
};

/// Whole networks in inference: images [batch, 3, 224, 224], and encoder blocks [batch, 128, 768] of 12 heads.
inline constexpr std::int64_t inference_batches[] = {1, 8};
inline constexpr std::int64_t image_side = 224;
struct Stage {
    std::int64_t widening, channels, blocks, stride;
};
/// ResNet-18 (He and others, 2015): two blocks a stage.
inline constexpr Stage resnet_stages[] = {{1, 64, 2, 1}, {1, 128, 2, 2}, {1, 256, 2, 2}, {1, 512, 2, 2}};
/// MobileNet-v2 (Sandler and others, 2018).
inline constexpr Stage mobile_stages[] = {{1, 16, 1, 1}, {6, 24, 2, 2},  {6, 32, 3, 2}, {6, 64, 4, 2},
                                          {6, 96, 3, 1}, {6, 160, 3, 2}, {6, 320, 1, 1}};
struct Encoder {
    std::int64_t width, heads, inner, length;
};
inline constexpr Encoder encoder{768, 12, 3072, 128};

/// The training step of the demo's network: images [N, 1, 28, 28].
inline constexpr std::int64_t training_batch = 128;

/// The transformer block: [batch, length, width].
inline constexpr std::int64_t block_batch = 16;
inline constexpr std::int64_t block_length = 64;
inline constexpr std::int64_t block_width = 256;
inline constexpr int block_heads = 4;

/// Operations in a chain of one element, which is recorded and walked back.
inline constexpr int chain_length = 100;

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

/// Fractions in no order, the same ones in every program.
inline void shuffle(float* values, std::int64_t n) {
    std::uint32_t state = 1;
    for (std::int64_t i = 0; i < n; ++i) {
        state = state * 1664525U + 1013904223U;
        values[i] = static_cast<float>(state >> 8) * 0x1p-24F;
    }
}

inline int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
