// products.h: products of vectors, matrices and tensors, and decompositions.
#pragma once

#include <string>
#include <utility>
#include <vector>

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

/// Sums of products over named axes:
///
///     einsum("bij,bjk->bik", {a, b})     products of batches of matrices
///     einsum("...ii", {a})               traces
///     einsum("i,j->ij", {a, b})          the outer product
///
/// One term of letters for each operand, one letter for each axis; "..." stands for all axes that its term does not
/// name, aligned at their last ones. Axes that the result does not name are summed. Without "->" it names, after the
/// ellipsis, the letters that occur once, in alphabetical order. A letter twice in a term takes the diagonal. Axes of
/// one name have one extent, or 1. The dtype is the one that all promote to; sums of bool are ors, integers wrap;
/// nothing is conjugated. Operands are contracted from left to right, by matrix products where they share an axis.
/// May be a view where nothing is computed.
[[nodiscard]] ORNIK_API KTensor einsum(const std::string& text, const std::vector<KTensor>& operands);
/// The products summed over pairs of axes: result[rest of a][rest of b].
[[nodiscard]] ORNIK_API KTensor tensordot(const KTensor& a, const KTensor& b, const std::vector<int>& axes_of_a,
                                          const std::vector<int>& axes_of_b);
/// Over the last axes of a and the first ones of b.
[[nodiscard]] ORNIK_API KTensor tensordot(const KTensor& a, const KTensor& b, int axes = 2);
/// Over the last axis of both; a tensor without axes multiplies.
[[nodiscard]] ORNIK_API KTensor inner(const KTensor& a, const KTensor& b);
/// a[i] b[j]
[[nodiscard]] ORNIK_API KTensor outer(const KTensor& a, const KTensor& b);
/// The sum over all elements of conj(a) b; one shape.
[[nodiscard]] ORNIK_API KTensor vdot(const KTensor& a, const KTensor& b);
/// The vector product along an axis of 3 elements; both broadcast.
[[nodiscard]] ORNIK_API KTensor cross(const KTensor& a, const KTensor& b, int axis = -1);

/// Eigenvalues, ascending, and eigenvectors in columns, of symmetric or Hermitian matrices in the last two axes; the
/// lower triangle is read. Derivatives mean something for functions that do not depend on the signs or phases of the
/// vectors.
struct EigenPairs {
    KTensor values;
    KTensor vectors;
};
[[nodiscard]] ORNIK_API EigenPairs eigh(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor eigvalsh(const KTensor& x);

}  // namespace ornik
