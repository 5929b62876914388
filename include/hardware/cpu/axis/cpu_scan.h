// cpu_scan.h: running sums and products along an axis, and gradients of products. Internal.
//
// Any strides. Sums and products of bool and integers are int64, others keep their dtype.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out[i] = in[0] + ... + in[i]
void cumsum(const Tensor* in, Tensor* out, int axis);
/// out[i] = in[0] ... in[i]
void cumprod(const Tensor* in, Tensor* out, int axis);

/// Gradient of cumprod for x: out[i] = sum over j >= i of g[j] times the conjugate of the product of x[0 .. j]
/// without x[i]. Floating and complex.
void cumprod_grad(const Tensor* x, const Tensor* g, Tensor* out, int axis);
/// Gradient of the product along the axis: out[i] = g times the conjugate of the product of all x but x[i].
/// g has extent 1 along the axis.
void prod_grad(const Tensor* x, const Tensor* g, Tensor* out, int axis);

}  // namespace ornik::device::cpu
