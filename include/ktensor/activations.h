// activations.h: activations of networks, and dropout. (sigmoid, tanh, gelu, silu, softplus and logsigmoid stand in
// elements.h, softmax in reductions.h.)
#pragma once

#include "ktensor.h"

namespace ornik {

/// max(x, 0); NaN stays NaN. Real dtypes. The gradient at 0 is 0.
[[nodiscard]] ORNIK_API KTensor relu(const KTensor& x);
ORNIK_API KTensor& relu_(KTensor& x);

// float32 and float64; first derivatives. The forms whose names end in _ work in place.

/// x above 0, slope x else.
[[nodiscard]] ORNIK_API KTensor leaky_relu(const KTensor& x, float slope = 0.01F);
ORNIK_API KTensor& leaky_relu_(KTensor& x, float slope = 0.01F);
/// x above 0, alpha (exp(x) - 1) else.
[[nodiscard]] ORNIK_API KTensor elu(const KTensor& x, float alpha = 1);
ORNIK_API KTensor& elu_(KTensor& x, float alpha = 1);
/// 1.0507 x above 0, 1.0507 * 1.67326 (exp(x) - 1) else (Klambauer and others, 2017).
[[nodiscard]] ORNIK_API KTensor selu(const KTensor& x);
ORNIK_API KTensor& selu_(KTensor& x);
/// x cut off at low and high; the gradient at the bounds is 0.
[[nodiscard]] ORNIK_API KTensor hardtanh(const KTensor& x, double low = -1, double high = 1);
ORNIK_API KTensor& hardtanh_(KTensor& x, double low = -1, double high = 1);
[[nodiscard]] inline KTensor relu6(const KTensor& x) { return hardtanh(x, 0, 6); }
inline KTensor& relu6_(KTensor& x) { return hardtanh_(x, 0, 6); }
/// (x + 3) / 6 cut off at 0 and 1.
[[nodiscard]] ORNIK_API KTensor hardsigmoid(const KTensor& x);
ORNIK_API KTensor& hardsigmoid_(KTensor& x);
/// x hardsigmoid(x)
[[nodiscard]] ORNIK_API KTensor hardswish(const KTensor& x);
ORNIK_API KTensor& hardswish_(KTensor& x);
/// x tanh(softplus(x)) (Misra, 2019)
[[nodiscard]] ORNIK_API KTensor mish(const KTensor& x);
ORNIK_API KTensor& mish_(KTensor& x);

/// With probability p an element becomes 0; the others are scaled by 1 / (1 - p). Without `training`, x itself.
[[nodiscard]] ORNIK_API KTensor dropout(const KTensor& x, double p = 0.5, bool training = true);
/// Whole channels of x [N, C, ...] at once.
[[nodiscard]] ORNIK_API KTensor dropout_channels(const KTensor& x, double p = 0.5, bool training = true);

}  // namespace ornik
