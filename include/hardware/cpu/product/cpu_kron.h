// cpu_kron.h: kernels of the Kronecker product, for dense and for sparse operands. Internal.
//
// a is [m, n], b [p, q], the product [m p, n q] with a(i, j) b(k, l) at (i p + k, j q + l). All operands have one
// dtype; dense ones are contiguous. Integers wrap. Every sum runs in ascending (i, j) or (k, l).
#pragma once

#include "../linear_algebra/cpu_sparse.h"

namespace ornik::device::cpu {

void kron(const Tensor* a, const Tensor* b, Tensor* out);
/// offsets (m p + 1) of the rows of the product: an entry for each pair of entries.
void kron_offsets(const SparseRows& a, const SparseRows& b, std::int64_t* offsets);
/// Its columns and values.
void kron_entries(const SparseRows& a, const SparseRows& b, const std::int64_t* offsets, std::int64_t* columns,
                  Tensor* values);

/// out [m, n] = the sum over (k, l) of grad(i p + k, j q + l) conj(b(k, l)).
void kron_grad_t1(const Tensor* grad, const Tensor* b, Tensor* out);
void kron_grad_t1(const SparseRows& grad, const Tensor* b, Tensor* out);
/// out [p, q] = the sum over (i, j) of grad(i p + k, j q + l) conj(a(i, j)).
void kron_grad_t2(const Tensor* grad, const Tensor* a, Tensor* out);
void kron_grad_t2(const SparseRows& grad, const Tensor* a, Tensor* out);

}  // namespace ornik::device::cpu
