// cpu_math.h: kernels of element-wise arithmetic. Internal.
//
// Operands have one shape and one dtype, and lie on the CPU; front ends have checked that.
#pragma once

#include "../../../tensor/tensor.h"
#include "../any_scalar.h"

namespace ornik::device::cpu {

void add(float alpha, const Tensor* a, float beta, const Tensor* b, Tensor* out, bool accumulate);
void sub(float alpha, const Tensor* a, float beta, const Tensor* b, Tensor* out, bool accumulate);
void mult(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate);
/// Floating and complex dtypes.
void div(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate);

// out = a (operation) scalar; the scalar is converted to the dtype first.
void add_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out);
void sub_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out);
void mult_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out);
/// Floating and complex dtypes.
void div_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out);

/// out = conj(a); a plain copy for real dtypes.
void conj(const Tensor* a, Tensor* out);

}  // namespace ornik::device::cpu
