// cpu_sparse.h: kernels of sparse matrices. Internal.
//
// Kernels work on rows of entries: row i has the entries [offsets[i], offsets[i + 1]), each with a column and a
// value; columns ascend within a row, no column comes twice. A CSR matrix holds these three arrays; the offsets
// of a COO matrix are made by row_offsets. Arrays are contiguous, on the CPU, and have been checked by
// find_fault.
#pragma once

#include <cstdint>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

struct SparseRows {
    std::int64_t rows;
    std::int64_t cols;
    const std::int64_t* offsets;  // rows + 1
    const std::int64_t* columns;
    const void* values;

    std::int64_t entries() const { return offsets[rows]; }
};

/// What is wrong with the components of a sparse matrix, and at which position of the array named.
struct SparseFault {
    enum class Kind {
        none,
        row_range,     ///< a row index below 0 or beyond the last row
        column_range,  ///< a column index below 0 or beyond the last column
        order,         ///< an entry that does not lie behind the one before it
        first_offset,  ///< offsets that do not start at 0
        offset_order,  ///< an offset below the one before it
        last_offset,   ///< offsets that do not end at the number of entries
    };
    Kind kind = Kind::none;
    std::int64_t position = 0;
};

/// The first fault of `entries` row and column indices in row-major order.
SparseFault find_coo_fault(std::int64_t rows, std::int64_t cols, std::int64_t entries, const std::int64_t* row_indices,
                           const std::int64_t* columns);
/// The first fault of rows + 1 offsets; else that of the columns.
SparseFault find_csr_fault(std::int64_t rows, std::int64_t cols, std::int64_t entries, const std::int64_t* offsets,
                           const std::int64_t* columns);

/// offsets[i] = number of ascending row indices below i, for i = 0 .. rows.
void row_offsets(std::int64_t rows, std::int64_t entries, const std::int64_t* row_indices, std::int64_t* offsets);
/// The row of every entry.
void row_indices(std::int64_t rows, const std::int64_t* offsets, std::int64_t* indices);

/// offsets of the elements of a contiguous [rows, cols] matrix that are not zero (NaN is not).
void count_entries(const Tensor* dense, std::int64_t* offsets);
/// These elements and their columns.
void gather_entries(const Tensor* dense, const std::int64_t* offsets, std::int64_t* columns, Tensor* values);
/// The matrix, into a contiguous `dense`.
void scatter_entries(const SparseRows& matrix, Tensor* dense);

/// out = matrix x dense; both contiguous, out's dtype that of all. Every sum runs in the order of the row's
/// entries. Integers wrap; bool is the or of ands.
void sparse_product(const SparseRows& matrix, const Tensor* dense, Tensor* out);
/// out = matrix^H x dense; each sum runs over ascending rows.
void sparse_adjoint_product(const SparseRows& matrix, const Tensor* dense, Tensor* out);
/// values[e] = sum over j of grad(row of e, j) conj(dense(column of e, j)): grad dense^H at the entries.
void sparse_sampled_product(const SparseRows& matrix, const Tensor* grad, const Tensor* dense, Tensor* values);

}  // namespace ornik::device::cpu
