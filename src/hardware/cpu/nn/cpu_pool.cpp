// Windows are worked on tap by tap: a tap is one position of the window, and its elements for a whole row of
// outputs lie a stride apart, so that the loops run along rows.
#include "hardware/cpu/nn/cpu_pool.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <type_traits>
#include <vector>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t taps_grain = 1 << 15;  // taps worth a second thread
constexpr std::int64_t narrow_output = 8;     // Below, a row is too short to loop along.

struct Range {
    std::int64_t begin, end;
};

std::int64_t ceil_div(std::int64_t a, std::int64_t b) { return (a + b - 1) / b; }

// What a window holds at most, inside the input.
std::int64_t longest_window(const PoolAxis& axis) { return std::min(axis.kernel, axis.in); }

// The window's positions that lie inside the input.
Range taps_inside(const PoolAxis& axis, std::int64_t output) {
    const std::int64_t first = output * axis.stride - axis.begin;
    return {std::max<std::int64_t>(0, -first), std::min(axis.kernel, axis.in - first)};
}

// The outputs for which one tap lies inside the input.
Range outputs_inside(const PoolAxis& axis, std::int64_t tap) {
    const std::int64_t offset = tap - axis.begin;
    const std::int64_t last = axis.in - 1 - offset;
    return {ceil_div(std::max<std::int64_t>(0, -offset), axis.stride),
            last < 0 ? 0 : std::min(axis.out, last / axis.stride + 1)};
}

// The taps that lie inside the input for any output.
Range taps_used(const PoolAxis& axis) {
    return {std::max<std::int64_t>(0, axis.begin - (axis.out - 1) * axis.stride),
            std::min(axis.kernel, axis.in + axis.begin)};
}

// The outputs whose windows hold one input position.
Range outputs_over(const PoolAxis& axis, std::int64_t input) {
    const std::int64_t last = input + axis.begin;
    return {ceil_div(std::max<std::int64_t>(0, last - axis.kernel + 1), axis.stride),
            std::min(axis.out, last / axis.stride + 1)};
}

// Calls body(stride) with the stride as a compile-time constant where that helps to vectorise.
template <typename Body>
void with_stride(std::int64_t stride, const Body& body) {
    if (stride == 1) {
        body(std::integral_constant<std::int64_t, 1>{});
    } else if (stride == 2) {
        body(std::integral_constant<std::int64_t, 2>{});
    } else {
        body(stride);
    }
}

// Calls row(plane, row) for every row of the planes, in parallel; a row costs so many taps.
template <typename Row>
void for_each_row(std::int64_t planes, std::int64_t rows, std::int64_t taps, const Row& row) {
    parallel_for(planes * rows, 1, std::max<std::int64_t>(2, taps_grain / taps), [&](auto begin, auto end) {
        for (std::int64_t i = begin; i < end; ++i) {
            row(i / rows, i % rows);
        }
    });
}

template <typename T>
bool beats(T value, T highest) {
    return (value > highest) | (value != value);
}

// One tap of a row of outputs: `values` points at the tap of output 0, which has that position.
template <typename T, typename Stride>
void max_tap(const T* values, std::uint32_t position, Range outputs, Stride stride, T* highest, std::int32_t* at) {
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t o = outputs.begin; o < outputs.end; ++o) {
        const T value = values[o * stride];
        const bool better = beats(value, highest[o]);
        highest[o] = better ? value : highest[o];
        at[o] = better ? static_cast<std::int32_t>(position + static_cast<std::uint32_t>(o * stride)) : at[o];
    }
}

