// cpu_sort.h: kernels around sorted order. Internal.
//
// Real dtypes. Order is that of numbers, false before true, -0 equal to 0, and NaN behind everything, also when
// descending. Extents along a sorted axis are below max_sorted_extent.
#pragma once

#include <cstdint>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

inline constexpr std::int64_t max_sorted_extent = std::int64_t{1} << 32;

/// Stable. `values` (of in's dtype) and `places` (int64, positions along the axis) may have a smaller extent k
/// along the axis than `in`: the first k in order. Either may be null.
void sort(const Tensor* in, Tensor* values, Tensor* places, int axis, bool descending);

/// rows is [kept, n] with n >= 1, out [kept, 1] and of mean_dtype; both contiguous. NaN when there is one.
void median(const Tensor* rows, Tensor* out);
/// The share of each element in the median of its row, times g [kept, 1]: to the middle place of a stable sort,
/// or half to each of the two. out is [kept, n]; all contiguous, of one floating dtype.
void median_grad(const Tensor* rows, const Tensor* g, Tensor* out);

/// For each value the number of elements of its row of `sorted` [rows, n] that go before it: those below it, and
/// with `right` those equal to it. values and out (int64) are [rows, m]; all contiguous.
void search_sorted(const Tensor* sorted, const Tensor* values, Tensor* out, bool right);

/// Number of different elements of a sorted row.
std::int64_t count_different(const Tensor* sorted);
/// sorted, with places[i] the origin of element i: the different elements, the index of the one that equals
/// each original element, and how often each occurs. All contiguous, one axis.
void collect_different(const Tensor* sorted, const Tensor* places, Tensor* values, Tensor* inverse, Tensor* counts);

}  // namespace ornik::device::cpu
