// slice_items.h: what numeric items mean for a shape. Internal.
#pragma once

#include "results.h"
#include "tensor/slices.h"

namespace ornik {

/// One axis of a selection: positions begin, begin + step, ... of the axis `source`, or an axis that is new.
struct ItemAxis {
    static constexpr std::int64_t none = -1;

    std::int64_t source = none;
    std::int64_t begin = 0;
    std::int64_t step = 1;
    std::int64_t count = 1;
    bool is_dropped = false;         // A position.
    const Tensor* tensor = nullptr;  // The index tensor that begins here; the axis itself is whole.
    bool is_covered = false;         // By a mask that began at an earlier axis.
};

/// Checked items, the ellipsis written out. Index tensors are allowed with `tensors`.
std::vector<ItemAxis> resolve_items(const Where& at, const Dims& shape, const SliceItems& items, bool tensors = false);

/// The shape of the axes that are not dropped.
Dims shape_of(const std::vector<ItemAxis>& axes);

/// The view of t that the axes describe.
TensorResult view_of(const Tensor* t, const std::vector<ItemAxis>& axes);

/// `value` in the dtype of `x`, which is about to be written, apart from its memory, under `shape`.
TensorResult value_for(const Where& at, const Tensor* x, const Tensor* value, const Dims& shape);

/// The gradient of value_for's broadcasting: `selected` summed to the shape of the value. A view when nothing is to be
/// summed.
TensorResult gradient_of_value(const Where& at, const Tensor* selected, const Dims& value_shape);

/// Refuses a gradient of another shape than the result's.
void check_gradient_shape(const Where& at, const Tensor* grad, const Dims& shape);

}  // namespace ornik