template <typename T>
void max_window(const T* plane, const PoolPlan& plan, std::int64_t y, Range taps_y, T* highest, std::int32_t* at) {
    for (std::int64_t x = 0; x < plan.cols.out; ++x) {
        const Range taps_x = taps_inside(plan.cols, x);
        const std::int64_t corner =
            (y * plan.rows.stride - plan.rows.begin) * plan.cols.in + x * plan.cols.stride - plan.cols.begin;
        std::int64_t best = corner + taps_y.begin * plan.cols.in + taps_x.begin;
        for (std::int64_t i = taps_y.begin; i < taps_y.end; ++i) {
            for (std::int64_t j = taps_x.begin; j < taps_x.end; ++j) {
                const std::int64_t here = corner + i * plan.cols.in + j;
                best = beats(plane[here], plane[best]) ? here : best;
            }
        }
        highest[x] = plane[best];
        at[x] = static_cast<std::int32_t>(best);
    }
}

template <typename T, typename Stride>
void max_row(const T* plane, const PoolPlan& plan, std::int64_t y, Range taps_y, Stride stride, T* highest,
             std::int32_t* at) {
    const PoolAxis& cols = plan.cols;
    const Range used = taps_used(cols);
    const std::int64_t first_row = y * plan.rows.stride - plan.rows.begin;
    const auto row_start = static_cast<std::int32_t>((first_row + taps_y.begin) * cols.in);
    for (std::int64_t x = 0; x < cols.out; ++x) {
        highest[x] = -std::numeric_limits<T>::infinity();
        at[x] = row_start + static_cast<std::int32_t>(std::max<std::int64_t>(0, x * stride - cols.begin));
    }
    for (std::int64_t i = taps_y.begin; i < taps_y.end; ++i) {
        for (std::int64_t j = used.begin; j < used.end; ++j) {
            const std::int64_t start = (first_row + i) * cols.in + j - cols.begin;
            max_tap(plane + start, static_cast<std::uint32_t>(start), outputs_inside(cols, j), stride, highest, at);
        }
    }
}

}  // namespace

void max_pool(const Tensor* in, const PoolPlan& plan, Tensor* positions, Tensor* out) {
    const std::int64_t taps = longest_window(plan.rows) * longest_window(plan.cols) * plan.cols.out;
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        for_each_row(plan.planes, plan.rows.out, taps, [&](std::int64_t plane, std::int64_t y) {
            const T* x = static_cast<const T*>(in->getRawData()) + plane * plan.rows.in * plan.cols.in;
            const std::int64_t first = (plane * plan.rows.out + y) * plan.cols.out;
            T* highest = static_cast<T*>(out->getRawData()) + first;
            auto* at = static_cast<std::int32_t*>(positions->getRawData()) + first;
            const Range taps_y = taps_inside(plan.rows, y);
            if (plan.cols.out < narrow_output) {
                max_window(x, plan, y, taps_y, highest, at);
            } else {
                with_stride(plan.cols.stride, [&](auto s) { max_row(x, plan, y, taps_y, s, highest, at); });
            }
        });
    });
}

bool max_pool_grad(const Tensor* gradient, const Tensor* positions, const PoolPlan& plan, Tensor* out) {
    const std::int64_t in_size = plan.rows.in * plan.cols.in;
    const std::int64_t out_size = plan.rows.out * plan.cols.out;
    std::atomic<bool> inside = true;
    dispatch(FloatTypes{}, gradient->Dtype(), [&]<typename T>() {
        for_each_row(plan.planes, 1, in_size + out_size, [&](std::int64_t plane, std::int64_t /*row*/) {
            const T* g = static_cast<const T*>(gradient->getRawData()) + plane * out_size;
            const auto* at = static_cast<const std::int32_t*>(positions->getRawData()) + plane * out_size;
            T* x = static_cast<T*>(out->getRawData()) + plane * in_size;
            std::fill_n(x, in_size, T(0));
            for (std::int64_t i = 0; i < out_size; ++i) {
                const auto position = static_cast<std::uint32_t>(at[i]);  // Negative ones are large numbers.
                if (position >= static_cast<std::uint32_t>(in_size)) {
                    inside = false;
                    return;
                }
                x[position] += g[i];
            }
        });
    });
    return inside;
}

