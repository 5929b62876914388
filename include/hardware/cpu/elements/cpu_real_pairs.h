// cpu_real_pairs.h: kernels of functions of two real numbers (tensor/tensor_math/real_pairs.h). Internal.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

enum class RealPair { floor_divide, copysign, hypot, logaddexp, nextafter };

/// All three of one floating dtype, or, for floor_divide, of an integer one. `out` is new.
void real_pair(RealPair operation, const Tensor* a, const Tensor* b, Tensor* out);

/// x of a real dtype; out is bool.
void signbit(const Tensor* x, Tensor* out);

}  // namespace ornik::device::cpu
