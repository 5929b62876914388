#include "hardware/cpu/nn/cpu_softmax.h"

#include <algorithm>
#include <type_traits>

#include "../axis/cpu_axis_runs.h"
#include "descriptors/element_load.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/row_exp.h"
#include "hardware/parallel.h"
#include "row_writer.h"

namespace ornik::device::cpu {

namespace {

// The work per element, as AxisRuns counts it.
constexpr std::int64_t exponential_cost = 4;
constexpr std::int64_t product_cost = 1;
constexpr std::int64_t grain_work = 1 << 14;

// Adjacent rows of n elements each. Where the operands together are more than the caches hold, the result is written
// past them: they keep the more of what is read.
template <typename T, typename Row>
void for_each_adjacent_row(const T* first, const T* second, T* out, std::int64_t rows, std::int64_t n,
                           std::int64_t cost, const Row& row) {
    const std::int64_t bytes = rows * n * static_cast<std::int64_t>(sizeof(T));
    const std::int64_t touched = second == first ? 2 * bytes : 3 * bytes;
    const bool past_caches = touched >= streaming_bytes && out != first && out != second;
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work / (n * cost));
    parallel_for(rows, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        RowWriter<T> writer(out, n, past_caches);
        for (std::int64_t i = begin; i < end; ++i) {
            row(first + i * n, second + i * n, writer.row(i), n);
            writer.done(i);
        }
    });
}

// Runs of `first` (n elements each) with those of the others; row(first, second, out, n). Without `second` the
// first stands for it.
template <typename Row>
void for_each_row(const Tensor* first, const Tensor* second, Tensor* out, int axis, std::int64_t cost, const Row& row) {
    const auto place = static_cast<std::size_t>(axis);
    const std::int64_t n = first->Shape()[place];
    if (n == 0) {
        return;
    }
    const bool adjacent = place + 1 == first->Shape().size() && first->is_contiguous() && out->is_contiguous() &&
                          (second == nullptr || second->is_contiguous());
    dispatch(FloatTypes{}, first->Dtype(), [&]<typename T>() {
        if (adjacent) {
            const Tensor* other = second != nullptr ? second : first;
            for_each_adjacent_row(static_cast<const T*>(first->getRawData()),
                                  static_cast<const T*>(other->getRawData()), static_cast<T*>(out->getRawData()),
                                  out->Size() / n, n, cost, row);
            return;
        }
        AxisRuns runs(axis);
        runs.add_input(first);
        if (second != nullptr) {
            runs.add_input(second);
        }
        runs.add_output(out);
        runs.for_each(cost, [&](char* const* run) {
            char* const* others = second != nullptr ? run + 1 : run;
            row(as<const T>(run[0]), as<const T>(others[0]), as<T>(others[1]), n);
        });
    });
}

}  // namespace

void softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, exponential_cost, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        row::softmax(x, n, row::highest(x, n), y);
    });
}

void softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, product_cost,
                 []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
                     const T sum = row::dot(output, gradient, n);
                     ORNIK_INDEPENDENT_ITERATIONS
                     for (std::int64_t i = 0; i < n; ++i) {
                         result[i] = output[i] * (gradient[i] - sum);
                     }
                 });
}

void log_softmax(const Tensor* in, Tensor* out, int axis) {
    for_each_row(in, nullptr, out, axis, exponential_cost, []<typename T>(const T* x, const T*, T* y, std::int64_t n) {
        const T highest = row::highest(x, n);
        const T log_sum = row::log_sum_exp(x, n, highest);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            y[i] = (x[i] - highest) - log_sum;
        }
    });
}

void log_softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    for_each_row(y, g, out, axis, exponential_cost,
                 []<typename T>(const T* output, const T* gradient, T* result, std::int64_t n) {
                     const T sum = row::sum(gradient, n);
                     std::int64_t i = 0;
                     if constexpr (std::is_same_v<T, float>) {
                         using V = vec::Vector<float>;
                         for (; i + vec::lanes<float> <= n; i += vec::lanes<float>) {
                             vec::store(vec::load<V>(gradient + i) - elementary::exp(vec::load<V>(output + i)) * sum,
                                        result + i);
                         }
                     }
                     ORNIK_INDEPENDENT_ITERATIONS
                     for (; i < n; ++i) {
                         result[i] = gradient[i] - elementary::exp(output[i]) * sum;
                     }
                 });
}

}  // namespace ornik::device::cpu
