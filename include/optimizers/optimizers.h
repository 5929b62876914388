// optimizers.h: optimizer steps. All state lives in tensors of the caller, updated in place.
//
// The parameter, its gradient and the state tensors share one device, dtype (float32, float64, complex64 or
// complex128) and shape; any strides. Checks come before any write.
#pragma once

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

/// Stochastic gradient descent:
///
///   v = momentum v + (-lr) g
///   p = p + v, or with nesterov p = p + (momentum v + (-lr) g) over the new v
///
/// One pass over memory, with the bits of the two steps one after the other. param, velocity and grad must
/// not overlap.
ORNIK_API void sgd_step(Tensor* param, Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov);

}  // namespace ornik
