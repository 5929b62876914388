// cpu_activation.h: kernels of element-wise activations. Internal.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = in where in is above 0 or NaN, else 0. Real dtypes, any strides.
void relu(const Tensor* in, Tensor* out);

/// out = gradient where in is above 0, else 0.
void relu_grad(const Tensor* in, const Tensor* gradient, Tensor* out);

}  // namespace ornik::device::cpu
