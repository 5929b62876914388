// axes.h: axes as users name them. Internal.
#pragma once

#include <cstddef>
#include <vector>

#include "ktensor.h"

namespace ornik::autograd {

/// A negative axis counts from the end; the refusal names operation, axis and tensor.
std::size_t wrap_axis(const char* operation, const KTensor& x, int axis);
/// The same for several, each named once.
std::vector<std::size_t> wrap_axes(const char* operation, const KTensor& x, const std::vector<int>& axes);

/// The result of a reduction over the axes (none: all), as it stands in a tensor of x's shape: under extents of 1 if
/// it does not have them, then repeated. Recorded.
KTensor expand_reduced(const KTensor& reduced, const Dims& shape, const std::vector<int>& axes, bool keep_dims);
/// How many elements of x go into one of the result.
std::int64_t reduced_count(const Dims& shape, const std::vector<int>& axes);

}  // namespace ornik::autograd
