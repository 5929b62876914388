// cpu_decompositions.h: factors, inverses, determinants and solutions of batches of matrices. Internal.
//
// All tensors are contiguous, on the CPU and of x's dtype, floating or complex, but for real results, which have its
// precision. The last two axes of x are matrices, those before them the batch; results have the same batch. Extents may
// be 0. Matrices are spread over the workers.
#pragma once

#include <cstdint>
#include <vector>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

// These return the position in the batch of the first matrix that could not be served, or this.
inline constexpr std::int64_t every_matrix = -1;

/// The lower triangles L of x = L L^H, of which the lower triangle is read. Fails for what is not positive definite.
std::int64_t cpu_cholesky(const Tensor* x, Tensor* lower);
/// Fails for singular matrices, as does cpu_solve.
std::int64_t cpu_inverse(const Tensor* x, Tensor* out);
/// out = x^-1 b for matrices b. `places` has, for each matrix of b, the one of x that belongs to it.
std::int64_t cpu_solve(const Tensor* x, const Tensor* b, const std::vector<std::int64_t>& places, Tensor* out);
/// Fails for NaN, infinity and what does not converge. Without u and vh the values alone.
std::int64_t cpu_svd(const Tensor* x, Tensor* u, Tensor* s, Tensor* vh);
/// Eigenvalues [.., n] and, unless null, eigenvectors [.., n, n] in columns, both complex. Fails as cpu_svd does.
std::int64_t cpu_eig(const Tensor* x, Tensor* values, Tensor* vectors);

/// Determinants of the dtype of x.
void cpu_determinant(const Tensor* x, Tensor* out);
/// Signs of the dtype of x, and the logarithms of magnitudes.
void cpu_log_determinant(const Tensor* x, Tensor* sign, Tensor* log_magnitude);
/// q [.., m, k] and r [.., k, n]; k = min(m, n), or m for the complete q.
void cpu_qr(const Tensor* x, Tensor* q, Tensor* r);

/// Columns j of the matrices u [.., m, k] times 1 / s[.., j]; 0 where that is at most bounds[..] max(s[..]).
void cpu_divide_columns(Tensor* u, const Tensor* s, const Tensor* bounds);
/// How many s[.., j] are above bounds[..] max(s[..]); counts is int64.
void cpu_count_above(const Tensor* s, const Tensor* bounds, Tensor* counts);

}  // namespace ornik::device::cpu
