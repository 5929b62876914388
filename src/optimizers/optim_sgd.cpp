#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void sgd_step(Tensor* param, Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov) {
    check_step(where("ornik::sgd_step"), "sgd_step", param, grad, {velocity});
    device::cpu::sgd(param, grad, lr, velocity, momentum, nesterov);
}

}  // namespace ornik
