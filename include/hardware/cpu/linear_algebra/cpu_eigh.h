// cpu_eigh.h: eigen-decompositions of batches of symmetric and Hermitian matrices. Internal.
//
// All tensors are contiguous and on the CPU: x is [n, n] or [b, n, n], of a floating or complex dtype, with
// finite elements in its lower triangles, which are all that is read; vectors has x's dtype and shape; values
// holds the real numbers of x's precision, n for each matrix. Matrices are spread over the workers.
#pragma once

#include <cstdint>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// What the kernels return when every matrix of the batch was served.
inline constexpr std::int64_t all_matrices = -1;

/// Position in the batch of the first matrix with NaN or infinity in its lower triangle, or all_matrices.
std::int64_t cpu_first_not_finite(const Tensor* x);

// These return the position of the first matrix whose decomposition did not converge to finite numbers, or
// all_matrices. Another dtype than the four is an error.

/// Eigenvalues in increasing order, eigenvectors as columns.
std::int64_t cpu_eigh_impl(const Tensor* x, Tensor* vectors, Tensor* values);
/// Eigenvalues alone.
std::int64_t cpu_eigvalsh_impl(const Tensor* x, Tensor* values);
/// Eigenvectors alone.
std::int64_t cpu_eigvec(const Tensor* x, Tensor* vectors);

/// out = V M V^H, of x's shape: M holds grad_values on its diagonal and the Hermitian part of
/// (V^H grad_vectors)(i, j) / (value[j] - value[i]) elsewhere (0 for equal eigenvalues). Vectors and values
/// are those of cpu_eigh_impl; values and grad_vectors are null together, grad_values alone.
void cpu_eigh_grad(const Tensor* vectors, const Tensor* values, const Tensor* grad_vectors, const Tensor* grad_values,
                   Tensor* out);

}  // namespace ornik::device::cpu
