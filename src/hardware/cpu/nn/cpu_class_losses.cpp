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

// A loss as rows of one element type see it.
template <typename T>
struct Rows {
    explicit Rows(const ClassLoss& loss)
        : classes(loss.prediction->Shape().back()),
          count(loss.prediction->Size() / classes),
          prediction(data_of<T>(loss.prediction)),
          index(loss.has_indices ? data_of<std::int64_t>(loss.target) : nullptr),
          target(loss.has_indices ? nullptr : data_of<T>(loss.target)),
          weight(loss.weight == nullptr ? nullptr : data_of<T>(loss.weight)),
          ignored(loss.ignored),
          kept(static_cast<T>(1 - loss.smoothing)),
          spread(static_cast<T>(loss.smoothing / static_cast<double>(classes))) {}

    const T* row(std::int64_t i) const { return prediction + i * classes; }
    bool is_ignored(std::int64_t i) const { return ignored && index[i] == *ignored; }
    T weight_of(std::int64_t c) const { return weight == nullptr ? T(1) : weight[c]; }
    bool is_smoothed() const { return spread != T(0); }
    // What class c of row i counts, without indices.
    T share(std::int64_t i, std::int64_t c) const {
        const T t = target[i * classes + c];
        return weight_of(c) * (is_smoothed() ? kept * t + spread : t);
    }

    // What a mean divides by.
    double members() const {
        if (index == nullptr || (weight == nullptr && !ignored)) {
            return static_cast<double>(count);
        }
        return sum_of_terms(count, chunk_indices,
                            [&](std::int64_t i) { return is_ignored(i) ? T(0) : weight_of(index[i]); });
    }

    std::int64_t classes;
    std::int64_t count;
    const T* prediction;
    const std::int64_t* index;
    const T* target;
    const T* weight;
    std::optional<std::int64_t> ignored;
    T kept;
    T spread;
};

// The terms reduced, or each to its place.
template <typename T, typename Term>
void reduce_terms(const Rows<T>& rows, nn::Reduction reduction, std::int64_t chunk, Tensor* out, const Term& term) {
    if (reduction == nn::Reduction::none) {
        parallel_for(rows.count, 1, 2 * chunk, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i) {
                data_of<T>(out)[i] = static_cast<T>(term(i));
            }
        });
        return;
    }
    const double sum = sum_of_terms(rows.count, chunk, term);
    *data_of<T>(out) = static_cast<T>(reduction == nn::Reduction::mean ? sum / rows.members() : sum);
}

// scale(row) is what its gradient is multiplied by.
template <typename T>
auto row_scale(const Rows<T>& rows, nn::Reduction reduction, const Tensor* upstream) {
    const T* gradient = upstream == nullptr ? nullptr : data_of<T>(upstream);
    const bool each = reduction == nn::Reduction::none;
    const T share = reduction == nn::Reduction::mean ? T(1) / static_cast<T>(rows.members()) : T(1);
    const T common = each || gradient == nullptr ? share : *gradient * share;
    return [=](std::int64_t i) { return each && gradient != nullptr ? gradient[i] : common; };
}

// -log softmax(x)[c] = logarithm + (highest - x[c])
template <typename T>
struct LogSum {
    LogSum(const T* x, std::int64_t classes)
        : highest(row::highest(x, classes)), logarithm(row::log_sum_exp(x, classes, highest)) {}
    T cost(T x) const { return logarithm + (highest - x); }
    T highest;
    T logarithm;
};

// A class of no weight counts nothing, not 0 times infinity.
template <typename T>
double weighted(T weight, T cost) {
    return weight == T(0) ? 0.0 : static_cast<double>(weight * cost);
}

template <typename T>
double entropy_of_row(const Rows<T>& rows, std::int64_t i) {
    if (rows.index != nullptr && rows.is_ignored(i)) {
        return 0;
    }
    const T* x = rows.row(i);
    const LogSum<T> log_sum(x, rows.classes);
    double sum = 0;
    if (rows.index == nullptr) {
        for (std::int64_t c = 0; c < rows.classes; ++c) {
            sum += weighted(rows.share(i, c), log_sum.cost(x[c]));
        }
        return sum;
    }
    const std::int64_t wanted = rows.index[i];
    const T cost = log_sum.cost(x[wanted]);
    if (rows.weight == nullptr && !rows.is_smoothed()) {
        return static_cast<double>(cost);
    }
    if (rows.is_smoothed()) {
        for (std::int64_t c = 0; c < rows.classes; ++c) {
            sum += weighted(rows.spread * rows.weight_of(c), log_sum.cost(x[c]));
        }
    }
    return sum + weighted(rows.kept * rows.weight_of(wanted), cost);
}

