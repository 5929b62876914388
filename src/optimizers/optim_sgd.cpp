#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

void sgd_step(Tensor* param, Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov) {
    const Where at = where("ornik::sgd_step");
    check_step(at, "sgd_step", param, grad, {velocity});
    announce_step(at, {param, velocity});
    device::cpu::sgd(param, grad, lr, velocity, momentum, nesterov);
}

namespace nn {

void sgd_step(Tensor* param, Tensor* grad, Tensor* buffer, const SgdParameters& parameters) {
    const Where at = where("ornik::nn::sgd_step");
    if ((buffer == nullptr) != (parameters.momentum == 0)) {
        fail(at, "'sgd_step' needs a buffer with momentum, and none without.");
    }
    if (parameters.nesterov && (buffer == nullptr || parameters.dampening != 0)) {
        fail(at, "'sgd_step' by Nesterov needs momentum and no dampening.");
    }
    check_step(at, "sgd_step", param, grad, present({buffer}));
    announce_step(at, {param, buffer});
    device::cpu::sgd_with_buffer(RealParts(param).get(), RealParts(grad).get(), RealParts(buffer).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
