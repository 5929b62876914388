// joins.h: tensors joined, parted, repeated, shifted and padded.
//
// All dtypes, extents of 0 included. "Views" share the storage of their operand. Negative axes count from the end.
#pragma once

#include <concepts>
#include <vector>

#include "../tensor/joins.h"
#include "ktensor.h"

namespace ornik {

// ---- Joining and parting ----

/// One after the other along an axis, in the dtype that all promote to. Extents of the other axes agree.
[[nodiscard]] ORNIK_API KTensor concat(const std::vector<KTensor>& tensors, int axis = 0);
/// Tensors of one shape along a new axis of the result, in the dtype that all promote to.
[[nodiscard]] ORNIK_API KTensor stack(const std::vector<KTensor>& tensors, int axis = 0);
/// Views of consecutive parts along an axis; their extents add up to its.
[[nodiscard]] ORNIK_API std::vector<KTensor> split(const KTensor& x, const Dims& extents, int axis = 0);
/// Views of parts of one extent, the last one smaller where they do not fit.
[[nodiscard]] ORNIK_API std::vector<KTensor> split_every(const KTensor& x, std::int64_t extent, int axis = 0);
template <std::integral T>
[[nodiscard]] std::vector<KTensor> split(const KTensor& x, T extent, int axis = 0) {
    return split_every(x, static_cast<std::int64_t>(extent), axis);
}
/// split_every into `parts` parts of the least extent that serves; there may be fewer than asked for.
[[nodiscard]] ORNIK_API std::vector<KTensor> chunk(const KTensor& x, std::int64_t parts, int axis = 0);
/// Views without the axis, one for each of its positions.
[[nodiscard]] ORNIK_API std::vector<KTensor> unbind(const KTensor& x, int axis = 0);

// ---- Axes: views ----

/// Axis from[i] goes to position to[i]; the others keep their order.
[[nodiscard]] ORNIK_API KTensor moveaxis(const KTensor& x, const std::vector<int>& from, const std::vector<int>& to);
[[nodiscard]] ORNIK_API KTensor moveaxis(const KTensor& x, int from, int to);
/// With leading axes of extent 1, as many as it takes to have `count` axes.
[[nodiscard]] ORNIK_API KTensor at_least(const KTensor& x, int count);
/// All under their common shape: stride-0 views.
[[nodiscard]] ORNIK_API std::vector<KTensor> broadcast_together(const std::vector<KTensor>& tensors);
/// Tensors of at most one axis as coordinates of a grid: result i has axis i of the grid's shape and repeats along the
/// others. With `columns_first` the first two axes of the grid change places.
[[nodiscard]] ORNIK_API std::vector<KTensor> meshgrid(const std::vector<KTensor>& tensors, bool columns_first = false);

/// Stretches of `size` elements, `step` apart, along an axis: the axis counts them, and a new last axis walks within.
/// Stretches share elements when size > step.
[[nodiscard]] ORNIK_API KTensor windows(const KTensor& x, int axis, std::int64_t size, std::int64_t step = 1);
/// The reverse: a new tensor of `shape`, each element the sum of its places in x = windows(..., axis, size, step).
[[nodiscard]] ORNIK_API KTensor add_windows(const KTensor& x, const Dims& shape, int axis, std::int64_t size,
                                            std::int64_t step = 1);

// ---- Repeating and shifting: new tensors ----

/// x repeated reps[i] >= 0 times along axis i; the shorter of reps and x's shape is padded with leading 1s: [2, 3] by
/// {2} gives [2, 6].
[[nodiscard]] ORNIK_API KTensor tile(const KTensor& x, const Dims& reps);
/// Each slice of the axis `times` >= 0 times in a row.
[[nodiscard]] ORNIK_API KTensor repeat_interleave(const KTensor& x, std::int64_t times, int axis);
/// Slice i of the axis counts[i] >= 0 times; counts is an integer tensor with an element for each slice.
[[nodiscard]] ORNIK_API KTensor repeat_interleave(const KTensor& x, const KTensor& counts, int axis);
/// Elements move shifts[i] places along axes[i]; what leaves at the end comes in at the begin. Shifts of an axis that
/// is listed twice add. No axes and one shift: along the flattened elements.
[[nodiscard]] ORNIK_API KTensor roll(const KTensor& x, const Dims& shifts, const std::vector<int>& axes = {});
[[nodiscard]] ORNIK_API KTensor roll(const KTensor& x, std::int64_t places, int axis);
/// x[i + 1] - x[i] along an axis of one element at least.
[[nodiscard]] ORNIK_API KTensor diff(const KTensor& x, int axis = -1);

/// One pair of widths for each axis. Modes: tensor/joins.h. Widths beyond an axis go on in the pattern of the mode;
/// negative ones, in constant mode, cut off.
[[nodiscard]] ORNIK_API KTensor pad(const KTensor& x, const std::vector<PadWidth>& widths,
                                    PadMode mode = PadMode::constant, const Scalar& value = 0.0F);

}  // namespace ornik
