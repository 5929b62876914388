// sparse.h: matrices that hold their entries alone, row by row, and their products. Second derivatives.
//
//     SparseMatrix m({0, 2, 3}, {0, 2, 1}, weights, {2, 3});   // [[w0, 0, w1], [0, w2, 0]]
//     KTensor y = sparse_dot(m, x);                            // x [3, n]
//
// Gradients reach the entries' values and dense factors; where the entries stand is fixed.
#pragma once

#include "ktensor.h"

namespace ornik {

class ORNIK_API SparseMatrix {
  public:
    /// Row i has the entries from offsets[i] up to offsets[i + 1], excluded: entry k stands in column columns[k], which
    /// rise within a row, and is values[k]. Integers, shape[0] + 1 and two per entry; any dtype.
    SparseMatrix(const KTensor& offsets, const KTensor& columns, const KTensor& values, const Dims& shape);
    /// Entries in row-major order, each position at most once.
    [[nodiscard]] static SparseMatrix from_coordinates(const KTensor& rows, const KTensor& columns,
                                                       const KTensor& values, const Dims& shape);
    /// The elements of a matrix that are not 0.
    [[nodiscard]] static SparseMatrix from_dense(const KTensor& x);

    [[nodiscard]] const Dims& shape() const { return shape_; }
    [[nodiscard]] const KTensor& offsets() const { return offsets_; }
    [[nodiscard]] const KTensor& columns() const { return columns_; }
    [[nodiscard]] const KTensor& values() const { return values_; }
    /// The row of each entry.
    [[nodiscard]] KTensor rows() const;
    [[nodiscard]] KTensor to_dense() const;
    /// The same matrix with its rows as columns.
    [[nodiscard]] SparseMatrix transpose() const;

  private:
    KTensor offsets_;
    KTensor columns_;
    KTensor values_;
    Dims shape_;
};

/// The product of a sparse matrix [m, k] and a dense one [k, n]: dense, [m, n], of the dtype that both promote to.
[[nodiscard]] ORNIK_API KTensor sparse_dot(const SparseMatrix& sparse, const KTensor& dense);

}  // namespace ornik
