// slices.h: from index tensors to a walk over slices.
#pragma once

#include <vector>

#include "hardware/cpu/index/cpu_index.h"
#include "results.h"
#include "tensor/checks.h"

namespace ornik {

/// For each axis of a tensor its index tensor (int64, in range, all of one shape), or null for a whole axis.
struct IndexedAxes {
    explicit IndexedAxes(std::size_t rank) : axes(rank, nullptr) {}
    std::vector<const Tensor*> axes;
};

/// `other` is shaped as what the indices select from `x`: the whole axes in order, with the `index_shape` in front
/// of axis number `position` of them. Its index axes lie like one axis.
device::cpu::SliceWalk slice_walk(const IndexedAxes& indexed, const Tensor* x, const Tensor* other,
                                  const Dims& index_shape, std::size_t position);

/// Refuses a source of another dtype than x's, or of another shape than `shape`.
void check_source(const Where& at, const Tensor* x, const Tensor* source, const Dims& shape);

/// A view of `t`, or a copy when it shares memory with x, which is about to be written.
TensorResult apart_from(const Tensor* t, const Tensor* x);

}  // namespace ornik
