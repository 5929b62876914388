// decompositions.h: factors, inverses, determinants and solutions of matrices.
//
// The last two axes of an operand are its matrices, those before them a batch. float32, float64, complex64 and
// complex128, any strides, any extents, 0 included. Operands are never changed; results are new row-major tensors of
// the operand's dtype, which the caller deletes; values that are real by nature have the real dtype of its precision.
// The same numbers give the same bits for any number of threads. A matrix that can not be served is an error that names
// its place in the batch.
//
// Gradients stand with the functions of the same names in ktensor/linalg.h.
#pragma once

#include <vector>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// The lower triangular L with a positive diagonal and x = L L^H, or, `upper`, U with x = U^H U. The lower (upper)
/// triangle of x is read and stands for a symmetric or Hermitian matrix. An error unless it is positive definite.
[[nodiscard]] ORNIK_API Tensor* cholesky(Tensor* x, bool upper = false);
/// {q, r}: x [m, n] = q r with orthonormal columns in q and r upper triangular with a real diagonal (of either sign). q
/// is [m, k] and r [k, n] for the smaller extent k, or k = m when `complete`.
[[nodiscard]] ORNIK_API std::vector<Tensor*> qr(Tensor* x, bool complete = false);
/// {u, s, vh}: x [m, n] = u diag(s) vh with orthonormal columns in u and rows in vh; the values s, k of them for the
/// smaller extent k, are real and decrease. u is [m, m] and vh [n, n], or with `full_matrices` off [m, k] and [k, n].
/// NaN and infinity are errors.
[[nodiscard]] ORNIK_API std::vector<Tensor*> svd(Tensor* x, bool full_matrices = true);
/// The values alone.
[[nodiscard]] ORNIK_API Tensor* svdvals(Tensor* x);

/// {values, vectors}: x v = value v for the columns v, of length 1, of the vectors; complex, in no order. NaN and
/// infinity are errors. Real matrices give conjugate pairs.
[[nodiscard]] ORNIK_API std::vector<Tensor*> eig(Tensor* x);
/// The values alone.
[[nodiscard]] ORNIK_API Tensor* eigvals(Tensor* x);

/// Square matrices. A singular one is an error: one that gives a pivot of exactly 0.
[[nodiscard]] ORNIK_API Tensor* inv(Tensor* x);
/// y with x y = b. b of one axis is a vector for every matrix of x; of more axes it holds matrices [n, k], whose batch
/// broadcasts with that of x. Both of one dtype.
[[nodiscard]] ORNIK_API Tensor* solve(Tensor* x, Tensor* b);
[[nodiscard]] ORNIK_API Tensor* det(Tensor* x);
/// {sign, logabsdet}: det(x) = sign exp(logabsdet), where sign has the dtype of x and the magnitude 1; 0 and -infinity
/// for singular matrices.
[[nodiscard]] ORNIK_API std::vector<Tensor*> slogdet(Tensor* x);

/// The pseudo-inverse (E. H. Moore, 1920; R. Penrose, 1955), [n, m] of [m, n]: singular values of at most rtol times
/// the largest one count as 0. rtol is a real floating tensor that broadcasts to the batch; null: max(m, n) times the
/// distance from 1 to the next number of the dtype.
[[nodiscard]] ORNIK_API Tensor* pinv(Tensor* x, Tensor* rtol = nullptr);
/// How many singular values are larger than that; int64.
[[nodiscard]] ORNIK_API Tensor* matrix_rank(Tensor* x, Tensor* rtol = nullptr);

}  // namespace ornik
