// embedding.h: rows of a table by index, and the table's gradient.
#pragma once

#include <memory>
#include <optional>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

/// y[..., :] = weight[indices[...], :]. The weight is [rows, width], floating or complex; indices are integers (not
/// bool) in [0, rows); any strides, no indices included.
ORNIK_API std::unique_ptr<Tensor> embedding(Tensor* indices, Tensor* weight);
/// The rows of the output's gradient added up at their indices: [rows, width]. The row of the padding index gets
/// none.
ORNIK_API std::unique_ptr<Tensor> embedding_grad(Tensor* output_gradient, Tensor* indices, std::int64_t rows,
                                                 std::optional<std::int64_t> padding_index = std::nullopt);

}  // namespace ornik::nn
