// sorting.h: order along an axis.
//
// Real dtypes ("Not valid dtype for this function." for others), any strides. false goes before true, -0 equals
// 0, and NaN comes last, whether ascending or descending; equal elements keep their order. Axes may be negative
// (maybe_warp_dim). Results are new row-major tensors that the caller deletes.
#pragma once

#include <cstdint>
#include <vector>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// Two tensors of x's shape: the sorted elements, and their int64 positions along the axis.
[[nodiscard]] ORNIK_API std::vector<Tensor*> sort(Tensor* x, int axis = -1, bool descending = false);
/// The positions alone.
[[nodiscard]] ORNIK_API Tensor* argsort(Tensor* x, int axis = -1, bool descending = false);
/// The first k of sort, in order: k largest elements, or k smallest, and their positions. NaN is taken when
/// nothing else is left. 0 <= k <= extent of the axis.
[[nodiscard]] ORNIK_API std::vector<Tensor*> topk(Tensor* x, std::int64_t k, int axis = -1, bool largest = true);
/// Gradient of x from that of the sorted (or topk) elements and their positions: each goes back to its place.
/// `shape` is x's. Floating and complex grad.
[[nodiscard]] ORNIK_API Tensor* sort_grad(Tensor* grad, Tensor* positions, const Dims& shape, int axis = -1);

/// Over all elements in row-major order: the different ones, ascending, NaN counting as one; for each element of
/// x the index of its equal among them, shaped as x; how often each occurs. The latter two are int64.
[[nodiscard]] ORNIK_API std::vector<Tensor*> unique(Tensor* x);

/// For each value, the int64 index at which it would be inserted into an ascending row: before its equals, or
/// behind them with `right`. `sorted` has one axis, or as many as `values` with the same extents but for the
/// last; both of one dtype ("Not same data type"). Rows are taken to be sorted.
[[nodiscard]] ORNIK_API Tensor* searchsorted(Tensor* sorted, Tensor* values, bool right = false);

}  // namespace ornik
