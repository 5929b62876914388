// joins.h: parts of a tensor along one axis. Internal.
#pragma once

#include "descriptors/reduce_descriptor.h"
#include "slice_items.h"
#include "tensor/joins.h"

namespace ornik {

/// The axis counted from 0; a tensor without axes has none.
std::size_t checked_axis(const Tensor* t, int axis);

/// The view of `extent` positions begin, begin + step, ... along an axis.
TensorResult part_of(const Tensor* t, std::size_t axis, std::int64_t begin, std::int64_t extent, std::int64_t step = 1);

}  // namespace ornik
