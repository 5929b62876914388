// adam_step_with_grad.h: the arithmetic of the two Adam steps.
#pragma once

#include "hardware/cpu/nn/cpu_optimizers.h"

namespace ornik {

/// Updates real tensors; checks of the arguments, but for the dtype, and complex views are the caller's.
/// vmax is null unless the largest average is to be used.
void adam_step_with_grad(Tensor* param, const Tensor* grad, const device::cpu::AdamFactors& factors, Tensor* m,
                         Tensor* v, Tensor* vmax);

}  // namespace ornik
