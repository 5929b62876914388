#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

void adam_delta_step(Tensor* param, Tensor* grad, float lr, float rho, float eps, Tensor* square_avg,
                     Tensor* acc_delta) {
    const Where at = where("ornik::adam_delta_step");
    check_step(at, "adam_delta_step", param, grad, {square_avg, acc_delta});
    announce_step(at, {param, square_avg, acc_delta});
    device::cpu::adadelta(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(),
                          RealParts(acc_delta).get(), {lr, rho, eps});
}

namespace nn {

void adadelta_step(Tensor* param, Tensor* grad, Tensor* square_avg, Tensor* acc_delta,
                   const AdadeltaParameters& parameters) {
    const Where at = where("ornik::nn::adadelta_step");
    check_step(at, "adadelta_step", param, grad, {square_avg, acc_delta});
    announce_step(at, {param, square_avg, acc_delta});
    device::cpu::adadelta(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(),
                          RealParts(acc_delta).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
