#include "hardware/cpu/nn/cpu_softmax.h"

#include <algorithm>
#include <type_traits>

#include "../axis/cpu_axis_runs.h"
#include "descriptors/element_load.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/row_exp.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t exponential_cost = 4;
constexpr std::int64_t short_row = 4096;  // bytes

constexpr std::int64_t lead = 2048;  // bytes that pass while memory answers

// Brings near what mostly follows short rows: hardware has no time to notice. Longer ones it knows by itself.
void fetch_next_rows(const char* input, const char* other, const char* output, std::int64_t bytes) {
    if (bytes > short_row) {
        return;
    }
    const std::int64_t first = std::max(bytes, lead);
    for (std::int64_t at = first; at < first + bytes; at += 64) {
        vec::prefetch(input + at);
        if (other != input) {
            vec::prefetch(other + at);
        }
        vec::prefetch_for_writing(output + at);
    }
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
            fetch_next_rows(run[0], others[0], others[1], n * static_cast<std::int64_t>(sizeof(T)));
            row(as<const T>(run[0]), as<const T>(others[0]), as<T>(others[1]), n);
        });
    });
}

}  // namespace

void softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        row::softmax(x, n, row::highest(x, n), y);
    });
}

void softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
        const T sum = row::dot(output, gradient, n);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            result[i] = output[i] * (gradient[i] - sum);
        }
    });
}

void log_softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        const T highest = row::highest(x, n);
        const T log_sum = row::log_sum_exp(x, n, highest);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            y[i] = (x[i] - highest) - log_sum;
        }
    });
}

void log_softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
        const T sum = row::sum(gradient, n);
        std::int64_t i = 0;
        if constexpr (std::is_same_v<T, float>) {
            using V = vec::Vector<float>;
            for (; i + vec::lanes<float> <= n; i += vec::lanes<float>) {
                vec::store(vec::load<V>(gradient + i) - elementary::exp(vec::load<V>(output + i)) * sum, result + i);
            }
        }
        ORNIK_INDEPENDENT_ITERATIONS
        for (; i < n; ++i) {
            result[i] = gradient[i] - elementary::exp(output[i]) * sum;
        }
    });
}

}  // namespace ornik::device::cpu