void average_pool(const Tensor* in, const PoolPlan& plan, Tensor* out) {
    const PoolAxis& rows = plan.rows;
    const PoolAxis& cols = plan.cols;
    const Range used = taps_used(cols);
    const std::int64_t taps = longest_window(rows) * cols.in + longest_window(cols) * cols.out;
    dispatch(FloatOrComplexTypes{}, in->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        const Real share = Real(1) / static_cast<Real>(rows.kernel * cols.kernel);
        for_each_row(plan.planes, rows.out, taps, [&](std::int64_t plane, std::int64_t y) {
            const T* x = static_cast<const T*>(in->getRawData()) + plane * rows.in * cols.in;
            T* result = static_cast<T*>(out->getRawData()) + (plane * rows.out + y) * cols.out;
            // First down the columns of the window's rows, which are contiguous, then across.
            thread_local std::vector<T> sums;
            sums.assign(static_cast<std::size_t>(cols.in), T(0));
            T* const sum = sums.data();
            const Range taps_y = taps_inside(rows, y);
            for (std::int64_t i = taps_y.begin; i < taps_y.end; ++i) {
                const T* row = x + (y * rows.stride - rows.begin + i) * cols.in;
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t j = 0; j < cols.in; ++j) {
                    sum[j] = sum[j] + row[j];
                }
            }
            std::fill_n(result, cols.out, T(0));
            with_stride(cols.stride, [&](auto stride) {
                for (std::int64_t j = used.begin; j < used.end; ++j) {
                    const Range outputs = outputs_inside(cols, j);
                    const std::int64_t offset = j - cols.begin;
                    ORNIK_INDEPENDENT_ITERATIONS
                    for (std::int64_t o = outputs.begin; o < outputs.end; ++o) {
                        result[o] = result[o] + sum[o * stride + offset];
                    }
                }
            });
            for (std::int64_t o = 0; o < cols.out; ++o) {
                result[o] = element::scale(share, result[o]);
            }
        });
    });
}

void average_pool_grad(const Tensor* gradient, const PoolPlan& plan, Tensor* out) {
    const PoolAxis& rows = plan.rows;
    const PoolAxis& cols = plan.cols;
    const Range used = taps_used(cols);
    const std::int64_t taps = cols.in + (rows.kernel / rows.stride + 1 + longest_window(cols)) * cols.out;
    dispatch(FloatOrComplexTypes{}, gradient->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        const Real share = Real(1) / static_cast<Real>(rows.kernel * cols.kernel);
        for_each_row(plan.planes, rows.in, taps, [&](std::int64_t plane, std::int64_t y) {
            const T* g = static_cast<const T*>(gradient->getRawData()) + plane * rows.out * cols.out;
            T* result = static_cast<T*>(out->getRawData()) + (plane * rows.in + y) * cols.in;
            thread_local std::vector<T> sums;
            sums.assign(static_cast<std::size_t>(cols.out), T(0));
            T* const sum = sums.data();
            const Range windows = outputs_over(rows, y);
            for (std::int64_t i = windows.begin; i < windows.end; ++i) {
                const T* row = g + i * cols.out;
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t o = 0; o < cols.out; ++o) {
                    sum[o] = sum[o] + element::scale(share, row[o]);
                }
            }
            std::fill_n(result, cols.in, T(0));
            with_stride(cols.stride, [&](auto stride) {
                for (std::int64_t j = used.begin; j < used.end; ++j) {
                    const Range outputs = outputs_inside(cols, j);
                    const std::int64_t offset = j - cols.begin;
                    ORNIK_INDEPENDENT_ITERATIONS
                    for (std::int64_t o = outputs.begin; o < outputs.end; ++o) {
                        result[o * stride + offset] = result[o * stride + offset] + sum[o];
                    }
                }
            });
        });
    });
}

}  // namespace ornik::device::cpu
