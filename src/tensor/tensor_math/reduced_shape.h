// reduced_shape.h: views between a tensor and the result of its reduction. `axes` are sorted indices.
#pragma once

#include "results.h"

namespace ornik {

/// A view of `t`, shaped as the reduction of a tensor of shape `whole` with or without keep_dims, under the
/// shape `whole`: reduced axes repeat. An error of `at` when the shape of `t` is another.
TensorResult expanded_over(const Where& at, const Tensor* t, const Dims& whole, const std::vector<int>& axes,
                           bool keep_dims);

/// The tensor as [kept positions, reduced positions], row-major. A copy.
TensorResult reduced_axis_last(const Tensor* t, const std::vector<int>& axes);

/// A view of `t` with the axes in another order: the kept ones, then the reduced ones.
TensorResult reduced_axes_behind(const Tensor* t, const std::vector<int>& axes);

}  // namespace ornik
