// cpu_elements.h: kernels of unary and binary element-wise operations. Internal.
//
// Operands have been checked against the table of operations (descriptors/element_operations.h): dtypes are
// those that the operation computes in and gives, counts agree, and outputs write each place once or, in
// place, where they read.
#pragma once

#include <cstdint>

#include "../../../descriptors/element_operations.h"
#include "../../../descriptors/tensoriterator.h"

namespace ornik::device::cpu {

void unary(operations::Unary operation, const Tensor* in, Tensor* out);
void binary(operations::Binary operation, const Tensor* a, const Tensor* b, Tensor* out);

/// out = grad times the conjugate of the operation's derivative at x, where it gave y. x and out are of
/// one floating or complex dtype, y and grad of the operation's result dtype.
void unary_grad(operations::Unary operation, const Tensor* x, const Tensor* y, const Tensor* grad, Tensor* out);

/// Gradients of binary operations for one operand; all tensors of one floating or complex dtype.
enum class BinaryGrad {
    pow_dx,
    pow_dy,
    atan2_dx,
    atan2_dy,
    fmod_dx,
    fmod_dy,
    remainder_dx,
    remainder_dy,
    maximum_dx,
    maximum_dy,
    minimum_dx,
    minimum_dy
};
void binary_grad(BinaryGrad which, const Tensor* a, const Tensor* b, const Tensor* grad, Tensor* out);

/// out = condition ? a : b; condition is bool, the others are of one dtype.
void select(const Tensor* condition, const Tensor* a, const Tensor* b, Tensor* out);

/// out = |a - b| <= absolute + relative |b|, or a == b, or both not a number when `equal_nan`. Out is bool;
/// a and b are of one dtype, compared in double.
void is_close(const Tensor* a, const Tensor* b, double relative, double absolute, bool equal_nan, Tensor* out);

// One kernel per operation and family of types, null where the family has none.
using ElementKernel = void (*)(const MultiTensorIterationHelper& elements, std::int64_t dtype);
ElementKernel real_kernel(operations::Unary operation);
ElementKernel integer_kernel(operations::Unary operation);
ElementKernel complex_kernel(operations::Unary operation);
ElementKernel real_kernel(operations::Binary operation);
ElementKernel integer_kernel(operations::Binary operation);
ElementKernel complex_kernel(operations::Binary operation);
ElementKernel real_grad_kernel(operations::Unary operation);
ElementKernel complex_grad_kernel(operations::Unary operation);

}  // namespace ornik::device::cpu
