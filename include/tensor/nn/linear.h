// linear.h: y = x W + b and its gradients, without checks. Internal.
//
// x [..., in], W [in, out], b [out] or [1, out] or null, y and its gradient [..., out]; one floating or complex
// dtype. Complex gradients use the conjugate of the other factor.
#pragma once

#include <memory>

#include "../tensor.h"

namespace ornik {

std::unique_ptr<Tensor> linear(Tensor* weight, Tensor* bias, Tensor* input);

std::unique_ptr<Tensor> linear_input_grad(Tensor* weight, const Tensor* input, Tensor* gradient);
std::unique_ptr<Tensor> linear_weight_grad(const Tensor* weight, Tensor* input, Tensor* gradient);
/// Shaped as the bias, [out] when that is null.
std::unique_ptr<Tensor> linear_bias_grad(const Tensor* bias, Tensor* gradient);

}  // namespace ornik
