#include "descriptors/packing.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace ornik {

Packing::Packing(const Dims& lengths) : lengths_(lengths), order_(lengths.size()) {
    const Where at = where("ornik::Packing::Packing");
    for (const std::int64_t length : lengths_) {
        if (length < 0 || length > std::numeric_limits<std::int64_t>::max() - entries_) {
            fail(at, "Sequences have lengths from 0, however they are ", lengths_);
        }
        if (length > std::numeric_limits<std::int32_t>::max()) {
            fail(at, "Sequences have fewer than 2^31 steps, however their lengths are ", lengths_);
        }
        entries_ += length;
    }
    if (entries_ < 1) {
        fail(at, "At least one sequence should have a step.");
    }
    std::iota(order_.begin(), order_.end(), 0);
    const auto length_of = [&](std::int64_t i) { return lengths_[static_cast<std::size_t>(i)]; };
    std::stable_sort(order_.begin(), order_.end(),
                     [&](std::int64_t a, std::int64_t b) { return length_of(a) > length_of(b); });
    // Sequence by sequence from the shortest, the steps that it is the last to reach.
    for (std::size_t left = order_.size(); left > 0; --left) {
        const auto reached = static_cast<std::size_t>(length_of(order_[left - 1]));
        batch_sizes_.resize(std::max(batch_sizes_.size(), reached), static_cast<std::int64_t>(left));
    }
}

}  // namespace ornik
