// cpu_class_losses.cpp: losses over rows of classes.
#include <cmath>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_losses.h"
#include "hardware/cpu/nn/row_exp.h"
#include "loss_sums.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t chunk_indices = 1 << 14;
constexpr std::int64_t chunk_classes = 1 << 11;  // exponentials worth a second thread

std::int64_t rows_per_chunk(std::int64_t classes) { return std::max<std::int64_t>(1, chunk_classes / classes); }

template <typename Row>
void for_each_row(std::int64_t rows, std::int64_t classes, const Row& visit) {
    parallel_for(rows, 1, 2 * rows_per_chunk(classes), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            visit(i);
        }
    });
}

// -sum over c of t[c] log softmax(x)[c], given log of the sum of exp(x - highest).
template <typename T>
double weighted_loss(const T* x, const T* weight, std::int64_t classes, T highest, T logarithm) {
    double sum = 0;
    for (std::int64_t c = 0; c < classes; ++c) {
        // A class of no weight counts nothing, not 0 times infinity.
        sum += weight[c] == T(0) ? 0.0 : static_cast<double>(weight[c] * (logarithm + (highest - x[c])));
    }
    return sum;
}

}  // namespace

bool classes_in_range(const Tensor* indices, std::int64_t classes) {
    const auto* index = data_of<std::int64_t>(indices);
    return sum_of_terms(indices->Size(), chunk_indices,
                        [&](std::int64_t i) { return index[i] < 0 || index[i] >= classes ? 1 : 0; }) == 0;
}

void soft_cross_entropy(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* loss) {
    const std::int64_t classes = prediction->Shape().back();
    const std::int64_t rows = prediction->Size() / classes;
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* logits = data_of<T>(prediction);
        const double sum = sum_of_terms(rows, rows_per_chunk(classes), [&](std::int64_t i) {
            const T* x = logits + i * classes;
            const T highest = row::highest(x, classes);
            const T logarithm = std::log(row::sum_exp(x, classes, highest));
            if (has_indices) {
                return static_cast<double>(logarithm + (highest - x[data_of<std::int64_t>(target)[i]]));
            }
            return weighted_loss(x, data_of<T>(target) + i * classes, classes, highest, logarithm);
        });
        *data_of<T>(loss) = static_cast<T>(sum / static_cast<double>(rows));
    });
}

void soft_cross_entropy_grad(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* gradient) {
    const std::int64_t classes = prediction->Shape().back();
    const std::int64_t rows = prediction->Size() / classes;
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T scale = T(1) / static_cast<T>(rows);
        for_each_row(rows, classes, [&](std::int64_t i) {
            const T* x = data_of<T>(prediction) + i * classes;
            T* g = data_of<T>(gradient) + i * classes;
            const T factor = scale / row::exp_into(x, classes, row::highest(x, classes), g);
            if (has_indices) {
                for (std::int64_t c = 0; c < classes; ++c) {
                    g[c] *= factor;
                }
                g[data_of<std::int64_t>(target)[i]] -= scale;
                return;
            }
            const T* weight = data_of<T>(target) + i * classes;
            T total = 0;
            for (std::int64_t c = 0; c < classes; ++c) {
                total += weight[c];
            }
            for (std::int64_t c = 0; c < classes; ++c) {
                g[c] = g[c] * (factor * total) - weight[c] * scale;
            }
        });
    });
}

void nll_loss(const Tensor* prediction, const Tensor* indices, Tensor* loss) {
    const std::int64_t classes = prediction->Shape().back();
    const std::int64_t rows = indices->Size();
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* x = data_of<T>(prediction);
        const auto* index = data_of<std::int64_t>(indices);
        const double sum =
            sum_of_terms(rows, chunk_indices, [&](std::int64_t i) { return -x[i * classes + index[i]]; });
        *data_of<T>(loss) = static_cast<T>(sum / static_cast<double>(rows));
    });
}

void nll_loss_grad(const Tensor* indices, Tensor* gradient) {
    const std::int64_t rows = indices->Size();
    const std::int64_t classes = gradient->Size() / rows;
    dispatch(FloatTypes{}, gradient->Dtype(), [&]<typename T>() {
        const auto* index = data_of<std::int64_t>(indices);
        for_each_row(rows, classes, [&](std::int64_t i) {
            T* g = data_of<T>(gradient) + i * classes;
            std::fill_n(g, classes, T(0));
            g[index[i]] = T(-1) / static_cast<T>(rows);
        });
    });
}

}  // namespace ornik::device::cpu
