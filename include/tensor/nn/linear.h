// linear.h: y = x W + b and its gradients, without checks. Internal.
//
// x [..., in], W [in, out], or [out, in] when it is `transposed`, b [out] or [1, out] or null, y and its gradient
// [..., out]; one floating or complex dtype. Complex gradients use the conjugate of the other factor.
#pragma once

#include <memory>

#include "../tensor.h"

namespace ornik {

std::unique_ptr<Tensor> linear(Tensor* weight, Tensor* bias, Tensor* input, bool transposed = false);

std::unique_ptr<Tensor> linear_input_grad(Tensor* weight, Tensor* gradient, bool transposed = false);
std::unique_ptr<Tensor> linear_weight_grad(Tensor* input, Tensor* gradient, bool transposed = false);
/// Shaped as the bias, [out] when that is null.
std::unique_ptr<Tensor> linear_bias_grad(const Tensor* bias, Tensor* gradient);

}  // namespace ornik
