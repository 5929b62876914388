#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

namespace {

void check_and_step(const Where& at, const char* name, Tensor* param, Tensor* grad, device::cpu::AdamFactors factors,
                    std::int32_t step, Tensor* m, Tensor* u) {
    check_step(at, name, param, grad, {m, u});
    check_step_count(at, name, step);
    announce_step(at, {param, m, u});
    factors.first = bias_correction(factors.beta1, step);
    device::cpu::adamax(RealParts(param).get(), RealParts(grad).get(), factors, RealParts(m).get(), RealParts(u).get());
}

}  // namespace

void adam_max_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps, std::int32_t step,
                   Tensor* m, Tensor* u) {
    check_and_step(where("ornik::adam_max_step"), "adam_max_step", param, grad, {lr, beta1, beta2, eps, 0.0F, 1.0, 1.0},
                   step, m, u);
}

namespace nn {

void adamax_step(Tensor* param, Tensor* grad, Tensor* m, Tensor* u, const AdamParameters& p) {
    check_and_step(where("ornik::nn::adamax_step"), "adamax_step", param, grad,
                   {p.lr, p.beta1, p.beta2, p.eps, 0.0F, 1.0, 1.0, p.weight_decay}, p.step, m, u);
}

}  // namespace nn

}  // namespace ornik
