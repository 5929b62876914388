// cpu_dropout.h: zeros where a mask says so. Internal.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = scale in where `kept` (bool) is true, else 0. Floating and complex, of one shape, any strides.
void keep_scaled(const Tensor* in, const Tensor* kept, double scale, Tensor* out);

}  // namespace ornik::device::cpu