// The gradient is p total - (what each class counts), times the scale.
template <typename T>
void entropy_gradient_of_row(const Rows<T>& rows, std::int64_t i, T scale, T* g) {
    const std::int64_t classes = rows.classes;
    if (rows.index != nullptr && rows.is_ignored(i)) {
        std::fill_n(g, classes, T(0));
        return;
    }
    const T* x = rows.row(i);
    const T factor = scale / row::powers_into(x, classes, row::highest(x, classes), g);
    T total = 0;
    if (rows.index == nullptr) {
        for (std::int64_t c = 0; c < classes; ++c) {
            total += rows.share(i, c);
        }
        for (std::int64_t c = 0; c < classes; ++c) {
            g[c] = g[c] * (factor * total) - rows.share(i, c) * scale;
        }
        return;
    }
    const std::int64_t wanted = rows.index[i];
    const T counted = rows.kept * rows.weight_of(wanted);
    if (rows.is_smoothed()) {
        for (std::int64_t c = 0; c < classes; ++c) {
            total += rows.spread * rows.weight_of(c);
        }
    }
    total += counted;
    for (std::int64_t c = 0; c < classes; ++c) {
        g[c] *= factor * total;
    }
    if (rows.is_smoothed()) {
        for (std::int64_t c = 0; c < classes; ++c) {
            g[c] -= rows.spread * rows.weight_of(c) * scale;
        }
    }
    g[wanted] -= counted * scale;
}

}  // namespace

bool classes_in_range(const Tensor* indices, std::int64_t classes, std::optional<std::int64_t> ignored) {
    const auto* index = data_of<std::int64_t>(indices);
    return sum_of_terms(indices->Size(), chunk_indices, [&](std::int64_t i) {
               return (index[i] < 0 || index[i] >= classes) && (!ignored || index[i] != *ignored) ? 1 : 0;
           }) == 0;
}

void cross_entropy(const ClassLoss& loss, Tensor* out) {
    dispatch(FloatTypes{}, loss.prediction->Dtype(), [&]<typename T>() {
        const Rows<T> rows(loss);
        reduce_terms(rows, loss.reduction, rows_per_chunk(rows.classes), out,
                     [&](std::int64_t i) { return entropy_of_row(rows, i); });
    });
}

void cross_entropy_grad(const ClassLoss& loss, const Tensor* upstream, Tensor* prediction_gradient,
                        Tensor* target_gradient) {
    dispatch(FloatTypes{}, loss.prediction->Dtype(), [&]<typename T>() {
        const Rows<T> rows(loss);
        const auto scale = row_scale(rows, loss.reduction, upstream);
        for_each_row(rows.count, rows.classes, [&](std::int64_t i) {
            if (prediction_gradient != nullptr) {
                entropy_gradient_of_row(rows, i, scale(i), data_of<T>(prediction_gradient) + i * rows.classes);
            }
            if (target_gradient != nullptr) {
                const LogSum<T> log_sum(rows.row(i), rows.classes);
                T* g = data_of<T>(target_gradient) + i * rows.classes;
                for (std::int64_t c = 0; c < rows.classes; ++c) {
                    g[c] = scale(i) * (rows.kept * rows.weight_of(c)) * log_sum.cost(rows.row(i)[c]);
                }
            }
        });
    });
}

void nll_loss(const ClassLoss& loss, Tensor* out) {
    dispatch(FloatTypes{}, loss.prediction->Dtype(), [&]<typename T>() {
        const Rows<T> rows(loss);
        reduce_terms(rows, loss.reduction, chunk_indices, out, [&](std::int64_t i) {
            return rows.is_ignored(i) ? 0.0 : weighted(rows.weight_of(rows.index[i]), -rows.row(i)[rows.index[i]]);
        });
    });
}

void nll_loss_grad(const ClassLoss& loss, const Tensor* upstream, Tensor* gradient) {
    dispatch(FloatTypes{}, loss.prediction->Dtype(), [&]<typename T>() {
        const Rows<T> rows(loss);
        const auto scale = row_scale(rows, loss.reduction, upstream);
        for_each_row(rows.count, rows.classes, [&](std::int64_t i) {
            T* g = data_of<T>(gradient) + i * rows.classes;
            std::fill_n(g, rows.classes, T(0));
            if (!rows.is_ignored(i)) {
                g[rows.index[i]] = -(rows.weight_of(rows.index[i]) * scale(i));
            }
        });
    });
}

}  // namespace ornik::device::cpu
