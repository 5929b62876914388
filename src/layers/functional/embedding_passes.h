// embedding_passes.h: what the embedding layer and functions share. Internal.
#pragma once

#include "tensor/borrowed.h"

namespace ornik {

/// Refuses indices that are no integers.
void check_embedding_indices(const Where& at, const Tensor* indices);
/// Indices as the passes take them: contiguous, int64, in [0, rows).
Borrowed embedding_indices(const Where& at, Tensor* indices, std::int64_t rows);

/// `shape` is that of the indices.
std::unique_ptr<Tensor> embedding_lookup(Tensor* weight, const Borrowed& indices, const Dims& shape);
std::unique_ptr<Tensor> embedding_scatter(Tensor* gradient, const Borrowed& indices, std::int64_t rows);

}  // namespace ornik
