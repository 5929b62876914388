// cpu_losses.cpp: losses over elements.
#include "hardware/cpu/nn/cpu_losses.h"

#include <cmath>

#include "../elements/real_functions.h"
#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "loss_sums.h"

namespace ornik::device::cpu {

namespace {

using nn::ElementLoss;
using nn::Reduction;

constexpr std::int64_t chunk_cheap = 1 << 14;       // terms of a few operations
constexpr std::int64_t chunk_logarithms = 1 << 10;  // terms with logarithms

// log(0) counts as this much, so that a certain and wrong prediction costs much, but not infinitely much.
constexpr double least_logarithm = -100;
// Divisors of the gradient are at least this, for the same reason.
constexpr double least_divisor = 1e-12;

// A loss has its terms, what they cost, the derivatives by prediction and target over a common factor, and whether a
// third operand, the positive weight, takes part.
struct Plain {
    static constexpr std::int64_t chunk = chunk_cheap;
    static constexpr int factor = 1;
    static constexpr bool weighted = false;
};

template <typename T>
struct MeanSquare : Plain {
    static constexpr int factor = 2;
    double value(T x, T t) const {
        const double difference = static_cast<double>(x) - static_cast<double>(t);
        return difference * difference;
    }
    T by_prediction(T x, T t) const { return x - t; }
    T by_target(T x, T t) const { return t - x; }
};

// Losses of the difference alone: bent(d) is their derivative.
template <typename T, typename Loss>
struct OfDifference : Plain {
    T by_prediction(T x, T t) const { return static_cast<const Loss*>(this)->bent(x - t); }
    T by_target(T x, T t) const { return -by_prediction(x, t); }
};

// -1 or 1; 0 and NaN stay.
template <typename T>
T sign_of(T d) {
    return d > T(0) ? T(1) : d < T(0) ? T(-1) : d;
}

template <typename T>
struct Absolute : OfDifference<T, Absolute<T>> {
    T value(T x, T t) const { return std::abs(x - t); }
    T bent(T d) const { return sign_of(d); }
};

template <typename T>
struct SmoothL1 : OfDifference<T, SmoothL1<T>> {
    T beta;
    explicit SmoothL1(T parameter) : beta(parameter) {}
    T value(T x, T t) const {
        const T d = std::abs(x - t);
        return d < beta ? T(0.5) * d * d / beta : d - T(0.5) * beta;
    }
    T bent(T d) const { return std::abs(d) < beta ? d / beta : sign_of(d); }
};

template <typename T>
struct Huber : OfDifference<T, Huber<T>> {
    T delta;
    explicit Huber(T parameter) : delta(parameter) {}
    T value(T x, T t) const {
        const T d = std::abs(x - t);
        return d <= delta ? T(0.5) * d * d : delta * (d - T(0.5) * delta);
    }
    T bent(T d) const { return std::abs(d) <= delta ? d : delta * sign_of(d); }
};

template <typename T>
struct BinaryCrossEntropy : Plain {
    static constexpr std::int64_t chunk = chunk_logarithms;
    static T log_or_least(T logarithm) { return std::max(logarithm, static_cast<T>(least_logarithm)); }
    T value(T p, T t) const {
        return (t - T(1)) * log_or_least(real_functions::log1p(-p)) - t * log_or_least(real_functions::log(p));
    }
    // The two quotients apart: with p near 0 and t = 0, say, the one that is left is harmless.
    T by_prediction(T p, T t) const {
        const auto least = static_cast<T>(least_divisor);
        return (T(1) - t) / std::max(T(1) - p, least) - t / std::max(p, least);
    }
    T by_target(T p, T /*t*/) const {
        return log_or_least(real_functions::log1p(-p)) - log_or_least(real_functions::log(p));
    }
};

// (1 - t) x + (1 + (w - 1) t) softplus(-x)
template <typename T>
struct BinaryCrossEntropyWithLogits : Plain {
    static constexpr std::int64_t chunk = chunk_logarithms;
    static constexpr bool weighted = true;
    static T softplus(T x) { return std::max(x, T(0)) + real_functions::log1p(elementary::exp(-std::abs(x))); }
    T value(T x, T t, T w) const { return (T(1) - t) * x + (T(1) + (w - T(1)) * t) * softplus(-x); }
    T by_prediction(T x, T t, T w) const {
        return (T(1) - t) - (T(1) + (w - T(1)) * t) * (T(1) / (T(1) + elementary::exp(x)));
    }
    T by_target(T x, T /*t*/, T w) const { return (w - T(1)) * softplus(-x) - x; }
};

template <typename T>
struct KlDivergence : Plain {
    static constexpr std::int64_t chunk = chunk_logarithms;
    T value(T x, T t) const { return t == T(0) ? T(0) : t * (real_functions::log(t) - x); }
    T by_prediction(T /*x*/, T t) const { return -t; }
    T by_target(T x, T t) const { return t == T(0) ? T(0) : real_functions::log(t) + T(1) - x; }
};

template <typename T>
struct KlDivergenceLogTarget : Plain {
    static constexpr std::int64_t chunk = chunk_logarithms;
    T value(T x, T t) const { return elementary::exp(t) * (t - x); }
    T by_prediction(T /*x*/, T t) const { return -elementary::exp(t); }
    T by_target(T x, T t) const { return elementary::exp(t) * (t - x + T(1)); }
};

// Calls visit(loss object) with that of the terms for the element type T.
template <typename T, typename Visit>
void with_loss(const ElementTerms& terms, const Visit& visit) {
    switch (terms.loss) {
        case ElementLoss::mean_square:
            return visit(MeanSquare<T>{});
        case ElementLoss::absolute:
            return visit(Absolute<T>{});
        case ElementLoss::smooth_l1:
            return visit(SmoothL1<T>(static_cast<T>(terms.parameter)));
        case ElementLoss::huber:
            return visit(Huber<T>(static_cast<T>(terms.parameter)));
        case ElementLoss::binary_cross_entropy:
            return visit(BinaryCrossEntropy<T>{});
        case ElementLoss::binary_cross_entropy_with_logits:
            return visit(BinaryCrossEntropyWithLogits<T>{});
        case ElementLoss::kl_divergence:
            return visit(KlDivergence<T>{});
        case ElementLoss::kl_divergence_log_target:
            return visit(KlDivergenceLogTarget<T>{});
    }
}

template <typename T, typename Loss>
auto value_of(const Loss& loss, const T* x, const T* t, const T* w, std::int64_t i) {
    if constexpr (Loss::weighted) {
        return loss.value(x[i], t[i], w == nullptr ? T(1) : w[i]);
    } else {
        return loss.value(x[i], t[i]);
    }
}

// out = scale(upstream...) derivative(x, t, weight...) over the operands that there are.
template <typename T, bool Weighted, typename Function>
void run_gradient(const ElementTerms& terms, const Tensor* upstream, const Tensor* weight, Tensor* out, T scale,
                  const Function& derivative) {
    MultiTensorIterationHelper it;
    it.add_input(terms.prediction);
    it.add_input(terms.target);
    if (Weighted) {
        it.add_input(weight);
    }
    if (upstream != nullptr) {
        it.add_input(upstream);
    }
    it.add_output(out);
    it.build();
    if constexpr (Weighted) {
        if (upstream != nullptr) {
            it.run<TypeList<T>, TypeList<T, T, T, T>>(
                [=](T x, T t, T w, T g) { return scale * g * derivative(x, t, w); });
        } else {
            it.run<TypeList<T>, TypeList<T, T, T>>([=](T x, T t, T w) { return scale * derivative(x, t, w); });
        }
    } else if (upstream != nullptr) {
        it.run<TypeList<T>, TypeList<T, T, T>>([=](T x, T t, T g) { return scale * g * derivative(x, t); });
    } else {
        it.run<TypeList<T>, TypeList<T, T>>([=](T x, T t) { return scale * derivative(x, t); });
    }
}

}  // namespace

bool in_unit_interval(const Tensor* probabilities) {
    bool inside = true;
    dispatch(FloatTypes{}, probabilities->Dtype(), [&]<typename T>() {
        const T* p = data_of<T>(probabilities);
        inside = sum_of_terms(probabilities->Size(), chunk_cheap,
                              [&](std::int64_t i) { return p[i] < T(0) || p[i] > T(1) ? 1 : 0; }) == 0;
    });
    return inside;
}

void element_loss(const ElementTerms& terms, Reduction reduction, Tensor* out) {
    const std::int64_t n = terms.prediction->Size();
    dispatch(FloatTypes{}, terms.prediction->Dtype(), [&]<typename T>() {
        const T* x = data_of<T>(terms.prediction);
        const T* t = data_of<T>(terms.target);
        const T* w = terms.positive_weight == nullptr ? nullptr : data_of<T>(terms.positive_weight);
        T* result = data_of<T>(out);
        with_loss<T>(terms, [&](const auto& loss) {
            using Loss = std::decay_t<decltype(loss)>;
            if (reduction == Reduction::none) {
                parallel_for(n, 1, 2 * Loss::chunk, [&](std::int64_t begin, std::int64_t end) {
                    for (std::int64_t i = begin; i < end; ++i) {
                        result[i] = static_cast<T>(value_of(loss, x, t, w, i));
                    }
                });
                return;
            }
            const double sum = sum_of_terms(n, Loss::chunk, [&](std::int64_t i) { return value_of(loss, x, t, w, i); });
            *result = static_cast<T>(reduction == Reduction::mean ? sum / static_cast<double>(n) : sum);
        });
    });
}

void element_loss_grad(const ElementTerms& terms, Reduction reduction, const Tensor* upstream, bool of_target,
                       Tensor* gradient) {
    dispatch(FloatTypes{}, terms.prediction->Dtype(), [&]<typename T>() {
        with_loss<T>(terms, [&](const auto& loss) {
            using Loss = std::decay_t<decltype(loss)>;
            T scale = static_cast<T>(Loss::factor);
            if (reduction == Reduction::mean) {
                scale /= static_cast<T>(terms.prediction->Size());
            }
            const Tensor* each = upstream;
            if (reduction != Reduction::none && upstream != nullptr) {
                scale *= *data_of<T>(upstream);
                each = nullptr;
            }
            if (of_target) {
                run_gradient<T, Loss::weighted>(terms, each, terms.positive_weight, gradient, scale,
                                                [loss](auto... operands) { return loss.by_target(operands...); });
            } else {
                run_gradient<T, Loss::weighted>(terms, each, terms.positive_weight, gradient, scale,
                                                [loss](auto... operands) { return loss.by_prediction(operands...); });
            }
        });
    });
}

}  // namespace ornik::device::cpu
