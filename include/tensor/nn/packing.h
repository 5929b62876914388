// packing.h: sequences of different lengths, padded or packed.
//
// Padded: [batch, steps, ...], sequence i in the first lengths[i] steps of row i. Packed: [entries, ...], step by
// step, and within a step by falling length; no entry is wasted, and the entries of one step lie together:
//
//     lengths 1 3 2:  a0 - -     packed  b0 c0 a0 | b1 c1 | b2     batch_sizes  3 2 1     order  1 2 0
//                     b0 b1 b2
//                     c0 c1 -
#pragma once

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// Where the entries of a batch of sequences go.
class ORNIK_API Packing {
  public:
    /// One length per sequence, 0 and above; at least one entry in all.
    explicit Packing(const Dims& lengths);

    const Dims& lengths() const { return lengths_; }
    /// The sequences by falling length; equal ones in the order of the batch.
    const Dims& order() const { return order_; }
    /// Step by step, how many sequences reach it.
    const Dims& batch_sizes() const { return batch_sizes_; }
    /// The greatest length.
    std::int64_t steps() const { return static_cast<std::int64_t>(batch_sizes_.size()); }
    /// The sum of the lengths.
    std::int64_t entries() const { return entries_; }

  private:
    Dims lengths_;
    Dims order_;
    Dims batch_sizes_;
    std::int64_t entries_ = 0;
};

// Any dtype; each result is a new tensor that the caller deletes.

/// padded [batch, steps, ...] to packed [entries, ...]; `steps` may exceed the greatest length.
ORNIK_API Tensor* pack_sequences(Tensor* padded, const Packing& packing);
/// The gradient for a padded batch of `steps` steps: 0 in the padding.
ORNIK_API Tensor* pack_sequences_grad(Tensor* packed_gradient, const Packing& packing, std::int64_t steps);

/// packed [entries, ...] to padded [batch, steps, ...], `padding` behind the sequences. steps 0: the greatest
/// length.
ORNIK_API Tensor* unpack_sequences(Tensor* packed, const Packing& packing, std::int64_t steps = 0, double padding = 0);
/// The gradient for the packed batch; what the padding was given is dropped.
ORNIK_API Tensor* unpack_sequences_grad(Tensor* padded_gradient, const Packing& packing);

}  // namespace ornik
