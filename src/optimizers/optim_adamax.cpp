#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void adam_max_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps, std::int32_t step,
                   Tensor* m, Tensor* u) {
    const Where at = where("ornik::adam_max_step");
    check_step(at, "adam_max_step", param, grad, {m, u});
    check_step_count(at, "adam_max_step", step);
    device::cpu::AdamFactors factors{};
    factors.lr = lr;
    factors.beta1 = beta1;
    factors.beta2 = beta2;
    factors.eps = eps;
    factors.first = bias_correction(beta1, step);
    announce_write(at, param, m, u);
    device::cpu::adamax(RealParts(param).get(), RealParts(grad).get(), factors, RealParts(m).get(), RealParts(u).get());
}

}  // namespace ornik
