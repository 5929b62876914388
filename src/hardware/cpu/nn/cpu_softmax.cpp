#include "hardware/cpu/nn/cpu_softmax.h"

#include <cmath>

#include "../axis/cpu_axis_runs.h"
#include "../reduce/cpu_reduce_extreme.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/cpu_exp.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t exponential_cost = 4;

template <typename T>
struct Plus {
    static T lift(T item) { return item; }
    static T join(T a, T b) { return a + b; }
};

// Chunks of a fixed size, added pairwise.
template <typename T>
T row_sum(const T* row, std::int64_t n) {
    if (n <= reduce_chunk) {
        return Fold<T, T, Plus<T>>::row(row, n);
    }
    const std::int64_t half = reduce_detail::parts(reduce_detail::parts(n, reduce_chunk), 2) * reduce_chunk;
    return row_sum(row, half) + row_sum(row + half, n - half);
}

// Runs of `first` (n elements each) with those of the others; row(first, second, out, n). Without `second` the
// first stands for it.
template <typename Row>
void for_each_row(const Tensor* first, const Tensor* second, Tensor* out, int axis, const Row& row) {
    const std::int64_t n = first->Shape()[static_cast<std::size_t>(axis)];
    if (n == 0) {
        return;
    }
    AxisRuns runs(axis);
    runs.add_input(first);
    if (second != nullptr) {
        runs.add_input(second);
    }
    runs.add_output(out);
    dispatch(FloatTypes{}, first->Dtype(), [&]<typename T>() {
        runs.for_each(exponential_cost, [&](char* const* run) {
            char* const* others = second != nullptr ? run + 1 : run;
            row(as<const T>(run[0]), as<const T>(others[0]), as<T>(others[1]), n);
        });
    });
}

}  // namespace

void softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        exp_shifted(x, ExtremeFold<T, true>::row(x, n), y, n);
        const T sum = row_sum(y, n);
        for (std::int64_t i = 0; i < n; ++i) {
            y[i] /= sum;
        }
    });
}

void softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
        for (std::int64_t i = 0; i < n; ++i) {
            result[i] = output[i] * gradient[i];
        }
        const T sum = row_sum(result, n);
        for (std::int64_t i = 0; i < n; ++i) {
            result[i] = output[i] * (gradient[i] - sum);
        }
    });
}

void log_softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        const T highest = ExtremeFold<T, true>::row(x, n);
        exp_shifted(x, highest, y, n);
        const T log_sum = std::log(row_sum(y, n));
        for (std::int64_t i = 0; i < n; ++i) {
            y[i] = (x[i] - highest) - log_sum;
        }
    });
}

void log_softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
        const T sum = row_sum(gradient, n);
        exp_shifted(output, T(0), result, n);
        for (std::int64_t i = 0; i < n; ++i) {
            result[i] = gradient[i] - result[i] * sum;
        }
    });
}

}  // namespace ornik::device::cpu
