// cpu_optimizers.h: optimizer steps fused into one pass over memory. Internal.
//
// The formulas are those of optimizers/optimizers.h and optimizers/steps.h. All but sgd take real tensors; optional
// states are null.
#pragma once

#include "../../../descriptors/step_parameters.h"
#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

void sgd(Tensor* param, const Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov);
void sgd_with_buffer(Tensor* param, const Tensor* grad, Tensor* buffer, const nn::SgdParameters& parameters);
void rmsprop(Tensor* param, const Tensor* grad, Tensor* square_avg, Tensor* mean, Tensor* buffer,
             const nn::RmspropParameters& parameters);

struct AdamFactors {
    float lr, beta1, beta2, eps;
    float weight_decay;       // 0 for none
    double first, second;     // bias corrections of m and v: 1 / (1 - beta^step)
    float coupled_decay = 0;  // of the gradient
};
/// vmax is null unless the largest v so far is to be used.
void adam(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* v, Tensor* vmax);
void adamax(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* u);
void adagrad(Tensor* param, const Tensor* grad, Tensor* sum, const nn::AdagradParameters& parameters);
void adadelta(Tensor* param, const Tensor* grad, Tensor* square_avg, Tensor* acc_delta,
              const nn::AdadeltaParameters& parameters);

}  // namespace ornik::device::cpu
