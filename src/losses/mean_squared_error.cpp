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
    const Borrowed x = Borrowed::contiguous(prediction);
    const Borrowed t = Borrowed::contiguous(target);
    device::cpu::element_loss({nn::ElementLoss::mean_square, x.get(), t.get()}, nn::Reduction::mean, loss.get());
    return loss.release();
}

Tensor* LMeanSquaredError::loss_backward(Tensor* prediction, Tensor* target) {
    check(where("ornik::LMeanSquaredError::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::element_loss_grad({nn::ElementLoss::mean_square, prediction, target}, nn::Reduction::mean, nullptr,
                                   false, gradient.get());
    return gradient.release();
}

}  // namespace ornik
