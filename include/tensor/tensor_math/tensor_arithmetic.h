// tensor_arithmetic.h: the arithmetic cores, with outputs given by the caller, and the gradients of
// products and quotients.
#pragma once

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

// The cores take a, b and out of one device, one dtype and one shape, any strides, and compute in that
// dtype. With accumulate != 0 the old elements of out are added. Out may be a or b, but no expanded
// (stride-0) view. Coefficients are converted to the element type first: 0.5 is 0 for integers. Integers
// wrap.

/// out = alpha a + beta b
ORNIK_API void add(float alpha, Tensor* a, float beta, Tensor* b, Tensor* out, int accumulate);
/// out = alpha a - beta b
ORNIK_API void sub(float alpha, Tensor* a, float beta, Tensor* b, Tensor* out, int accumulate);
/// out = a b
ORNIK_API void mult(Tensor* a, Tensor* b, Tensor* out, int accumulate);
/// out = a / b; floating and complex dtypes.
ORNIK_API void div(Tensor* a, Tensor* b, Tensor* out, int accumulate);

/// Gradient of a product for one factor: grad times the conjugate of the other factor. Dtype as
/// mult_tensor's.
[[nodiscard]] ORNIK_API Tensor* mult_grad_impl(Tensor* grad, Tensor* other);
/// Gradient of x / y for x: grad / conj(y). Dtype as div_tensor's.
[[nodiscard]] ORNIK_API Tensor* div_dx_grad_impl(Tensor* grad, Tensor* x, Tensor* y);
/// Gradient of x / y for y: -grad conj(x / y) / conj(y). Dtype as div_tensor's.
[[nodiscard]] ORNIK_API Tensor* div_dy_grad_impl(Tensor* grad, Tensor* x, Tensor* y);

// The same under the names of all operations with two operands: name_dx_grad(a, b, grad) for the first one.

[[nodiscard]] inline Tensor* mult_dx_grad(Tensor* /*a*/, Tensor* b, Tensor* grad) { return mult_grad_impl(grad, b); }
[[nodiscard]] inline Tensor* mult_dy_grad(Tensor* a, Tensor* /*b*/, Tensor* grad) { return mult_grad_impl(grad, a); }
[[nodiscard]] inline Tensor* div_dx_grad(Tensor* a, Tensor* b, Tensor* grad) { return div_dx_grad_impl(grad, a, b); }
[[nodiscard]] inline Tensor* div_dy_grad(Tensor* a, Tensor* b, Tensor* grad) { return div_dy_grad_impl(grad, a, b); }

}  // namespace ornik
