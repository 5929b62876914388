// images.h: resized images, and channels exchanged for resolution. Second derivatives.
#pragma once

#include <string>

#include "ktensor.h"

namespace ornik {

/// x [N, C, L] or [N, C, H, W], float32 or float64, resized to the given last extents. Modes: "nearest", "bilinear"
/// (tensor/nn/interpolate.h).
[[nodiscard]] ORNIK_API KTensor interpolate(const KTensor& x, const Dims& size, const std::string& mode = "nearest",
                                            bool align_corners = false);

/// [..., C r r, H, W] becomes [..., C, H r, W r]: y[c, h r + i, w r + j] = x[(c r + i) r + j, h, w]. Any dtype.
[[nodiscard]] ORNIK_API KTensor pixel_shuffle(const KTensor& x, std::int64_t factor);
/// The inverse.
[[nodiscard]] ORNIK_API KTensor pixel_unshuffle(const KTensor& x, std::int64_t factor);

}  // namespace ornik
