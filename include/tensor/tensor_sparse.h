// tensor_sparse.h: matrices that hold their non-zero elements alone, in the layouts CSR and COO.
//
//     std::unique_ptr<ornik::Tensor> sparse(ornik::to_csr(dense));
//     const ornik::Tensor* values = sparse->get_csr_members()[2];
//
// A sparse matrix has a shape of two axes, a dtype (any of the ten) and three component tensors, each with one
// axis and one element per entry unless noted:
//
//   member   CSR                                          COO
//   0        int64, rows + 1 elements: row i has the      int64: rows
//            entries [member 0 (i), member 0 (i + 1))
//   1        int64: columns                               int64: columns
//   2        of the matrix' dtype: values                 of the matrix' dtype: values
//
// Entries stand in row-major order, each position at most once; a value may be zero. The matrix deletes its
// members. It has no storage of its own: operations of dense tensors refuse it, and CPU(0) copies it. Whoever
// changes members keeps these rules: the functions below check them before they read or write.
#pragma once

#include "../export.h"
#include "tensor.h"

namespace ornik {

/// A COO matrix of the shape around copies of the components. Rows and columns are of an integer dtype; the
/// matrix has the dtype of `values`.
[[nodiscard]] ORNIK_API Tensor* sparse_coo_tensor(Tensor* rows, Tensor* columns, Tensor* values, const Dims& shape);
/// A CSR matrix of the shape around copies of the components.
[[nodiscard]] ORNIK_API Tensor* sparse_csr_tensor(Tensor* row_offsets, Tensor* columns, Tensor* values,
                                                  const Dims& shape);

/// A new COO matrix with the elements of `t`: those that are not zero when `t` is dense with two axes (NaN is
/// not zero, -0.0 is), all entries when it is CSR or COO.
[[nodiscard]] ORNIK_API Tensor* to_coo(Tensor* t);
/// The same as a CSR matrix.
[[nodiscard]] ORNIK_API Tensor* to_csr(Tensor* t);
/// A new dense tensor with the elements of the sparse matrix; a copy of a dense one.
[[nodiscard]] ORNIK_API Tensor* to_dense(Tensor* t);

/// The product of a sparse matrix [m, k] and a dense one [k, n] of the same dtype: dense, [m, n]. Each sum runs
/// over the row's entries in their order. Integers wrap; bool is the or of ands.
[[nodiscard]] ORNIK_API Tensor* sparse_dot(Tensor* sparse, Tensor* dense);
/// Gradient of sparse_dot for the sparse factor: grad dense^H at its entries, a matrix with the layout and the
/// entries of `sparse`.
[[nodiscard]] ORNIK_API Tensor* sparse_dot_grad_sparse(Tensor* grad, Tensor* sparse, Tensor* dense);
/// Gradient of sparse_dot for the dense factor: sparse^H grad, [k, n].
[[nodiscard]] ORNIK_API Tensor* sparse_dot_grad_dense(Tensor* grad, Tensor* sparse);
/// The same under the names of all operations with two operands.
[[nodiscard]] inline Tensor* sparse_dot_dx_grad(Tensor* sparse, Tensor* dense, Tensor* grad) {
    return sparse_dot_grad_sparse(grad, sparse, dense);
}
[[nodiscard]] inline Tensor* sparse_dot_dy_grad(Tensor* sparse, Tensor* /*dense*/, Tensor* grad) {
    return sparse_dot_grad_dense(grad, sparse);
}

}  // namespace ornik
