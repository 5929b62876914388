// reductions.h: from many elements to one, over all axes or some; running sums; softmax; order.
//
// `axes` may be negative and come in any order; none means all. Reduced axes stay as extent 1 with keep_dims, and
// disappear without. Result dtypes are those of tensor/tensor_math/reductions.h. The same values give the same bits
// under any strides and for any number of threads.
#pragma once

#include <utility>
#include <vector>

#include "ktensor.h"

namespace ornik {

/// bool and integers give int64, here and in prod. No elements give 0 (prod: 1).
[[nodiscard]] ORNIK_API KTensor sum(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API KTensor prod(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// bool and integers give float32. No elements give NaN.
[[nodiscard]] ORNIK_API KTensor mean(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// Square root of the sum of squared magnitudes. Where it is 0 its gradient counts as 0.
[[nodiscard]] ORNIK_API KTensor l2_norm(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// Squared deviations from the mean over (count - correction). Real dtypes.
[[nodiscard]] ORNIK_API KTensor var(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                    double correction = 1);
/// Its square root. Where that is 0 its gradient counts as 0.
[[nodiscard]] ORNIK_API KTensor std_dev(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                        double correction = 1);
/// log(sum(exp(x))) without overflow. Floating dtypes.
[[nodiscard]] ORNIK_API KTensor logsumexp(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// The sum along the diagonal of two axes, displaced by `offset` towards higher indices of axis2.
[[nodiscard]] ORNIK_API KTensor trace(const KTensor& x, std::int64_t offset = 0, int axis1 = 0, int axis2 = 1);

// Real dtypes. NaN wins. Elements equal to the result share its gradient in equal parts (median: the ones that a stable
// sort puts into the middle).

[[nodiscard]] ORNIK_API KTensor(max)(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API KTensor(min)(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// The middle element in order, or the mean of the two middle ones.
[[nodiscard]] ORNIK_API KTensor median(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// int64 positions of the first largest (smallest) element, in row-major order of the reduced axes.
[[nodiscard]] ORNIK_API KTensor argmax(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API KTensor argmin(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// bool.
[[nodiscard]] ORNIK_API KTensor any(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API KTensor all(const KTensor& x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// int64: how many elements are not 0; NaN is not.
[[nodiscard]] ORNIK_API KTensor count_nonzero(const KTensor& x, const std::vector<int>& axes = {},
                                              bool keep_dims = false);

// Along one axis; results have x's shape.

/// Running sums and products. bool and integers give int64.
[[nodiscard]] ORNIK_API KTensor cumsum(const KTensor& x, int axis);
[[nodiscard]] ORNIK_API KTensor cumprod(const KTensor& x, int axis);
/// exp(x) / sum(exp(x)) and its logarithm. Floating dtypes.
[[nodiscard]] ORNIK_API KTensor softmax(const KTensor& x, int axis = -1);
[[nodiscard]] ORNIK_API KTensor log_softmax(const KTensor& x, int axis = -1);

// Order; real dtypes. NaN comes last. Equal elements keep their order. Positions are int64.

/// The sorted elements and their positions along the axis.
[[nodiscard]] ORNIK_API std::pair<KTensor, KTensor> sort(const KTensor& x, int axis = -1, bool descending = false);
[[nodiscard]] ORNIK_API KTensor argsort(const KTensor& x, int axis = -1, bool descending = false);
/// The k largest (smallest) elements in order, and their positions.
[[nodiscard]] ORNIK_API std::pair<KTensor, KTensor> topk(const KTensor& x, std::int64_t k, int axis = -1,
                                                         bool largest = true);
/// The different elements in order, for each element of x the index of its equal, and how often each occurs.
struct Unique {
    KTensor values;
    KTensor inverse;
    KTensor counts;
};
[[nodiscard]] ORNIK_API Unique unique(const KTensor& x);
/// How often each whole number 0, 1, ... occurs among the elements of an integer tensor: up to the greatest one, or at
/// least `min_length` of them. With weights, of x's shape, the sum of those at each number.
[[nodiscard]] ORNIK_API KTensor bincount(const KTensor& x, const KTensor& weights = KTensor(),
                                         std::int64_t min_length = 0);
/// How many elements lie in each of `bins` equal intervals of [low, high], the last one closed: int64. Others do not
/// count. Real dtypes.
[[nodiscard]] ORNIK_API KTensor histogram(const KTensor& x, std::int64_t bins, double low, double high);
/// Where each value would be inserted into the sorted rows: before its equals, or behind them with `right`.
[[nodiscard]] ORNIK_API KTensor searchsorted(const KTensor& sorted, const KTensor& values, bool right = false);

}  // namespace ornik
