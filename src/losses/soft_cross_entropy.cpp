#include "losses/soft_cross_entropy.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"

namespace ornik {

namespace {

LossOperands check(const Where& at, Tensor* prediction, Tensor* target) {
    return check_class_loss(at, "cross entropy", "Cross entropy", prediction, target, true);
}

}  // namespace

LSoftCrossEntropy::LSoftCrossEntropy() : Loss("soft_cross_entropy") {}

Tensor* LSoftCrossEntropy::loss_forward(Tensor* prediction, Tensor* target) {
    const LossOperands operands = check(where("ornik::LSoftCrossEntropy::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss = loss_value(prediction);
    device::cpu::cross_entropy({operands.prediction.get(), operands.target.get(), operands.has_indices}, loss.get());
    return loss.release();
}

Tensor* LSoftCrossEntropy::loss_backward(Tensor* prediction, Tensor* target) {
    const LossOperands operands = check(where("ornik::LSoftCrossEntropy::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::cross_entropy_grad({operands.prediction.get(), operands.target.get(), operands.has_indices}, nullptr,
                                    gradient.get(), nullptr);
    return gradient.release();
}

}  // namespace ornik
