// gradients.h: random tensors, and gradients compared with central differences.
#pragma once

#include <gtest/gtest.h>

#include "tensors.h"

namespace ornik::test {

using Function = std::function<TensorPtr(Tensor*)>;

TensorPtr random_tensor(const Dims& shape, std::int64_t dtype, unsigned seed, Layout layout = Layout::contiguous);

// Real part of sum of conj(weight) * value: a number to take differences of.
double weighted_sum(const Tensor* value, const Tensor* weight);

// Compares `gradient` of weighted_sum(function(x), weight) with central differences in every real parameter
// of x, complex ones part by part.
// `relative` is the part of the tolerance that grows with the gradient.
void expect_gradient(const Function& function, Tensor* x, const Tensor* weight, const Tensor* gradient, double h = 1e-6,
                     double relative = 0);

// The same for a function that returns a new tensor, as the library does, in either form.
template <typename Made>
void expect_gradient(const Made& made, const TensorPtr& x, const TensorPtr& weight, const TensorPtr& gradient) {
    expect_gradient([&](Tensor* t) { return TensorPtr(made(t)); }, x.get(), weight.get(), gradient.get());
}
template <typename Made>
void expect_gradient(const Made& made, const TensorPtr& x, const TensorPtr& weight, Tensor* gradient) {
    expect_gradient(made, x, weight, TensorPtr(gradient));
}

}  // namespace ornik::test
