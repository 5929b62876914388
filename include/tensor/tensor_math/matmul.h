// matmul.h: matrix products with broadcast batches, and their gradients.
//
//     std::unique_ptr<ornik::Tensor> y(ornik::matmul(x, w));              // x [b, n, k], w [k, m]: [b, n, m]
//     std::unique_ptr<ornik::Tensor> dw(ornik::matmul_grad_b(g, x, w->Shape()));
//
// The last two axes of an operand are its matrix, the others are batch axes: aligned at their ends, extents of 1
// repeat. An operand of one axis is a row on the left and a column on the right, and the result lacks the axis that
// this adds. op(X) is X when its flag is 0 and its transpose (never conjugated) when it is 1; a single axis has
// nothing to transpose.
//
// All dtypes; bool products are ors of ands, integers wrap. Any strides: an operand is copied only when neither
// axis of its matrices has a step of 1 (a transposed view is read as it lies). Extents may be 0; a product over no
// inner elements is 0. A right operand without batch serves all matrices on the left in one product. Results have the
// bits of Tensor::dot on the same matrices, whatever the number of threads.
//
// New tensors are row-major and deleted by the caller. Errors come before anything is allocated or written: "matmul()
// needs at least one axis, input A has none"; "Incompatible dims for matmul(): ..." with both shapes; "Not same data
// type" where one is required.
#pragma once

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// The shape of op(a) op(b).
ORNIK_API Dims matmul_shape(const Dims& a, const Dims& b, int ta = 0, int tb = 0);

/// a b in the dtype that both promote to as in a sum.
ORNIK_API Tensor* matmul(const Tensor* a, const Tensor* b, int ta = 0, int tb = 0);

/// C = op(A) op(B), or C += with `accumulate`. One dtype; C has the shape of the product and any strides, but is no
/// expanded view. It may share memory with the operands.
ORNIK_API void matmul_into(const Tensor* A, int ta, const Tensor* B, int tb, Tensor* C, bool accumulate = false);

// Gradients of op(a) op(b); `grad` has the shape of the product. They hold the conjugate of the other operand and
// are summed over the axes that were broadcast. The result has the given shape of the operand, in the dtype that
// grad and the other operand promote to.

/// For a: op(a)'s gradient is grad op(b)^H.
ORNIK_API Tensor* matmul_grad_a(const Tensor* grad, const Tensor* b, const Dims& a_shape, int ta = 0, int tb = 0);
/// For b: op(b)'s gradient is op(a)^H grad.
ORNIK_API Tensor* matmul_grad_b(const Tensor* grad, const Tensor* a, const Dims& b_shape, int ta = 0, int tb = 0);
/// The same added to `into`, which has the operand's shape, the dtype of the result and any strides.
ORNIK_API void add_matmul_grad_a(Tensor* into, const Tensor* grad, const Tensor* b, int ta = 0, int tb = 0);
ORNIK_API void add_matmul_grad_b(Tensor* into, const Tensor* grad, const Tensor* a, int ta = 0, int tb = 0);

}  // namespace ornik
