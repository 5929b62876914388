// optimizers.h: optimizer steps. All state lives in tensors of the caller, updated in place.
//
// The parameter, its gradient and the state tensors share one device, dtype (float32, float64, complex64 or
// complex128) and shape; any strides; what is written neither overlaps another tensor nor is an expanded
// view. Checks come before any write. Real and imaginary parts of complex tensors are independent real
// numbers to every step. Hyper-parameters and 1 - beta are single-precision numbers for every dtype.
//
// A step is one pass over memory: each element sees the operations of the formulas below in the order in
// which they are written, each rounded to the dtype. Powers and roots act element by element.
#pragma once

#include <cstdint>

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

/// Stochastic gradient descent:
///
///   v = momentum v + (-lr) g
///   p = p + v, or with nesterov p = p + (momentum v + (-lr) g) over the new v
ORNIK_API void sgd_step(Tensor* param, Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov);

/// RMSprop:
///
///   s = alpha s + (1 - alpha) g^2
///   p = (-lr) (g / (sqrt(s) + eps)) + p
ORNIK_API void rmsprop_step(Tensor* param, Tensor* grad, float lr, float alpha, float eps, Tensor* square_avg);

/// Adam, with bias correction; `step` counts from 1:
///
///   m = beta1 m + (1 - beta1) g
///   v = beta2 v + (1 - beta2) g^2
///   p = (-lr) (c1 m / (sqrt(c2 v) + eps)) + p    where c = 1 / (1 - beta^step)
///
/// With amsgrad, vmax = max(vmax, v) takes the place of v in the last line. Without it vmax is checked like
/// the other tensors and left alone; it may be null.
ORNIK_API void adam_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps, std::int32_t step,
                         Tensor* m, Tensor* v, Tensor* vmax, bool amsgrad);

/// Adam with decoupled weight decay: p = p + (-(lr weight_decay)) p comes first, the step of adam_step after it.
ORNIK_API void adamw_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps,
                          float weight_decay, std::int32_t step, Tensor* m, Tensor* v, Tensor* vmax, bool amsgrad);

/// Adamax; `step` counts from 1:
///
///   m = beta1 m + (1 - beta1) g
///   u = max(beta2 u, |g| + eps)
///   p = (-lr) (c1 m / u) + p    where c1 = 1 / (1 - beta1^step)
ORNIK_API void adam_max_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps,
                             std::int32_t step, Tensor* m, Tensor* u);

/// Adagrad:
///
///   s = s + g^2
///   p = (-lr) (g / (sqrt(s) + eps)) + p
ORNIK_API void adam_grad_step(Tensor* param, Tensor* grad, float lr, float eps, Tensor* sum);

/// Adadelta:
///
///   s = rho s + (1 - rho) g^2
///   d = sqrt(a + eps) / sqrt(s + eps) g
///   a = rho a + (1 - rho) d^2
///   p = (-lr) d + p
ORNIK_API void adam_delta_step(Tensor* param, Tensor* grad, float lr, float rho, float eps, Tensor* square_avg,
                               Tensor* acc_delta);

}  // namespace ornik
