#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "step_checks.h"

namespace ornik {

void rmsprop_step(Tensor* param, Tensor* grad, float lr, float alpha, float eps, Tensor* square_avg) {
    const Where at = where("ornik::rmsprop_step");
    check_step(at, "rmsprop_step", param, grad, {square_avg});
    announce_write(at, param, square_avg);
    device::cpu::rmsprop(RealParts(param).get(), RealParts(grad).get(), lr, alpha, eps, RealParts(square_avg).get());
}

}  // namespace ornik
