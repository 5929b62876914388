// indexing.h: reading and writing elements at computed places.
//
//     std::unique_ptr<ornik::Tensor> rows(ornik::index_select(table, 0, words));
//
// All dtypes, any strides. Index tensors are of an integer dtype; negative indices count from the end. Every
// index is checked before anything is written: one out of range is an error ("Index 7 is out of range for an
// axis of 5 elements"). Functions whose name ends in _ write into their first argument, which may be no expanded
// (stride-0) view; all others give new row-major tensors that the caller deletes. Elements that are written
// and x have one dtype ("Not same data type"). Where places repeat, the last element in row-major order of the
// indices stays, or all are added in that order: the same bits for any number of threads.
//
// Gradient functions take a floating or complex gradient of the result; `shape` is that of the tensor whose
// gradient they give.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../../export.h"
#include "../slices.h"
#include "../tensor.h"

namespace ornik {

// ---- Slices of one axis; `index` has at most one axis ----

/// Slices index[0], index[1], ... of the axis.
[[nodiscard]] ORNIK_API Tensor* index_select(Tensor* x, int axis, Tensor* index);
/// x, with slice k of `source` added to slice index[k]. source has x's shape but for the axis.
[[nodiscard]] ORNIK_API Tensor* index_add(Tensor* x, int axis, Tensor* index, Tensor* source);
ORNIK_API void index_add_(Tensor* x, int axis, Tensor* index, Tensor* source);
/// Elements by their flat row-major position, shaped as index.
[[nodiscard]] ORNIK_API Tensor* take(Tensor* x, Tensor* index);

/// The gradient of index_add for x is grad itself, for source index_select(grad, axis, index).
[[nodiscard]] ORNIK_API Tensor* index_select_grad(Tensor* grad, const Dims& shape, int axis, Tensor* index);
[[nodiscard]] ORNIK_API Tensor* take_grad(Tensor* grad, const Dims& shape, Tensor* index);

// ---- One index per element, along one axis; ranks agree, and index may be smaller than x along other axes ----

/// result[i][j][k] = x[i][index[i][j][k]][k] for axis 1; shaped as index.
[[nodiscard]] ORNIK_API Tensor* gather(Tensor* x, int axis, Tensor* index);
/// x, but result[i][index[i][j][k]][k] = source[i][j][k] for axis 1; source is shaped as index.
[[nodiscard]] ORNIK_API Tensor* scatter(Tensor* x, int axis, Tensor* index, Tensor* source);
ORNIK_API void scatter_(Tensor* x, int axis, Tensor* index, Tensor* source);
/// The same with elements added.
[[nodiscard]] ORNIK_API Tensor* scatter_add(Tensor* x, int axis, Tensor* index, Tensor* source);
ORNIK_API void scatter_add_(Tensor* x, int axis, Tensor* index, Tensor* source);

[[nodiscard]] ORNIK_API Tensor* gather_grad(Tensor* grad, const Dims& shape, int axis, Tensor* index);
/// Of scatter for x: grad, 0 where an element was written. The gradient of scatter_add for x is grad itself, for
/// source gather(grad, axis, index).
[[nodiscard]] ORNIK_API Tensor* scatter_grad(Tensor* grad, int axis, Tensor* index);
/// Of scatter for source: 0 for an element that another one replaced.
[[nodiscard]] ORNIK_API Tensor* scatter_source_grad(Tensor* grad, int axis, Tensor* index);

// ---- Several axes at once ----
//
// indices[d] belongs to axis d; null, or none at the end of the list, takes the whole axis. Index tensors are
// broadcast to one shape, which takes the place of the indexed axes where they are neighbours and comes first
// otherwise. A bool tensor stands for as many axes as it has and selects its true positions.

[[nodiscard]] ORNIK_API Tensor* index_get(Tensor* x, const std::vector<Tensor*>& indices);
/// `values` are broadcast to the shape of index_get.
ORNIK_API void index_put_(Tensor* x, const std::vector<Tensor*>& indices, Tensor* values, bool accumulate = false);
[[nodiscard]] ORNIK_API Tensor* index_get_grad(Tensor* grad, const Dims& shape, const std::vector<Tensor*>& indices);
/// Of index_put_ for x, without accumulate: grad, 0 where an element was written. Any dtype, here and below.
[[nodiscard]] ORNIK_API Tensor* index_put_grad(Tensor* grad, const std::vector<Tensor*>& indices);
/// Of index_put_ for values of `values_shape`: grad at their places, summed where values were broadcast; 0 for an
/// element that another one replaced.
[[nodiscard]] ORNIK_API Tensor* index_put_values_grad(Tensor* grad, const Dims& values_shape,
                                                      const std::vector<Tensor*>& indices, bool accumulate = false);

// ---- Several axes at once, mixed with the items of slices.h ----
//
// As in the field's array languages: ranges, new axes and the ellipsis first, then index tensors and masks, together
// with positions, are broadcast to one shape. It takes the place of their axes where these are neighbours, and comes
// first otherwise. A bool without axes selects all or nothing of a new axis. Any dtype.

/// A new tensor of the selected elements.
[[nodiscard]] ORNIK_API Tensor* index_advanced(const Tensor* x, const SliceItems& items);
/// The value, converted to x's dtype and broadcast, in place of the selected elements, or added to them: every one
/// of a position that repeats is; of those that replace, the last one stays.
ORNIK_API void set_index_advanced(Tensor* x, const Tensor* value, const SliceItems& items, bool accumulate = false);
/// Of index_advanced for x, which has `shape`: positions that repeat add up. Added to a tensor in place it is
/// set_index_advanced(into, grad, items, true).
[[nodiscard]] ORNIK_API Tensor* index_advanced_grad(const Tensor* grad, const Dims& shape, const SliceItems& items);
/// Of set_index_advanced for x, without accumulate: grad, but 0 at the selected positions.
[[nodiscard]] ORNIK_API Tensor* set_index_advanced_grad(const Tensor* grad, const SliceItems& items);
/// Of set_index_advanced for a value of `value_shape`: grad at the selected positions, summed where the value was
/// broadcast; without accumulate, 0 for an element that another one replaced.
[[nodiscard]] ORNIK_API Tensor* set_index_advanced_value_grad(const Tensor* grad, const Dims& value_shape,
                                                              const SliceItems& items, bool accumulate = false);

// ---- Selections by text: gradients of Tensor::set_select_ndim ----

/// For the tensor that was written: grad, but 0 at the selected positions. Any dtype, here and below.
[[nodiscard]] ORNIK_API Tensor* set_select_ndim_grad(const Tensor* grad, const std::vector<std::string>& items);
/// For a value of `value_shape`: grad at the selected positions, summed where the value was broadcast; 0 for an
/// element that another one replaced.
[[nodiscard]] ORNIK_API Tensor* set_select_ndim_value_grad(const Tensor* grad, const Dims& value_shape,
                                                           const std::vector<std::string>& items);

// ---- Masks ----

/// The elements of x where the bool mask is true, in row-major order, as one axis. x and mask are broadcast.
[[nodiscard]] ORNIK_API Tensor* masked_select(Tensor* x, Tensor* mask);
[[nodiscard]] ORNIK_API Tensor* masked_select_grad(Tensor* grad, const Dims& shape, Tensor* mask);
/// int64 positions [count, ndim] of the elements that are not zero, in row-major order. NaN is not zero.
[[nodiscard]] ORNIK_API Tensor* nonzero(Tensor* x);

}  // namespace ornik
