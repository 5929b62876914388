// slices.h: selection by numbers: positions, ranges with steps of either sign, new axes, an ellipsis, index tensors.
//
//     // x[1:, ..., ::-1, None]
//     std::unique_ptr<ornik::Tensor> y(ornik::select_slices(
//         x, {SliceItem::from(1), SliceItem::ellipsis(), SliceItem::all(-1), SliceItem::new_axis()}));
//
// Items stand for axes in order. A position drops its axis, and a negative one counts from the end. A range keeps
// its axis and is clipped to it, as in the languages that write begin:end:step; steps may be negative, not 0. An
// ellipsis, at most one, stands for as many whole axes as the others leave; without one they follow at the end.
//
// All dtypes, any strides, no axes or no elements included. Selections without index tensors are views. Everything
// is checked before anything is allocated or written: "Too many indices for a shape of ...", "Index 7 is out of range
// for an axis of 5 elements", "A slice can not have a step of 0.", "An ellipsis can be used once." Tensors that are
// written may be no expanded (stride-0) views.
#pragma once

#include <cstdint>
#include <vector>

#include "../export.h"
#include "tensor.h"

namespace ornik {

struct SliceItem {
    enum class Kind { index, slice, new_axis, ellipsis, tensor };

    Kind kind = Kind::slice;
    std::int64_t begin = 0;  // Also the position of an index.
    std::int64_t end = 0;
    std::int64_t step = 1;
    bool has_begin = false;
    bool has_end = false;
    const Tensor* tensor = nullptr;

    static SliceItem index(std::int64_t position) { return {Kind::index, position, 0, 1, true}; }
    static SliceItem range(std::int64_t begin, std::int64_t end, std::int64_t step = 1) {
        return {Kind::slice, begin, end, step, true, true};
    }
    static SliceItem from(std::int64_t begin, std::int64_t step = 1) { return {Kind::slice, begin, 0, step, true}; }
    static SliceItem until(std::int64_t end, std::int64_t step = 1) { return {Kind::slice, 0, end, step, false, true}; }
    static SliceItem all(std::int64_t step = 1) { return {Kind::slice, 0, 0, step}; }
    static SliceItem new_axis() { return {Kind::new_axis}; }
    static SliceItem ellipsis() { return {Kind::ellipsis}; }
    /// An integer or bool tensor, which has to live until the item has been used.
    static SliceItem positions(const Tensor* tensor) { return {Kind::tensor, 0, 0, 1, false, false, tensor}; }
};

using SliceItems = std::vector<SliceItem>;

/// Positions begin, begin + step, ..., `count` of them. With fewer than two the step is 1, with none begin is 0.
struct SliceRange {
    std::int64_t begin = 0;
    std::int64_t step = 1;
    std::int64_t count = 0;
};
/// What a range selects of an axis of `extent` elements.
ORNIK_API SliceRange slice_range(const SliceItem& item, std::int64_t extent);

// ---- Views ----

/// The shape of what the items select from a tensor of `shape`.
ORNIK_API Dims slices_shape(const Dims& shape, const SliceItems& items);
/// A view of the selected elements.
ORNIK_API Tensor* select_slices(const Tensor* x, const SliceItems& items);
/// Writes the value, converted to x's dtype and broadcast, into the selected elements. Leading axes of extent 1 that
/// the selection lacks do not count. The value may share memory with x.
ORNIK_API void set_slices(Tensor* x, const Tensor* value, const SliceItems& items);

/// Of select_slices for x, which has `shape`: grad at the selected positions, 0 elsewhere.
ORNIK_API Tensor* select_slices_grad(const Tensor* grad, const Dims& shape, const SliceItems& items);
/// The same added to `into`, in its dtype.
ORNIK_API void add_select_slices_grad(Tensor* into, const Tensor* grad, const SliceItems& items);
/// Of set_slices for x: grad, but 0 at the selected positions.
ORNIK_API Tensor* set_slices_grad(const Tensor* grad, const SliceItems& items);
/// Of set_slices for a value of `value_shape`: grad at the selected positions, summed where the value was broadcast.
ORNIK_API Tensor* set_slices_value_grad(const Tensor* grad, const Dims& value_shape, const SliceItems& items);

}  // namespace ornik
