#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void adam_delta_step(Tensor* param, Tensor* grad, float lr, float rho, float eps, Tensor* square_avg,
                     Tensor* acc_delta) {
    check_step(where("ornik::adam_delta_step"), "adam_delta_step", param, grad, {square_avg, acc_delta});
    device::cpu::adadelta(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(),
                          RealParts(acc_delta).get(), {lr, rho, eps});
}

namespace nn {

void adadelta_step(Tensor* param, Tensor* grad, Tensor* square_avg, Tensor* acc_delta,
                   const AdadeltaParameters& parameters) {
    check_step(where("ornik::nn::adadelta_step"), "adadelta_step", param, grad, {square_avg, acc_delta});
    device::cpu::adadelta(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(),
                          RealParts(acc_delta).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
