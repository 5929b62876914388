#include "losses/binary_cross_entropy.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"

namespace ornik {

namespace {

// The probabilities, contiguous.
Borrowed check(const Where& at, Tensor* prediction, const Tensor* target) {
    check_loss_pair(at, "binary cross entropy", "Binary cross entropy", prediction, target);
    Borrowed probabilities = Borrowed::contiguous(prediction);
    check_probabilities(at, probabilities.get());
    return probabilities;
}

}  // namespace

LBinaryCrossEntropy::LBinaryCrossEntropy() : Loss("binary_cross_entropy") {}

Tensor* LBinaryCrossEntropy::loss_forward(Tensor* prediction, Tensor* target) {
    const Borrowed p = check(where("ornik::LBinaryCrossEntropy::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss = loss_value(prediction);
    const Borrowed t = Borrowed::contiguous(target);
    device::cpu::element_loss({nn::ElementLoss::binary_cross_entropy, p.get(), t.get()}, nn::Reduction::mean,
                              loss.get());
    return loss.release();
}

Tensor* LBinaryCrossEntropy::loss_backward(Tensor* prediction, Tensor* target) {
    const Borrowed p = check(where("ornik::LBinaryCrossEntropy::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::element_loss_grad({nn::ElementLoss::binary_cross_entropy, p.get(), target}, nn::Reduction::mean,
                                   nullptr, false, gradient.get());
    return gradient.release();
}

}  // namespace ornik
