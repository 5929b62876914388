// convolutions.h: convolutions and pooling of [N, C, L] and [N, C, H, W]. First derivatives.
#pragma once

#include "../layers/functional/conv.h"
#include "../layers/functional/pool.h"
#include "ktensor.h"

namespace ornik {

/// Weight [channels, C / groups, kernel...], or transposed [C, channels / groups, kernel...]; bias [channels] or
/// undefined. One floating or complex dtype. Output extents: layers/functional/conv.h.
[[nodiscard]] ORNIK_API KTensor convolution(const KTensor& x, const KTensor& weight, const KTensor& bias,
                                            const nn::ConvParameters& parameters = {});

/// The largest element of each window. float32 and float64.
[[nodiscard]] ORNIK_API KTensor max_pool(const KTensor& x, const nn::PoolParameters& parameters);
/// The same with the int32 positions of the elements in their planes.
[[nodiscard]] ORNIK_API std::pair<KTensor, KTensor> max_pool_with_positions(const KTensor& x,
                                                                            const nn::PoolParameters& parameters);
/// The mean of each window; padding counts as zeros.
[[nodiscard]] ORNIK_API KTensor average_pool(const KTensor& x, const nn::PoolParameters& parameters);
/// The mean of each of `output` windows per axis.
[[nodiscard]] ORNIK_API KTensor adaptive_average_pool(const KTensor& x, const std::array<std::int64_t, 2>& output);
/// The largest element of each of these windows; equal ones share its gradient. Any real dtype; second derivatives.
[[nodiscard]] ORNIK_API KTensor adaptive_max_pool(const KTensor& x, const std::array<std::int64_t, 2>& output);
/// [N, C] of [N, C, ...]: the mean, and the largest element, of each channel. Second derivatives.
[[nodiscard]] ORNIK_API KTensor global_average_pool(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor global_max_pool(const KTensor& x);

}  // namespace ornik
