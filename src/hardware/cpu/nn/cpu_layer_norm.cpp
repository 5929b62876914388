#include <cmath>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_normalization.h"
#include "row_sums.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
double reciprocal_deviation(T variance, double eps) {
    return 1 / std::sqrt(static_cast<double>(variance) + eps);
}

// Calls row(i) for every row, in parallel.
template <typename Row>
void for_each_row(const Tensor* t, std::int64_t cols, const Row& row) {
    parallel_for(t->Size() / cols, 1, grain_of_items(cols), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            row(i);
        }
    });
}

// The parameter's values, or the given one as often.
template <typename T>
struct Values {
    Values(const Tensor* t, std::int64_t n, T otherwise)
        : filled(t == nullptr ? static_cast<std::size_t>(n) : 0, otherwise),
          data(t == nullptr ? filled.data() : static_cast<const T*>(t->getRawData())) {}

    std::vector<T> filled;
    const T* data;
};

}  // namespace

void layer_norm(const Tensor* input, std::int64_t cols, double eps, const Tensor* gamma, const Tensor* beta,
                Tensor* mean, Tensor* variance, Tensor* out) {
    dispatch(FloatTypes{}, input->Dtype(), [&]<typename T>() {
        const Values<T> gammas(gamma, cols, T(1));
        const Values<T> betas(beta, cols, T(0));
        for_each_row(input, cols, [&](std::int64_t i) {
            const T* x = static_cast<const T*>(input->getRawData()) + i * cols;
            T* y = static_cast<T*>(out->getRawData()) + i * cols;
            const Moments moments = row_moments(x, cols);
            const T center = static_cast<T>(moments.mean);
            const T rstd = static_cast<T>(1 / std::sqrt(moments.variance() + eps));
            const T* scale = gammas.data;
            const T* shift = betas.data;
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t j = 0; j < cols; ++j) {
                y[j] = (x[j] - center) * rstd * scale[j] + shift[j];
            }
            static_cast<T*>(mean->getRawData())[i] = center;
            static_cast<T*>(variance->getRawData())[i] = static_cast<T>(moments.variance());
        });
    });
}

void layer_norm_grad(const NormGradient& from, std::int64_t cols, double eps, Tensor* out) {
    dispatch(FloatTypes{}, from.input->Dtype(), [&]<typename T>() {
        const Values<T> gammas(from.gamma, cols, T(1));
        for_each_row(from.input, cols, [&](std::int64_t i) {
            const T* x = static_cast<const T*>(from.input->getRawData()) + i * cols;
            const T* g = static_cast<const T*>(from.gradient->getRawData()) + i * cols;
            T* y = static_cast<T*>(out->getRawData()) + i * cols;
            const T* gamma = gammas.data;
            const T center = static_cast<const T*>(from.mean->getRawData())[i];
            const double deviation = reciprocal_deviation(static_cast<const T*>(from.variance->getRawData())[i], eps);
            const auto [sum, product] = row_sums<T>(
                cols, [=](std::int64_t j) { return gamma[j] * g[j]; },
                [=](std::int64_t j) { return gamma[j] * g[j] * (x[j] - center); });
            const auto count = static_cast<double>(cols);
            const T rstd = static_cast<T>(deviation);
            const T slope = static_cast<T>(-deviation * deviation * deviation * product / count);
            const T constant = static_cast<T>(-deviation * sum / count);
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t j = 0; j < cols; ++j) {
                y[j] = rstd * (gamma[j] * g[j]) + (slope * (x[j] - center) + constant);
            }
        });
    });
}

void layer_norm_gamma_grad(const NormGradient& from, std::int64_t cols, double eps, Tensor* out) {
    dispatch(FloatTypes{}, from.input->Dtype(), [&]<typename T>() {
        const T* input = static_cast<const T*>(from.input->getRawData());
        const T* gradient = static_cast<const T*>(from.gradient->getRawData());
        const auto* mean = static_cast<const T*>(from.mean->getRawData());
        const auto* variance = static_cast<const T*>(from.variance->getRawData());
        const std::vector<double> sums = column_sums<T>(from.input->Size() / cols, cols, [=](std::int64_t i) {
            return [x = input + i * cols, g = gradient + i * cols, center = mean[i],
                    rstd = static_cast<T>(reciprocal_deviation(variance[i], eps))](std::int64_t j) {
                return g[j] * ((x[j] - center) * rstd);
            };
        });
        std::transform(sums.begin(), sums.end(), static_cast<T*>(out->getRawData()),
                       [](double sum) { return static_cast<T>(sum); });
    });
}

void layer_norm_beta_grad(const Tensor* gradient, std::int64_t cols, Tensor* out) {
    dispatch(FloatTypes{}, gradient->Dtype(), [&]<typename T>() {
        const T* data = static_cast<const T*>(gradient->getRawData());
        const std::vector<double> sums = column_sums<T>(gradient->Size() / cols, cols, [=](std::int64_t i) {
            return [g = data + i * cols](std::int64_t j) { return g[j]; };
        });
        std::transform(sums.begin(), sums.end(), static_cast<T*>(out->getRawData()),
                       [](double sum) { return static_cast<T>(sum); });
    });
}

}  // namespace ornik::device::cpu
