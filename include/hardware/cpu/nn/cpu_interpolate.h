// cpu_interpolate.h: resizing of planes. Internal.
#pragma once

#include <vector>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// One output position along an axis: (1 - weight) in[first] + weight in[second].
struct InterpolationTap {
    std::int64_t first;
    std::int64_t second;  ///< first itself where weight is 0.
    double weight;
};

/// The taps of an axis with `in` and `out` positions.
std::vector<InterpolationTap> nearest_taps(std::int64_t in, std::int64_t out);
std::vector<InterpolationTap> linear_taps(std::int64_t in, std::int64_t out, bool align_corners);

/// Contiguous tensors [..., rows, cols], float32 or float64; one tap per row and per column of the output.
void interpolate(const Tensor* in, const std::vector<InterpolationTap>& rows, const std::vector<InterpolationTap>& cols,
                 Tensor* out);
/// Writes the gradient of the input; planes run in parallel, the sums of a plane in the output's order.
void interpolate_grad(const Tensor* gradient, const std::vector<InterpolationTap>& rows,
                      const std::vector<InterpolationTap>& cols, Tensor* in_gradient);

}  // namespace ornik::device::cpu
