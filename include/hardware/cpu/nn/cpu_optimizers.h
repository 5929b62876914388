// cpu_optimizers.h: optimizer steps fused into one pass over memory. Internal.
//
// The formulas are those of optimizers/optimizers.h. All but sgd take real tensors.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

void sgd(Tensor* param, const Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov);
void rmsprop(Tensor* param, const Tensor* grad, float lr, float alpha, float eps, Tensor* square_avg);

struct AdamFactors {
    float lr, beta1, beta2, eps;
    float weight_decay;    // 0 for none
    double first, second;  // bias corrections of m and v: 1 / (1 - beta^step)
};
/// vmax is null unless the largest v so far is to be used.
void adam(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* v, Tensor* vmax);
void adamax(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* u);
void adagrad(Tensor* param, const Tensor* grad, float lr, float eps, Tensor* sum);
void adadelta(Tensor* param, const Tensor* grad, float lr, float rho, float eps, Tensor* square_avg, Tensor* acc_delta);

}  // namespace ornik::device::cpu
