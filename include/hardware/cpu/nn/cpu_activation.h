// cpu_activation.h: kernels of element-wise activations that are no operations of mathematics. Internal.
//
// Tensors of one dtype and shape, any strides.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = in where in is above 0 or NaN, else 0. Real dtypes.
void relu(const Tensor* in, Tensor* out);
/// out = gradient where in is above 0, else 0.
void relu_grad(const Tensor* in, const Tensor* gradient, Tensor* out);

/// out = in above 0, slope in else. float32 and float64.
void leaky_relu(const Tensor* in, double slope, Tensor* out);
void leaky_relu_grad(const Tensor* in, const Tensor* gradient, double slope, Tensor* out);

/// The slope and scale of an elu that is known as selu.
inline constexpr double selu_slope = 1.67326324235437728482;
inline constexpr double selu_scale = 1.05070098735548049342;

/// out = scale in above 0, scale slope (exp(in) - 1) else. float32 and float64; out shares no memory with in.
void elu(const Tensor* in, double slope, double scale, Tensor* out);
/// From the input and the output y.
void elu_grad(const Tensor* in, const Tensor* y, const Tensor* gradient, double slope, double scale, Tensor* out);

/// out = in inside (low, high), the nearer bound else; NaN stays. Real dtypes.
void hardtanh(const Tensor* in, double low, double high, Tensor* out);
/// From the input or the output: the gradient strictly inside the bounds, 0 else.
void hardtanh_grad(const Tensor* in, const Tensor* gradient, double low, double high, Tensor* out);

// float32 and float64, from here on.

/// out = the line through (-3, 0) and (3, 1), cut off at 0 and 1.
void hardsigmoid(const Tensor* in, Tensor* out);
void hardsigmoid_grad(const Tensor* in, const Tensor* gradient, Tensor* out);

/// out = in hardsigmoid(in)
void hardswish(const Tensor* in, Tensor* out);
void hardswish_grad(const Tensor* in, const Tensor* gradient, Tensor* out);

/// out = in tanh(log(1 + exp(in)))
void mish(const Tensor* in, Tensor* out);
void mish_grad(const Tensor* in, const Tensor* gradient, Tensor* out);

}  // namespace ornik::device::cpu
