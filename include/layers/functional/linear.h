// linear.h: y = x W^T + b, for weights as checkpoints hold them, and its gradients.
//
// x is [..., in], W [out, in], b [out] or null, y [..., out]; one floating or complex dtype, any strides, no rows
// included. The weight is never copied: the products take it transposed. Complex gradients use the conjugate of the
// other factor. (LDense has its weight [in, out].)
#pragma once

#include <array>
#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

ORNIK_API std::unique_ptr<Tensor> linear(Tensor* input, Tensor* weight, Tensor* bias);

/// dy W
ORNIK_API std::unique_ptr<Tensor> linear_input_grad(Tensor* output_gradient, Tensor* weight);
/// dy^T x
ORNIK_API std::unique_ptr<Tensor> linear_weight_grad(Tensor* output_gradient, Tensor* input);
/// dy summed over its leading axes.
ORNIK_API std::unique_ptr<Tensor> linear_bias_grad(Tensor* output_gradient);

struct LinearGradients {
    std::unique_ptr<Tensor> input;
    std::unique_ptr<Tensor> weight;
    std::unique_ptr<Tensor> bias;
};

/// Those that are wanted, in the order input, weight, bias; the others are null.
ORNIK_API LinearGradients linear_grad(Tensor* output_gradient, Tensor* input, Tensor* weight,
                                      const std::array<bool, 3>& wanted = {true, true, true});

}  // namespace ornik::nn
