// optim_adam.cpp: Adam and AdamW, one step with and without decay.
#include "adam_step_with_grad.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

namespace {

// Both steps speak of themselves as adam_step; `at` tells them apart.
void check_and_step(const Where& at, Tensor* param, Tensor* grad, device::cpu::AdamFactors factors, std::int32_t step,
                    Tensor* m, Tensor* v, Tensor* vmax, bool amsgrad) {
    const char* const name = "adam_step";
    if (amsgrad) {
        if (vmax == nullptr) {
            fail(at, "'", name, "' with amsgrad needs a tensor for the largest average.");
        }
        check_step(at, name, param, grad, {m, v, vmax});
    } else if (vmax != nullptr) {
        check_step(at, name, param, grad, {m, v}, {vmax});
    } else {
        check_step(at, name, param, grad, {m, v});
    }
    check_step_count(at, name, step);
    announce_step(at, {param, m, v, amsgrad ? vmax : nullptr});
    factors.first = bias_correction(factors.beta1, step);
    factors.second = bias_correction(factors.beta2, step);
    const RealParts real_param(param);
    const RealParts real_grad(grad);
    const RealParts real_m(m);
    const RealParts real_v(v);
    if (amsgrad) {
        announce_write(at, param, m, v, vmax);
        adam_step_with_grad(real_param.get(), real_grad.get(), factors, real_m.get(), real_v.get(),
                            RealParts(vmax).get());
    } else {
        announce_write(at, param, m, v);
        adam_step_with_grad(real_param.get(), real_grad.get(), factors, real_m.get(), real_v.get(), nullptr);
    }
}

}  // namespace

void adam_step_with_grad(Tensor* param, const Tensor* grad, const device::cpu::AdamFactors& factors, Tensor* m,
                         Tensor* v, Tensor* vmax) {
    if (!param->isFloat()) {
        fail(ErrorKind::dtype, where("ornik::adam_step_with_grad"), "'adam_step_with_grad' only supports float.");
    }
    device::cpu::adam(param, grad, factors, m, v, vmax);
}

void adam_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps, std::int32_t step, Tensor* m,
               Tensor* v, Tensor* vmax, bool amsgrad) {
    check_and_step(where("ornik::adam_step"), param, grad, {lr, beta1, beta2, eps, 0.0F, 1.0, 1.0}, step, m, v, vmax,
                   amsgrad);
}

void adamw_step(Tensor* param, Tensor* grad, float lr, float beta1, float beta2, float eps, float weight_decay,
                std::int32_t step, Tensor* m, Tensor* v, Tensor* vmax, bool amsgrad) {
    check_and_step(where("ornik::adamw_step"), param, grad, {lr, beta1, beta2, eps, weight_decay, 1.0, 1.0}, step, m, v,
                   vmax, amsgrad);
}

namespace nn {

void adam_step(Tensor* param, Tensor* grad, Tensor* m, Tensor* v, Tensor* vmax, const AdamParameters& p) {
    check_and_step(where("ornik::nn::adam_step"), param, grad,
                   {p.lr, p.beta1, p.beta2, p.eps, 0.0F, 1.0, 1.0, p.weight_decay}, p.step, m, v, vmax,
                   vmax != nullptr);
}

}  // namespace nn

}  // namespace ornik
