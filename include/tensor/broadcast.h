// broadcast.h: how two shapes combine, and how one tensor is shown under a larger shape.
//
// Kernels never broadcast: callers make stride-0 views first (Tensor::broadcast, Tensor::broadcast_to).
#pragma once

#include <utility>

#include "../export.h"
#include "../utils/error.h"

namespace ornik {

namespace detail {

// Entry i of a list that is aligned at its end with one of `rank` entries; 1 where it has none.
inline std::int64_t aligned_entry(const Dims& list, std::size_t i, std::size_t rank) {
    const std::size_t lead = rank - list.size();
    return i < lead ? 1 : list[i - lead];
}

}  // namespace detail

/// The common shape of a and b, aligned at the last axis; an extent of 1 yields to the other one, also
/// to 0. Other unequal extents are an error.
ORNIK_API Dims infer_size_impl(const Dims& a, const Dims& b);

/// Sizes and strides that show a tensor under `target_sizes`. A stride of 0 repeats an axis of extent 1;
/// -1 keeps an existing axis. A tensor without axes expands to anything, with zero strides.
inline std::pair<Dims, Dims> inferExpandGeometryImpl(const Dims& sizes, const Dims& strides, const Dims& target_sizes) {
    const Where at = where("ornik::inferExpandGeometryImpl", "include/tensor/broadcast.h");
    const std::size_t rank = target_sizes.size();
    if (sizes.size() != strides.size()) {
        fail(at, "Sizes ", sizes, "and strides ", strides, "have different lengths.");
    }
    if (sizes.empty()) {
        return {target_sizes, Dims(rank, 0)};
    }
    if (rank < sizes.size()) {
        fail(at, "The expanded shape ", target_sizes, "has fewer axes than the tensor's shape ", sizes, ".");
    }
    const std::size_t lead = rank - sizes.size();
    Dims expanded_sizes(rank);
    Dims expanded_strides(rank);
    for (std::size_t i = rank; i-- > 0;) {
        const bool exists = i >= lead;
        const std::int64_t size = exists ? sizes[i - lead] : 1;
        std::int64_t stride = exists ? strides[i - lead] : expanded_sizes[i + 1] * expanded_strides[i + 1];
        std::int64_t target = target_sizes[i];
        if (target == -1) {
            if (!exists) {
                fail(at, "The expanded size of the tensor (-1) isn't allowed in a leading, non-existing dimension ", i);
            }
            target = size;
        }
        if (size != target) {
            if (size != 1) {
                fail(at, "The expanded size of the tensor (", target, ") must match the existing size (", size,
                     ") at non-singleton dimension ", i, ". Target sizes: ", target_sizes, ". Tensor sizes: ", sizes);
            }
            stride = 0;
        }
        expanded_sizes[i] = target;
        expanded_strides[i] = stride;
    }
    return {std::move(expanded_sizes), std::move(expanded_strides)};
}

/// Checks that `input` can be shown under `reference` and returns it padded with leading 1s to its rank.
ORNIK_API Dims just_if_broadcastable(const Dims& input, const Dims& reference);

}  // namespace ornik
