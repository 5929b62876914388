#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

void adam_grad_step(Tensor* param, Tensor* grad, float lr, float eps, Tensor* sum) {
    const Where at = where("ornik::adam_grad_step");
    check_step(at, "adam_grad_step", param, grad, {sum});
    announce_step(at, {param, sum});
    device::cpu::adagrad(RealParts(param).get(), RealParts(grad).get(), RealParts(sum).get(), {lr, eps});
}

namespace nn {

void adagrad_step(Tensor* param, Tensor* grad, Tensor* sum, const AdagradParameters& parameters) {
    const Where at = where("ornik::nn::adagrad_step");
    check_step(at, "adagrad_step", param, grad, {sum});
    announce_step(at, {param, sum});
    device::cpu::adagrad(RealParts(param).get(), RealParts(grad).get(), RealParts(sum).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
