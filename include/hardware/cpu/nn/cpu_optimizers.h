// cpu_optimizers.h: optimizer steps fused into one pass over memory. Internal.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// See sgd_step.
void sgd(Tensor* param, const Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov);

}  // namespace ornik::device::cpu
