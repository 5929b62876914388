#include "losses/mean_squared_error.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"

namespace ornik {

namespace {

void check(const Where& at, const Tensor* prediction, const Tensor* target) {
    check_loss_pair(at, "mean squared error", "Mean squared error", prediction, target);
}

}  // namespace

LMeanSquaredError::LMeanSquaredError() : Loss("mean_squared_error") {}

Tensor* LMeanSquaredError::loss_forward(Tensor* prediction, Tensor* target) {
    check(where("ornik::LMeanSquaredError::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss = loss_value(prediction);
    device::cpu::mean_squared_error(Borrowed::contiguous(prediction).get(), Borrowed::contiguous(target).get(),
                                    loss.get());
    return loss.release();
}

Tensor* LMeanSquaredError::loss_backward(Tensor* prediction, Tensor* target) {
    check(where("ornik::LMeanSquaredError::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::mean_squared_error_grad(prediction, target, gradient.get());
    return gradient.release();
}

}  // namespace ornik
