#include "gradients.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace ornik::test {

TensorPtr random_tensor(const Dims& shape, std::int64_t dtype, unsigned seed, Layout layout) {
    std::mt19937 random(seed);
    const TensorPtr pairs = make_empty(shape, dtype::complex128);
    auto* parts = static_cast<double*>(pairs->getRawData());
    std::generate_n(parts, 2 * numel_of(shape), [&] { return random() * 0x1p-31 - 1.0; });
    TensorPtr result = make_empty(shape, dtype, layout);
    result->copy_from_(pairs.get());
    return result;
}

double weighted_sum(const Tensor* value, const Tensor* weight) {
    const auto a = values_of<Complex<double>>(TensorPtr(value->astype(dtype::complex128)));
    const auto b = values_of<Complex<double>>(TensorPtr(weight->astype(dtype::complex128)));
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += a[i].real * b[i].real + a[i].imag * b[i].imag;
    }
    return sum;
}

void expect_gradient(const Function& function, Tensor* x, const Tensor* weight, const Tensor* gradient, double h,
                     double relative) {
    ASSERT_NE(gradient, nullptr);
    ASSERT_EQ(gradient->Shape(), x->Shape());
    const TensorPtr dense_gradient(gradient->clone());
    const auto* expected = static_cast<const double*>(dense_gradient->getRawData());
    const std::int64_t parts = x->isComplexType() ? 2 : 1;
    auto* values = static_cast<double*>(x->getRawData());
    std::int64_t i = 0;
    for_each_offset(x->Shape(), x->Strides(), [&](std::int64_t offset) {
        for (std::int64_t part = 0; part < parts; ++part, ++i) {
            double& value = values[offset * parts + part];
            const double old = value;
            value = old + h;
            const double above = weighted_sum(function(x).get(), weight);
            value = old - h;
            const double below = weighted_sum(function(x).get(), weight);
            value = old;
            EXPECT_NEAR(expected[i], (above - below) / (2 * h), 1e-7 * (1 + relative * std::abs(expected[i])))
                << "entry " << i;
        }
    });
}

}  // namespace ornik::test
