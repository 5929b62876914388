// clipping.h: bounds for the gradients of parameters.
#pragma once

#include <vector>

#include "../ktensor/ktensor.h"

namespace ornik {

/// Scales all gradients by max_norm / (norm + 1e-6) where their common norm is above max_norm; gives the norm before.
/// The 2-norm, or with `infinity` the largest magnitude. Parameters without a gradient do not count.
ORNIK_API double clip_grad_norm(const std::vector<KTensor>& parameters, double max_norm, bool infinity = false);
/// Clamps every element to [-bound, bound]. Real dtypes.
ORNIK_API void clip_grad_value(const std::vector<KTensor>& parameters, double bound);

}  // namespace ornik
