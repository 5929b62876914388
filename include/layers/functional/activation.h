// activation.h: activations as functions, in place, and their gradients.
//
//     auto y = ornik::nn::relu(x);
//     auto g = ornik::nn::relu_grad(y.get(), dy);
//
// Any shape and strides, no elements included; results are new and contiguous. The forms in place write the tensor
// itself, which may not be an expanded view. Gradients take what the forward pass had (`saved`: the input or, where
// said, the output) and the output's gradient, of one shape and dtype. float32 and float64 unless said otherwise.
//
// Others are operations of tensor_math/tensor_element_math.h (gelu, silu, sigmoid, tanh, softplus, logsigmoid) and
// tensor_math/reductions.h (softmax, log_softmax).
#pragma once

#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

/// max(x, 0); NaN stays NaN. Real dtypes. `saved`: input or output.
ORNIK_API std::unique_ptr<Tensor> relu(Tensor* x);
ORNIK_API void relu_inplace(Tensor* x);
ORNIK_API std::unique_ptr<Tensor> relu_grad(Tensor* saved, Tensor* output_gradient);

/// x above 0, slope x else. `saved`: the input or, with a slope above 0, the output.
ORNIK_API std::unique_ptr<Tensor> leaky_relu(Tensor* x, double slope = 0.01);
ORNIK_API void leaky_relu_inplace(Tensor* x, double slope = 0.01);
ORNIK_API std::unique_ptr<Tensor> leaky_relu_grad(Tensor* saved, Tensor* output_gradient, double slope = 0.01);

/// x above 0, alpha (exp(x) - 1) else. The gradient takes input and output; with alpha above 0 the output can stand
/// for both.
ORNIK_API std::unique_ptr<Tensor> elu(Tensor* x, double alpha = 1);
ORNIK_API void elu_inplace(Tensor* x, double alpha = 1);
ORNIK_API std::unique_ptr<Tensor> elu_grad(Tensor* input, Tensor* output, Tensor* output_gradient, double alpha = 1);

/// 1.0507 x above 0, 1.0507 * 1.67326 (exp(x) - 1) else (Klambauer and others, 2017). `saved`: the output.
ORNIK_API std::unique_ptr<Tensor> selu(Tensor* x);
ORNIK_API void selu_inplace(Tensor* x);
ORNIK_API std::unique_ptr<Tensor> selu_grad(Tensor* saved, Tensor* output_gradient);

/// x cut off at low and high, low < high; {0, 6} is known as relu6. Real dtypes but bool. The gradient is 0 at the
/// bounds, too. `saved`: input or output.
ORNIK_API std::unique_ptr<Tensor> hardtanh(Tensor* x, double low = -1, double high = 1);
ORNIK_API void hardtanh_inplace(Tensor* x, double low = -1, double high = 1);
ORNIK_API std::unique_ptr<Tensor> hardtanh_grad(Tensor* saved, Tensor* output_gradient, double low = -1,
                                                double high = 1);

/// (x + 3) / 6 cut off at 0 and 1. `saved`: the input, here and below.
ORNIK_API std::unique_ptr<Tensor> hardsigmoid(Tensor* x);
ORNIK_API void hardsigmoid_inplace(Tensor* x);
ORNIK_API std::unique_ptr<Tensor> hardsigmoid_grad(Tensor* saved, Tensor* output_gradient);

/// x hardsigmoid(x)
ORNIK_API std::unique_ptr<Tensor> hardswish(Tensor* x);
ORNIK_API void hardswish_inplace(Tensor* x);
ORNIK_API std::unique_ptr<Tensor> hardswish_grad(Tensor* saved, Tensor* output_gradient);

/// x tanh(softplus(x)) (Misra, 2019)
ORNIK_API std::unique_ptr<Tensor> mish(Tensor* x);
ORNIK_API void mish_inplace(Tensor* x);
ORNIK_API std::unique_ptr<Tensor> mish_grad(Tensor* saved, Tensor* output_gradient);

}  // namespace ornik::nn
