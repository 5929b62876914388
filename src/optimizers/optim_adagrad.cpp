#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void adam_grad_step(Tensor* param, Tensor* grad, float lr, float eps, Tensor* sum) {
    check_step(where("ornik::adam_grad_step"), "adam_grad_step", param, grad, {sum});
    device::cpu::adagrad(RealParts(param).get(), RealParts(grad).get(), RealParts(sum).get(), {lr, eps});
}

namespace nn {

void adagrad_step(Tensor* param, Tensor* grad, Tensor* sum, const AdagradParameters& parameters) {
    check_step(where("ornik::nn::adagrad_step"), "adagrad_step", param, grad, {sum});
    device::cpu::adagrad(RealParts(param).get(), RealParts(grad).get(), RealParts(sum).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
