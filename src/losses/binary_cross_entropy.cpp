#include "losses/binary_cross_entropy.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"

namespace ornik {

namespace {

// The probabilities, contiguous.
Borrowed check(const Where& at, Tensor* prediction, const Tensor* target) {
    check_loss_pair(at, "binary cross entropy", "Binary cross entropy", prediction, target);
    Borrowed probabilities = Borrowed::contiguous(prediction);
    if (!device::cpu::in_unit_interval(probabilities.get())) {
        fail(at, "Binary cross entropy needs probabilities between 0 and 1.");
    }
    return probabilities;
}

}  // namespace

LBinaryCrossEntropy::LBinaryCrossEntropy() : Loss("binary_cross_entropy") {}

Tensor* LBinaryCrossEntropy::loss_forward(Tensor* prediction, Tensor* target) {
    const Borrowed p = check(where("ornik::LBinaryCrossEntropy::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss = loss_value(prediction);
    device::cpu::binary_cross_entropy(p.get(), Borrowed::contiguous(target).get(), loss.get());
    return loss.release();
}

Tensor* LBinaryCrossEntropy::loss_backward(Tensor* prediction, Tensor* target) {
    const Borrowed p = check(where("ornik::LBinaryCrossEntropy::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::binary_cross_entropy_grad(p.get(), target, gradient.get());
    return gradient.release();
}

}  // namespace ornik
