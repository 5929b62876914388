// cpu_embedding.h: rows of a table by index. Internal. All tensors are contiguous; indices are int64 and in
// range.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// True when every index lies in [0, rows).
bool indices_in_range(const Tensor* indices, std::int64_t rows);

/// out[i, :] = table[indices[i], :]; any dtype.
void take_rows(const Tensor* table, const Tensor* indices, Tensor* out);

/// table = 0, then table[indices[i], :] += rows[i, :] in the order of i, for any team size. Floating and
/// complex.
void add_rows_at(const Tensor* rows, const Tensor* indices, Tensor* table);

}  // namespace ornik::device::cpu
