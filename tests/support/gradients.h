// gradients.h: random tensors, and gradients compared with central differences.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tensors.h"

namespace ornik::test {

using Function = std::function<TensorPtr(Tensor*)>;

inline TensorPtr random_tensor(const Dims& shape, std::int64_t dtype, unsigned seed,
                               Layout layout = Layout::contiguous) {
    std::mt19937 random(seed);
    const TensorPtr parts = make_empty({numel_of(shape) * 2}, dtype::float64);
    auto* values = static_cast<double*>(parts->getRawData());
    for (std::int64_t i = 0; i < parts->Size(); ++i) {
        values[i] = random() * 0x1p-31 - 1.0;
    }
    TensorPtr result = make_empty(shape, dtype, layout);
    if (result->isComplexType()) {
        const TensorPtr pairs = make_empty(shape, dtype::complex128);
        std::copy_n(values, parts->Size(), static_cast<double*>(pairs->getRawData()));
        result->copy_from_(pairs.get());
    } else {
        const TensorPtr half(share_storage_tensor(parts->getStorage(), shape, result->Strides(), dtype::float64,
                                                  result->StorageOffset()));
        result->copy_from_(half.get());
    }
    return result;
}

// Real part of sum of conj(weight) * value: a number to take differences of.
inline double weighted_sum(const Tensor* value, const Tensor* weight) {
    double sum = 0;
    if (value->isComplexType()) {
        const auto a = values_of<Complex<double>>(value);
        const auto b = values_of<Complex<double>>(weight);
        for (std::size_t i = 0; i < a.size(); ++i) {
            sum += a[i].real * b[i].real + a[i].imag * b[i].imag;
        }
    } else {
        const auto a = values_of<double>(value);
        const auto b = values_of<double>(weight);
        for (std::size_t i = 0; i < a.size(); ++i) {
            sum += a[i] * b[i];
        }
    }
    return sum;
}

// Compares `gradient` of weighted_sum(function(x), weight) with central differences in every real parameter
// of x, complex ones part by part.
inline void expect_gradient(const Function& function, Tensor* x, const Tensor* weight, const Tensor* gradient) {
    ASSERT_NE(gradient, nullptr);
    ASSERT_EQ(gradient->Shape(), x->Shape());
    const TensorPtr dense_gradient(gradient->clone());
    const auto* expected = static_cast<const double*>(dense_gradient->getRawData());
    const std::int64_t parts = x->isComplexType() ? 2 : 1;
    auto* values = static_cast<double*>(x->getRawData());
    std::int64_t i = 0;
    constexpr double h = 1e-6;
    for_each_offset(x->Shape(), x->Strides(), [&](std::int64_t offset) {
        for (std::int64_t part = 0; part < parts; ++part, ++i) {
            double& value = values[offset * parts + part];
            const double old = value;
            value = old + h;
            const double above = weighted_sum(function(x).get(), weight);
            value = old - h;
            const double below = weighted_sum(function(x).get(), weight);
            value = old;
            EXPECT_NEAR(expected[i], (above - below) / (2 * h), 1e-7) << "entry " << i;
        }
    });
}

}  // namespace ornik::test
