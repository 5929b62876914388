#include "hardware/cpu/nn/cpu_losses.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain_exponentials = 1 << 12;

template <typename Row>
void for_each_row(std::int64_t rows, std::int64_t classes, const Row& row) {
    const std::int64_t grain = std::max<std::int64_t>(2, grain_exponentials / classes);
    parallel_for(rows, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            row(i);
        }
    });
}

template <typename T>
T log_sum_exp(const T* x, std::int64_t n, T highest) {
    T sum = 0;
    for (std::int64_t c = 0; c < n; ++c) {
        sum += std::exp(x[c] - highest);
    }
    return highest + std::log(sum);
}

}  // namespace

bool classes_in_range(const Tensor* indices, std::int64_t classes) {
    const auto* index = static_cast<const std::int64_t*>(indices->getRawData());
    return std::all_of(index, index + indices->Size(), [&](std::int64_t c) { return c >= 0 && c < classes; });
}

void soft_cross_entropy(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* loss) {
    const std::int64_t classes = prediction->Shape().back();
    const std::int64_t rows = prediction->Size() / classes;
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* logits = static_cast<const T*>(prediction->getRawData());
        std::vector<double> row_loss(static_cast<std::size_t>(rows));
        for_each_row(rows, classes, [&](std::int64_t row) {
            const T* x = logits + row * classes;
            const T all = log_sum_exp(x, classes, *std::max_element(x, x + classes));
            double sum = 0;
            if (has_indices) {
                sum = all - x[static_cast<const std::int64_t*>(target->getRawData())[row]];
            } else {
                const T* weight = static_cast<const T*>(target->getRawData()) + row * classes;
                for (std::int64_t c = 0; c < classes; ++c) {
                    // A class of no weight counts nothing, not 0 times infinity.
                    sum += weight[c] == T(0) ? 0.0 : static_cast<double>(weight[c]) * (all - x[c]);
                }
            }
            row_loss[static_cast<std::size_t>(row)] = sum;
        });
        double sum = 0;
        for (const double value : row_loss) {
            sum += value;
        }
        *static_cast<T*>(loss->getRawData()) = static_cast<T>(sum / static_cast<double>(rows));
    });
}

void soft_cross_entropy_grad(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* gradient) {
    const std::int64_t classes = prediction->Shape().back();
    const std::int64_t rows = prediction->Size() / classes;
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* logits = static_cast<const T*>(prediction->getRawData());
        T* result = static_cast<T*>(gradient->getRawData());
        const T scale = T(1) / static_cast<T>(rows);
        for_each_row(rows, classes, [&](std::int64_t row) {
            const T* x = logits + row * classes;
            T* g = result + row * classes;
            const T highest = *std::max_element(x, x + classes);
            T sum = 0;
            for (std::int64_t c = 0; c < classes; ++c) {
                g[c] = std::exp(x[c] - highest);
                sum += g[c];
            }
            if (has_indices) {
                for (std::int64_t c = 0; c < classes; ++c) {
                    g[c] = g[c] / sum * scale;
                }
                g[static_cast<const std::int64_t*>(target->getRawData())[row]] -= scale;
                return;
            }
            const T* weight = static_cast<const T*>(target->getRawData()) + row * classes;
            T total = 0;
            for (std::int64_t c = 0; c < classes; ++c) {
                total += weight[c];
            }
            for (std::int64_t c = 0; c < classes; ++c) {
                g[c] = (g[c] / sum * total - weight[c]) * scale;
            }
        });
    });
}

}  // namespace ornik::device::cpu
