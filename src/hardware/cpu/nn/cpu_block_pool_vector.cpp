// cpu_block_pool_vector.cpp: pools of blocked images. A vector holds the channels of one position.
#include <algorithm>
#include <limits>

#include "block_rows.h"
#include "conv_ends.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_blocks.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t taps_grain = 1 << 14;  // vectors worth a second thread

struct Range {
    std::int64_t begin, end;
};

// Input positions of a window.
Range window(const PoolAxis& axis, std::int64_t output) {
    const std::int64_t first = output * axis.stride - axis.begin;
    return {std::max<std::int64_t>(0, first), std::min(axis.in, first + axis.kernel)};
}

// Calls row(group, row of the output) for all, in parallel.
template <typename Row>
void for_each_row(const PoolPlan& plan, const Row& row) {
    const std::int64_t taps = std::min(plan.rows.kernel, plan.rows.in) * std::max(plan.cols.in, plan.cols.out);
    const BlockRows rows(1, plan.planes, plan.rows.out, plan.cols.out);
    parallel_for(rows.count(), 1, std::max<std::int64_t>(2, taps_grain / taps),
                 [&](std::int64_t begin, std::int64_t end) {
                     rows.visit(begin, end, [&](std::int64_t group, std::int64_t y, std::int64_t last) {
                         for (; y < last; ++y) {
                             row(group, y);
                         }
                     });
                 });
}

}  // namespace

void max_pool_blocks(std::int64_t dtype, const PoolPlan& plan, const void* in, void* out) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() {
        using V = vec::Vector<T>;
        constexpr std::int64_t width = vec::lanes<T>;
        const PoolAxis& cols = plan.cols;
        for_each_row(plan, [&](std::int64_t group, std::int64_t y) {
            const T* plane = static_cast<const T*>(in) + group * plan.rows.in * cols.in * width;
            T* to = static_cast<T*>(out) + (group * plan.rows.out + y) * cols.out * width;
            const Range rows = window(plan.rows, y);
            for (std::int64_t x = 0; x < cols.out; ++x, to += width) {
                const Range taps = window(cols, x);
                V highest = V{} - std::numeric_limits<T>::infinity();
                for (std::int64_t i = rows.begin; i < rows.end; ++i) {
                    const T* row = plane + i * cols.in * width;
                    for (std::int64_t j = taps.begin; j < taps.end; ++j) {
                        const V value = vec::load<V>(row + j * width);
                        highest = chosen((value > highest) | (value != value), value, highest);
                    }
                }
                vec::store(highest, to);
            }
        });
    });
}

void average_pool_blocks(std::int64_t dtype, const PoolPlan& plan, const void* in, void* out) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() {
        using V = vec::Vector<T>;
        constexpr std::int64_t width = vec::lanes<T>;
        const PoolAxis& cols = plan.cols;
        const T share = T(1) / static_cast<T>(plan.rows.kernel * cols.kernel);
        for_each_row(plan, [&](std::int64_t group, std::int64_t y) {
            const T* plane = static_cast<const T*>(in) + group * plan.rows.in * cols.in * width;
            T* to = static_cast<T*>(out) + (group * plan.rows.out + y) * cols.out * width;
            const Range rows = window(plan.rows, y);
            // First down the columns of the window's rows, then across, as planes are averaged.
            const Scratch<T> sums(cols.in * width);
            for (std::int64_t j = 0; j < cols.in; ++j) {
                V sum{};
                for (std::int64_t i = rows.begin; i < rows.end; ++i) {
                    sum = sum + vec::load<V>(plane + (i * cols.in + j) * width);
                }
                vec::store(sum, sums.get() + j * width);
            }
            for (std::int64_t x = 0; x < cols.out; ++x, to += width) {
                const Range taps = window(cols, x);
                V sum{};
                for (std::int64_t j = taps.begin; j < taps.end; ++j) {
                    sum = sum + vec::load<V>(sums.get() + j * width);
                }
                vec::store(share * sum, to);
            }
        });
    });
}

}  // namespace ornik::device::cpu
