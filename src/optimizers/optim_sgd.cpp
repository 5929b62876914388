#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void sgd_step(Tensor* param, Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov) {
    const Where at = where("ornik::sgd_step");
    check_step(at, "sgd_step", param, grad, {velocity});
    announce_write(at, param, velocity);
    device::cpu::sgd(param, grad, lr, velocity, momentum, nesterov);
}

}  // namespace ornik
