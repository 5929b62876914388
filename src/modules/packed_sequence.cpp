// packed_sequence.cpp: packing and padding.
#include "modules/packed_sequence.h"

#include <algorithm>

#include "ktensor/impl.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

namespace {

void check_lengths(const char* name, const Dims& lengths) {
    for (const std::int64_t length : lengths) {
        if (length < 1) {
            fail(where("ornik::PackedSequence"), name, "(): lengths are 1 and above, not ", length, ".");
        }
    }
}

}  // namespace

PackedSequence pack_padded(const KTensor& padded, const Dims& lengths, bool batch_first) {
    check_lengths("pack_padded", lengths);
    const std::int64_t longest = lengths.empty() ? 0 : *std::max_element(lengths.begin(), lengths.end());
    const bool fits = padded.defined() && padded.ndim() >= 2 && !lengths.empty() &&
                      padded.size(batch_first ? 0 : 1) == static_cast<std::int64_t>(lengths.size()) &&
                      padded.size(batch_first ? 1 : 0) >= longest;
    if (!fits) {
        fail(where("ornik::pack_padded"), "pack_padded(): ", describe(padded), " does not hold ", lengths.size(),
             " sequences of up to ", longest, " steps.");
    }
    const Packing packing(lengths);
    return {pack_sequences(batch_first ? padded : swapaxes(padded, 0, 1), packing), packing};
}

KTensor pad_packed(const PackedSequence& packed, bool batch_first, double padding, std::int64_t steps) {
    const KTensor padded = unpack_sequences(packed.data, packed.packing, steps, padding);
    return batch_first ? padded : swapaxes(padded, 0, 1);
}

PackedSequence pack_sequence(const std::vector<KTensor>& sequences) {
    Dims lengths;
    for (const KTensor& sequence : sequences) {
        lengths.push_back(sequence.ndim() < 1 ? 0 : sequence.size(0));
    }
    check_lengths("pack_sequence", lengths);
    const Packing packing(lengths);
    // Entry (step, sequence) of the packing stands at the sequence's begin plus the step in the joined sequences.
    Dims begins(lengths.size(), 0);
    for (std::size_t i = 1; i < lengths.size(); ++i) {
        begins[i] = begins[i - 1] + lengths[i - 1];
    }
    std::vector<std::int64_t> places;
    for (std::int64_t step = 0; step < packing.steps(); ++step) {
        for (std::int64_t k = 0; k < packing.batch_sizes()[static_cast<std::size_t>(step)]; ++k) {
            places.push_back(begins[static_cast<std::size_t>(packing.order()[static_cast<std::size_t>(k)])] + step);
        }
    }
    return {index_select(concat(sequences, 0), 0, KTensor::from(places)), packing};
}

KTensor pad_sequence(const std::vector<KTensor>& sequences, bool batch_first, double padding) {
    return pad_packed(pack_sequence(sequences), batch_first, padding);
}

}  // namespace ornik
