// products.h: products and decompositions of matrices.
#pragma once

#include <utility>

#include "ktensor.h"

namespace ornik {

/// The product of the matrices in the last two axes; the axes before them broadcast. A tensor of one axis is a row on
/// the left, a column on the right, and the result lacks the axis that this adds. All dtypes, promoted as in a sum;
/// nothing is conjugated. Transposed views are read as they lie.
[[nodiscard]] ORNIK_API KTensor matmul(const KTensor& a, const KTensor& b);
/// matmul of two tensors of one axis each: the sum of products, without conjugation.
[[nodiscard]] ORNIK_API KTensor dot(const KTensor& a, const KTensor& b);
/// The Kronecker product of [m, n] and [p, q]: [m p, n q].
[[nodiscard]] ORNIK_API KTensor kron(const KTensor& a, const KTensor& b);

/// Eigenvalues, ascending, and eigenvectors in columns, of symmetric or Hermitian matrices in the last two axes; the
/// lower triangle is read. First derivatives, meaningful for functions that do not depend on the signs
/// or phases of the vectors.
struct EigenPairs {
    KTensor values;
    KTensor vectors;
};
[[nodiscard]] ORNIK_API EigenPairs eigh(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor eigvalsh(const KTensor& x);

}  // namespace ornik
