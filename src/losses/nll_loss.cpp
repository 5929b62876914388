#include "losses/nll_loss.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"

namespace ornik {

namespace {

LossOperands check(const Where& at, Tensor* prediction, Tensor* target) {
    return check_class_loss(at, "negative log-likelihood", "Negative log-likelihood", prediction, target, false);
}

}  // namespace

LNLL_Loss::LNLL_Loss() : Loss("nll_loss") {}

Tensor* LNLL_Loss::loss_forward(Tensor* prediction, Tensor* target) {
    const LossOperands operands = check(where("ornik::LNLL_Loss::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss = loss_value(prediction);
    device::cpu::nll_loss({operands.prediction.get(), operands.target.get()}, loss.get());
    return loss.release();
}

Tensor* LNLL_Loss::loss_backward(Tensor* prediction, Tensor* target) {
    const LossOperands operands = check(where("ornik::LNLL_Loss::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::nll_loss_grad({operands.prediction.get(), operands.target.get()}, nullptr, gradient.get());
    return gradient.release();
}

}  // namespace ornik
