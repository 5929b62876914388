// packed_sequence.h: a batch of sequences of different lengths without padding.
//
//     PackedSequence packed = pack_padded(x, {7, 3, 5});        // x [7, 3, width]
//     auto [output, hidden, cell] = network.with_states(packed);
//     KTensor y = pad_packed(output);                           // [7, 3, ...], 0 behind each sequence
//
// Lengths come in any order, 1 and above. In `data` the entries stand step by step and within a step by falling length
// (descriptors/packing.h).
#pragma once

#include <vector>

#include "../ktensor/networks.h"

namespace ornik {

struct PackedSequence {
    KTensor data;  ///< [entries, ...]
    Packing packing;
};

/// padded [steps, N, ...], or [N, steps, ...] with `batch_first`; what stands behind the lengths is dropped.
[[nodiscard]] ORNIK_API PackedSequence pack_padded(const KTensor& padded, const Dims& lengths,
                                                   bool batch_first = false);
/// Back again, `padding` behind each sequence; of as many steps as the longest has, or `steps`.
[[nodiscard]] ORNIK_API KTensor pad_packed(const PackedSequence& packed, bool batch_first = false, double padding = 0,
                                           std::int64_t steps = 0);
/// Sequences [length, ...], alike but for their lengths.
[[nodiscard]] ORNIK_API PackedSequence pack_sequence(const std::vector<KTensor>& sequences);
/// The same, padded.
[[nodiscard]] ORNIK_API KTensor pad_sequence(const std::vector<KTensor>& sequences, bool batch_first = false,
                                             double padding = 0);

}  // namespace ornik
