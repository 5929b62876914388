// packing.h: sequences of different lengths, padded or packed as descriptors/packing.h shows.
#pragma once

#include "../../descriptors/packing.h"
#include "../../export.h"
#include "../tensor.h"

namespace ornik {

// Any dtype; each result is a new tensor that the caller deletes.

/// padded [batch, steps, ...] to packed [entries, ...]; `steps` may exceed the greatest length.
[[nodiscard]] ORNIK_API Tensor* pack_sequences(Tensor* padded, const Packing& packing);
/// The gradient for a padded batch of `steps` steps: 0 in the padding.
[[nodiscard]] ORNIK_API Tensor* pack_sequences_grad(Tensor* packed_gradient, const Packing& packing,
                                                    std::int64_t steps);

/// packed [entries, ...] to padded [batch, steps, ...], `padding` behind the sequences. steps 0: the greatest
/// length.
[[nodiscard]] ORNIK_API Tensor* unpack_sequences(Tensor* packed, const Packing& packing, std::int64_t steps = 0,
                                                 double padding = 0);
/// The gradient for the packed batch; what the padding was given is dropped.
[[nodiscard]] ORNIK_API Tensor* unpack_sequences_grad(Tensor* padded_gradient, const Packing& packing);

}  // namespace ornik
