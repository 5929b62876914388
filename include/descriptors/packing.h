// packing.h: where the entries of sequences of different lengths go.
//
// Padded: [batch, steps, ...], sequence i in the first lengths[i] steps of row i. Packed: [entries, ...], step by
// step, and within a step by falling length; no entry is wasted, and the entries of one step lie together:
//
//     lengths 1 3 2:  a0 - -     packed  b0 c0 a0 | b1 c1 | b2     batch_sizes  3 2 1     order  1 2 0
//                     b0 b1 b2
//                     c0 c1 -
#pragma once

#include "../export.h"
#include "../utils/error.h"

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

}  // namespace ornik
