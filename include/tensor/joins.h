// joins.h: tensors joined, parted, repeated, shifted and padded, with gradients.
//
// Unlike the functions of tensor_shape.h, these take extents of 0, and negative axes, which count from the end. All
// dtypes, any strides. "A view" shares the memory of its argument; all other results are new row-major tensors. The
// caller deletes either. Gradients have the shape of the result and keep their dtype.
#pragma once

#include <cstdint>
#include <vector>

#include "../export.h"
#include "scalar.h"
#include "tensor.h"

namespace ornik {

// ---- Joining and parting ----

/// The tensors one after the other along an axis, in the dtype that all promote to as in a sum. Extents of the other
/// axes agree. The gradient is split(grad, their extents, axis).
ORNIK_API Tensor* concatenate(const std::vector<Tensor*>& tensors, int axis = 0);
/// The tensors, one or more of one shape, along a new axis. The gradient is unbind(grad, axis).
ORNIK_API Tensor* stack_along(const std::vector<Tensor*>& tensors, int axis = 0);
/// Views of consecutive parts along an axis; their extents add up to its. The gradient is concatenate.
ORNIK_API std::vector<Tensor*> split(const Tensor* t, const Dims& extents, int axis = 0);
/// Views of parts of equal extents, the last one smaller where they do not fit; there may be fewer than asked for.
ORNIK_API std::vector<Tensor*> chunk(const Tensor* t, std::int64_t parts, int axis = 0);
/// Views without the axis, one for each of its positions. The gradient is stack_along.
ORNIK_API std::vector<Tensor*> unbind(const Tensor* t, int axis = 0);

// ---- Axes: views, whose gradients are views, too ----

/// Axis from[i] goes to position to[i]; the others keep their order. Gradient: from and to exchanged.
ORNIK_API Tensor* moveaxis(const Tensor* t, const std::vector<int>& from, const std::vector<int>& to);
/// A view with an axis of extent 1 at `axis`, a position in the result.
ORNIK_API Tensor* expand_dims(const Tensor* t, int axis);
/// Reverse order along the axes, by negative strides; no axes reverse all. Its own gradient.
ORNIK_API Tensor* flip_view(const Tensor* t, const std::vector<int>& axes);
/// Tensors of at most one axis as coordinates of a grid: result i has axis i of the grid's shape and repeats along
/// the others. With `columns_first` the first two axes of the grid change places. The gradient is sum_to_shape.
ORNIK_API std::vector<Tensor*> meshgrid(const std::vector<Tensor*>& tensors, bool columns_first = false);

/// Stretches of `size` elements, `step` apart, along an axis: the axis counts them, and a new last axis walks within.
/// A view; stretches share elements when size > step.
ORNIK_API Tensor* windows(const Tensor* t, int axis, std::int64_t size, std::int64_t step = 1);
/// Gradient for a tensor of `shape`: elements get the sum over their windows.
ORNIK_API Tensor* windows_grad(const Tensor* grad, const Dims& shape, int axis, std::int64_t size,
                               std::int64_t step = 1);

// ---- Repeating and shifting ----

/// t repeated reps[i] >= 0 times along axis i; the shorter of reps and t's shape is padded with leading 1s.
ORNIK_API Tensor* repeat(const Tensor* t, const Dims& reps);
ORNIK_API Tensor* repeat_grad(const Tensor* grad, const Dims& shape, const Dims& reps);
/// Each slice of the axis `times` >= 0 times in a row.
ORNIK_API Tensor* repeat_interleave(const Tensor* t, std::int64_t times, int axis);
ORNIK_API Tensor* repeat_interleave_grad(const Tensor* grad, const Dims& shape, std::int64_t times, int axis);
/// Slice i of the axis counts[i] >= 0 times; counts is an integer tensor with an element for each slice.
ORNIK_API Tensor* repeat_by_counts(const Tensor* t, const Tensor* counts, int axis);
ORNIK_API Tensor* repeat_by_counts_grad(const Tensor* grad, const Dims& shape, const Tensor* counts, int axis);

/// Elements move shifts[i] places along axes[i]; what leaves at the end comes in at the begin. Shifts of an axis
/// that is listed twice add. No axes and one shift: along the flattened elements. Gradient: shifts negated.
ORNIK_API Tensor* roll(const Tensor* t, const Dims& shifts, const std::vector<int>& axes = {});

// ---- Padding ----

struct PadWidth {
    std::int64_t before = 0;
    std::int64_t behind = 0;
};

/// What stands beyond the end of [a b c d]: the given value; c b a .. (the end is not repeated); d d d ..; a b c ..
enum class PadMode { constant, reflect, replicate, circular };

/// One pair of widths for each axis. Widths beyond an axis go on in the pattern of the mode; negative ones, in
/// constant mode, cut off. An axis without elements can be padded in constant mode alone.
ORNIK_API Tensor* pad(const Tensor* t, const std::vector<PadWidth>& widths, PadMode mode = PadMode::constant,
                      const Scalar& value = 0.0F);
/// Gradient for a tensor of `shape`; a view of grad where nothing was added.
ORNIK_API Tensor* pad_grad(const Tensor* grad, const Dims& shape, const std::vector<PadWidth>& widths,
                           PadMode mode = PadMode::constant);

// ---- Diagonals and triangles ----

/// Gradient of Tensor::diagonal for a tensor of `shape`.
ORNIK_API Tensor* diagonal_grad(const Tensor* grad, const Dims& shape, std::int64_t offset = 0, int dim1 = 0,
                                int dim2 = 1);
/// The last axis of t as a diagonal, displaced by `offset`, of axes dim1 and dim2 of the result, which has one axis
/// more; zeros elsewhere. The gradient is grad->diagonal(offset, dim1, dim2).
ORNIK_API Tensor* diag_embed(const Tensor* t, std::int64_t offset = 0, int dim1 = -2, int dim2 = -1);
/// A tensor of one axis as the diagonal of a matrix; of a matrix, a view of its diagonal.
ORNIK_API Tensor* diag(const Tensor* t, std::int64_t offset = 0);
ORNIK_API Tensor* diag_grad(const Tensor* grad, const Dims& shape, std::int64_t offset = 0);
/// The elements of the last two axes with column - row <= k (tril) or >= k (triu), zeros elsewhere. Their own
/// gradients.
ORNIK_API Tensor* tril(const Tensor* t, std::int64_t k = 0);
ORNIK_API Tensor* triu(const Tensor* t, std::int64_t k = 0);

}  // namespace ornik
