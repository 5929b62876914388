#include "hardware/cpu/nn/cpu_optimizers.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "step_checks.h"

namespace ornik {

void rmsprop_step(Tensor* param, Tensor* grad, float lr, float alpha, float eps, Tensor* square_avg) {
    const Where at = where("ornik::rmsprop_step");
    check_step(at, "rmsprop_step", param, grad, {square_avg});
    announce_step(at, {param, square_avg});
    nn::RmspropParameters parameters;
    parameters.lr = lr;
    parameters.alpha = alpha;
    parameters.eps = eps;
    device::cpu::rmsprop(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(), nullptr, nullptr,
                         parameters);
}

namespace nn {

void rmsprop_step(Tensor* param, Tensor* grad, Tensor* square_avg, Tensor* mean, Tensor* buffer,
                  const RmspropParameters& parameters) {
    const Where at = where("ornik::nn::rmsprop_step");
    if (buffer == nullptr && parameters.momentum != 0) {
        fail(at, "'rmsprop_step' with momentum needs a buffer.");
    }
    check_step(at, "rmsprop_step", param, grad, present({square_avg, mean, buffer}));
    announce_step(at, {param, square_avg, mean, buffer});
    device::cpu::rmsprop(RealParts(param).get(), RealParts(grad).get(), RealParts(square_avg).get(),
                         RealParts(mean).get(), RealParts(buffer).get(), parameters);
}

}  // namespace nn

}  // namespace ornik
