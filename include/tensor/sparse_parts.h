// sparse_parts.h: the components of a sparse matrix, checked. Internal.
#pragma once

#include <vector>

#include "../hardware/cpu/linear_algebra/cpu_sparse.h"
#include "borrowed.h"

namespace ornik {

/// Read access to a CSR or COO matrix, which has to outlive it.
class SparseParts {
  public:
    /// Reports any fault of the members as an error of `at`: their number, form, lengths and elements.
    SparseParts(const Where& at, const Tensor* matrix);

    const device::cpu::SparseRows& rows() const { return rows_; }
    Tensor* columns() const { return columns_.get(); }
    Tensor* values() const { return values_.get(); }

  private:
    Borrowed index_;
    Borrowed columns_;
    Borrowed values_;
    std::vector<std::int64_t> own_offsets_;
    device::cpu::SparseRows rows_{};
};

/// A dense tensor with the elements of a sparse matrix; faults of its members are errors of `at`.
std::unique_ptr<Tensor> dense_from_sparse(const Where& at, const Tensor* matrix);

/// A sparse matrix of the layout around the components; `offsets` are those of the rows.
std::unique_ptr<Tensor> assemble_sparse(std::int64_t layout, const Dims& shape, const std::int64_t* offsets,
                                        std::unique_ptr<Tensor> columns, std::unique_ptr<Tensor> values);

}  // namespace ornik
