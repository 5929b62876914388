// linalg.h: factors, inverses, determinants, solutions and norms of matrices, with gradients of every order.
//
// The last two axes of an operand are its matrices, those before them a batch. float32, float64, complex64 and
// complex128; extents may be 0. What is said of results and errors in tensor/tensor_math/decompositions.h holds here.
#pragma once

#include <limits>
#include <vector>

#include "products.h"

namespace ornik {

/// The lower triangular L with x = L L^H, or, `upper`, U with x = U^H U. The lower (upper) triangle of x is read; the
/// gradient is that of a Hermitian matrix.
[[nodiscard]] ORNIK_API KTensor cholesky(const KTensor& x, bool upper = false);

/// x = q r: orthonormal columns, and an upper triangle with a real diagonal. The complete q of [m, n] is [m, m], else
/// [m, min(m, n)]. Gradients where the first min(m, n) columns of x are independent; none for a complete q of more rows
/// than columns, which is not defined by x.
struct QrFactors {
    KTensor q;
    KTensor r;
};
[[nodiscard]] ORNIK_API QrFactors qr(const KTensor& x, bool complete = false);

/// x = u diag(s) vh: orthonormal columns in u and rows in vh; the values decrease. Gradients through u and vh where all
/// values differ and for functions that do not depend on the signs or phases of the vectors; with `full_matrices` of
/// matrices that are not square, through s alone.
struct SingularValues {
    KTensor u;
    KTensor s;
    KTensor vh;
};
[[nodiscard]] ORNIK_API SingularValues svd(const KTensor& x, bool full_matrices = true);
[[nodiscard]] ORNIK_API KTensor svdvals(const KTensor& x);

/// x v = value v for the columns v, of length 1, of the vectors; complex, in no order. Gradients where all values
/// differ, through the vectors for functions that do not depend on their phases.
[[nodiscard]] ORNIK_API EigenPairs eig(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor eigvals(const KTensor& x);

/// Square matrices; a singular one is an error.
[[nodiscard]] ORNIK_API KTensor inv(const KTensor& x);
/// y with x y = b. b of one axis is a vector for every matrix of x; of more axes it holds matrices [n, k], and the
/// batches broadcast. Dtypes promote as in a sum.
[[nodiscard]] ORNIK_API KTensor solve(const KTensor& x, const KTensor& b);
/// The gradient of a singular matrix is that of its cofactors.
[[nodiscard]] ORNIK_API KTensor det(const KTensor& x);
/// det(x) = sign exp(logabsdet); 0 and -infinity for singular matrices.
struct SignedLogarithm {
    KTensor sign;
    KTensor logabsdet;
};
[[nodiscard]] ORNIK_API SignedLogarithm slogdet(const KTensor& x);

/// The pseudo-inverse. Singular values of at most rtol times the largest one count as 0; rtol broadcasts to the batch
/// and is, when undefined, max(m, n) times the distance from 1 to the next number. Gradients where the rank does not
/// change.
[[nodiscard]] ORNIK_API KTensor pinv(const KTensor& x, const KTensor& rtol = KTensor());
[[nodiscard]] ORNIK_API KTensor pinv(const KTensor& x, double rtol);
/// How many singular values are larger; int64.
[[nodiscard]] ORNIK_API KTensor matrix_rank(const KTensor& x, const KTensor& rtol = KTensor());
[[nodiscard]] ORNIK_API KTensor matrix_rank(const KTensor& x, double rtol);

/// The product of n matrices x, of any dtype; n = 0 gives unit matrices, n < 0 the power of the inverse.
[[nodiscard]] ORNIK_API KTensor matrix_power(const KTensor& x, std::int64_t n);

/// The sums of conj(a) b along an axis, which counts from the end of both and has one extent in both; the other axes
/// broadcast. Any dtype: that of the promoted operands.
[[nodiscard]] ORNIK_API KTensor vecdot(const KTensor& a, const KTensor& b, int axis = -1);

/// (sum of |x|^ord)^(1 / ord) over the axes (none: all), real. Infinity takes the largest and -infinity the smallest
/// magnitude; 0 counts the elements that are not 0. Of no elements 0, but for negative orders.
[[nodiscard]] ORNIK_API KTensor vector_norm(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                            double ord = 2);

/// frobenius: the root of the sum of squared magnitudes. nuclear: the sum of the singular values. largest and smallest
/// among: sums of magnitudes by columns or rows (the norms 1, -1, infinity, -infinity), singular values (2, -2).
enum class MatrixNorm {
    frobenius,
    nuclear,
    largest_column,
    smallest_column,
    largest_row,
    smallest_row,
    largest_value,
    smallest_value,
};
/// Real; of matrices without elements 0.
[[nodiscard]] ORNIK_API KTensor matrix_norm(const KTensor& x, MatrixNorm ord = MatrixNorm::frobenius,
                                            bool keep_dims = false);

}  // namespace ornik
