// linear_algebra.h: Kronecker products and the decomposition of symmetric matrices, with their gradients.
//
// Operands may have any strides and are never changed; results are new tensors. Complex gradients hold the
// conjugate of the other factor.
#pragma once

#include <string>
#include <vector>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// The Kronecker product of a [m, n] and b [p, q]: [m p, n q] with a(i, j) b(k, l) at (i p + k, j q + l). Both
/// of one dtype (any) and dense or COO. Two COO operands give a COO result with an entry for every pair of
/// entries; otherwise the result is dense.
[[nodiscard]] ORNIK_API Tensor* kron(Tensor* a, Tensor* b);
/// Gradient of kron(a, b) for a: [m, n], the sum over (k, l) of grad(i p + k, j q + l) conj(b(k, l)). The
/// result has a's layout; a COO result holds the elements that are not zero.
[[nodiscard]] ORNIK_API Tensor* kron_grad_t1(Tensor* grad, Tensor* a, Tensor* b);
/// Gradient of kron(a, b) for b: [p, q], the sum over (i, j) of grad(i p + k, j q + l) conj(a(i, j)). In b's
/// layout.
[[nodiscard]] ORNIK_API Tensor* kron_grad_t2(Tensor* grad, Tensor* a, Tensor* b);
/// The same under the names of all operations with two operands.
[[nodiscard]] inline Tensor* kron_dx_grad(Tensor* a, Tensor* b, Tensor* grad) { return kron_grad_t1(grad, a, b); }
[[nodiscard]] inline Tensor* kron_dy_grad(Tensor* a, Tensor* b, Tensor* grad) { return kron_grad_t2(grad, a, b); }

// Decompositions take one matrix [n, n] or a batch [b, n, n] of float32, float64, complex64 or complex128, and
// read the lower triangle of each matrix and the real part of its diagonal: x stands for the symmetric or
// Hermitian matrix given by these. NaN or infinity there is an error, and so are eigenvalues that the
// element type can not hold.

/// {eigenvectors, eigenvalues}: vectors of x's dtype and shape, orthonormal, one in each column; values
/// ascending, in the real dtype of x's precision, [n] or [b, n]. The sign or phase of a vector is not defined.
[[nodiscard]] ORNIK_API std::vector<Tensor*> eigh(Tensor* x);
/// The eigenvalues alone.
[[nodiscard]] ORNIK_API Tensor* eigvalsh(Tensor* x);
/// Gradient of eigvalsh(x) for x, of x's dtype and shape: V diag(grad) V^H for the eigenvectors V. Grad has
/// the dtype and shape of the eigenvalues.
[[nodiscard]] ORNIK_API Tensor* eigvalsh_grad(Tensor* grad, Tensor* x);
/// Gradient of eigh(x) for x, Hermitian: V sym(diag(grad_values) + F (V^H grad_vectors)) V^H, F being the
/// element-wise factor 1 / (value[j] - value[i]) off the diagonal, 0 on it and for equal eigenvalues.
/// Meaningful for a function of the eigenvectors that does not depend on their signs or phases. Either
/// gradient may be null and then counts as zero, not both.
[[nodiscard]] ORNIK_API Tensor* eigh_grad(Tensor* grad_vectors, Tensor* grad_values, Tensor* x);
/// The same from what eigh(x) gave.
[[nodiscard]] ORNIK_API Tensor* eigh_grad_from(Tensor* grad_vectors, Tensor* grad_values, Tensor* vectors,
                                               Tensor* values);

/// Refused in this build: linear solving is not available on the CPU.
[[noreturn]] ORNIK_API Tensor* solver(Tensor* a, Tensor* b, std::string method);

}  // namespace ornik
