// steps.h: optimizer steps with weight decay, and with the state that checkpoints hold.
//
// To all of them applies what optimizers.h says: tensors of one device, dtype and shape, single-precision
// hyper-parameters, one pass over memory. With a weight decay w above 0, g stands for g + w p. Without it the steps
// that optimizers.h has, too, give the same bits.
#pragma once

#include <cstdint>

#include "../descriptors/step_parameters.h"
#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik::nn {

/// Stochastic gradient descent whose momentum does not depend on lr, which may change between steps:
///
///   b = momentum b + (1 - dampening) g, at the first step b = g
///   p = (-lr) b + p, or with nesterov p = (-lr) (g + momentum b) + p
///
/// Without momentum b is g, and the buffer null.
ORNIK_API void sgd_step(Tensor* param, Tensor* grad, Tensor* buffer, const SgdParameters& parameters);

/// RMSprop:
///
///   s = alpha s + (1 - alpha) g^2
///   a = alpha a + (1 - alpha) g                 where `mean` is not null (centered)
///   d = g / (sqrt(max(s - a^2, 0)) + eps)       without a: g / (sqrt(s) + eps)
///   b = momentum b + d;  p = (-lr) b + p        where `buffer` is not null; without it p = (-lr) d + p
///
/// Real and imaginary parts are centered and kept apart.
ORNIK_API void rmsprop_step(Tensor* param, Tensor* grad, Tensor* square_avg, Tensor* mean, Tensor* buffer,
                            const RmspropParameters& parameters);

/// adam_step of optimizers.h, with amsgrad where vmax is not null.
ORNIK_API void adam_step(Tensor* param, Tensor* grad, Tensor* m, Tensor* v, Tensor* vmax,
                         const AdamParameters& parameters);
/// adam_max_step
ORNIK_API void adamax_step(Tensor* param, Tensor* grad, Tensor* m, Tensor* u, const AdamParameters& parameters);

/// adam_grad_step
ORNIK_API void adagrad_step(Tensor* param, Tensor* grad, Tensor* sum, const AdagradParameters& parameters);

/// adam_delta_step
ORNIK_API void adadelta_step(Tensor* param, Tensor* grad, Tensor* square_avg, Tensor* acc_delta,
                             const AdadeltaParameters& parameters);

}  // namespace ornik::nn
