// normalizations.h: normalizations. First derivatives unless said otherwise.
//
// y = (x - mean) / sqrt(variance + eps) * weight + bias, with the biased variance. Weight and bias may be undefined: 1
// and 0. float32 and float64, one dtype throughout.
#pragma once

#include <vector>

#include "ktensor.h"

namespace ornik {

/// x [N, C, ...] by the statistics of each channel, or, not in training, by the running ones (undefined: by its own).
/// In training the running statistics, if defined, move: (1 - momentum) running + momentum batch, with the unbiased
/// variance; not while a checkpoint is recomputed.
[[nodiscard]] ORNIK_API KTensor batch_norm(const KTensor& x, KTensor running_mean, KTensor running_variance,
                                           const KTensor& weight, const KTensor& bias, bool training,
                                           double momentum = 0.1, double eps = 1e-5);
/// By the statistics of the last axes, whose extents are `normalized_shape`; weight and bias have that shape.
[[nodiscard]] ORNIK_API KTensor layer_norm(const KTensor& x, const Dims& normalized_shape, const KTensor& weight,
                                           const KTensor& bias, double eps = 1e-5);
/// x [N, C, ...] by the statistics of each sample's groups of C / groups channels; weight and bias are [C].
[[nodiscard]] ORNIK_API KTensor group_norm(const KTensor& x, std::int64_t groups, const KTensor& weight,
                                           const KTensor& bias, double eps = 1e-5);

/// x over its norm along the axes, or over eps where that is less. Second derivatives, here and below.
[[nodiscard]] ORNIK_API KTensor normalize(const KTensor& x, const std::vector<int>& axes = {-1}, double eps = 1e-12);
/// The product of the normalized operands, which broadcast, summed along the axis: cosines of angles between vectors.
[[nodiscard]] ORNIK_API KTensor cosine_similarity(const KTensor& a, const KTensor& b, int axis = -1, double eps = 1e-8);

}  // namespace ornik
