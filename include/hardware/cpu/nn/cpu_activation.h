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

/// out = scale in above 0, scale slope (exp(in) - 1) else. float32 and float64; out shares no memory with in.
void elu(const Tensor* in, double slope, double scale, Tensor* out);
/// From the input and the output y.
void elu_grad(const Tensor* in, const Tensor* y, const Tensor* gradient, double slope, double scale, Tensor* out);

}  // namespace ornik::device::cpu
