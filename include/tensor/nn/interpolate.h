// interpolate.h: resizing of images, and its gradient.
#pragma once

#include <string>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// input [batch, channels, rows, cols], float32 or float64, any strides, resized to [batch, channels, size[0],
/// size[1]]; a new tensor that the caller deletes. Modes, along each axis with `in` and `out` positions:
///
///   "nearest"   out[i] = in[floor(i in / out)]
///   "bilinear"  between the two neighbours of the position (i + 0.5) in / out - 0.5, or, with align_corners,
///               i (in - 1) / (out - 1); positions outside are moved to the edge
///
/// align_corners belongs to "bilinear" alone.
[[nodiscard]] ORNIK_API Tensor* interpolate(Tensor* input, const Dims& size, const std::string& mode,
                                            bool align_corners = false);

/// The gradient for an input of `input_shape`; output_gradient is shaped as the resized images.
[[nodiscard]] ORNIK_API Tensor* interpolate_grad(Tensor* output_gradient, const Dims& input_shape,
                                                 const std::string& mode, bool align_corners = false);

}  // namespace ornik
