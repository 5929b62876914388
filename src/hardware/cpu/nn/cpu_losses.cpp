// cpu_losses.cpp: losses over elements.
#include "hardware/cpu/nn/cpu_losses.h"

#include <cmath>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "loss_sums.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t chunk_cheap = 1 << 14;       // terms of a few operations
constexpr std::int64_t chunk_logarithms = 1 << 10;  // terms with logarithms

// log(0) counts as this much, so that a certain and wrong prediction costs much, but not infinitely much.
constexpr double least_logarithm = -100;
// Divisors of the gradient are at least this, for the same reason.
constexpr double least_divisor = 1e-12;

template <typename T, typename Function>
void for_each_pair(const Tensor* a, const Tensor* b, Tensor* out, const Function& function) {
    MultiTensorIterationHelper it;
    it.add_input(a);
    it.add_input(b);
    it.add_output(out);
    it.build();
    it.run<TypeList<T>, TypeList<T, T>>(function);
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

void mean_squared_error(const Tensor* prediction, const Tensor* target, Tensor* loss) {
    const std::int64_t n = prediction->Size();
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* x = data_of<T>(prediction);
        const T* t = data_of<T>(target);
        const double sum = sum_of_terms(n, chunk_cheap, [&](std::int64_t i) {
            const double difference = static_cast<double>(x[i]) - static_cast<double>(t[i]);
            return difference * difference;
        });
        *data_of<T>(loss) = static_cast<T>(sum / static_cast<double>(n));
    });
}

void mean_squared_error_grad(const Tensor* prediction, const Tensor* target, Tensor* gradient) {
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T scale = T(2) / static_cast<T>(prediction->Size());
        for_each_pair<T>(prediction, target, gradient, [scale](T x, T t) { return scale * (x - t); });
    });
}

void binary_cross_entropy(const Tensor* prediction, const Tensor* target, Tensor* loss) {
    const std::int64_t n = prediction->Size();
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T* p = data_of<T>(prediction);
        const T* t = data_of<T>(target);
        const double sum = sum_of_terms(n, chunk_logarithms, [&](std::int64_t i) {
            const auto least = static_cast<T>(least_logarithm);
            return (t[i] - T(1)) * std::max(std::log1p(-p[i]), least) - t[i] * std::max(std::log(p[i]), least);
        });
        *data_of<T>(loss) = static_cast<T>(sum / static_cast<double>(n));
    });
}

void binary_cross_entropy_grad(const Tensor* prediction, const Tensor* target, Tensor* gradient) {
    dispatch(FloatTypes{}, prediction->Dtype(), [&]<typename T>() {
        const T scale = T(1) / static_cast<T>(prediction->Size());
        // The two quotients apart: with p near 0 and t = 0, say, the one that is left is harmless.
        for_each_pair<T>(prediction, target, gradient, [scale](T p, T t) {
            const auto least = static_cast<T>(least_divisor);
            return scale * ((T(1) - t) / std::max(T(1) - p, least) - t / std::max(p, least));
        });
    });
}

}  // namespace ornik::device::cpu
