#include "losses/soft_cross_entropy.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "tensor/borrowed.h"

namespace ornik {

namespace {

// Prediction and target as the kernels take them: contiguous, indices as int64.
struct Operands {
    Borrowed prediction;
    Borrowed target;
    bool has_indices;
};

Borrowed contiguous_indices(const Where& at, Tensor* target, std::int64_t classes) {
    // A conversion is contiguous already; otherwise the tensor has the dtype and may need a copy.
    Borrowed indices =
        target->Dtype() == dtype::int64 ? Borrowed::contiguous(target) : Borrowed::of_dtype(target, dtype::int64);
    if (!device::cpu::classes_in_range(indices.get(), classes)) {
        fail(at, "Class index out of range, there are ", classes, " classes.");
    }
    return indices;
}

Operands check(const Where& at, Tensor* prediction, Tensor* target) {
    if (prediction->Device() != target->Device()) {
        fail(at, "Not same device for inputs of cross entropy.");
    }
    if (!prediction->isFloat()) {
        fail(at, "Not valid dtype for this function.");
    }
    const Dims& shape = prediction->Shape();
    if (shape.empty() || prediction->Size() < 1) {
        fail(at, "Cross entropy needs a prediction [..., classes], however it is ", shape);
    }
    const bool has_indices = target->isInteger() && !target->isBool();
    if (has_indices) {
        const Dims leading(shape.begin(), shape.end() - 1);
        Dims leading_and_one = leading;
        leading_and_one.push_back(1);
        if (target->Shape() != leading && target->Shape() != leading_and_one) {
            fail(at, "Class indices of shape ", target->Shape(), "do not fit a prediction of shape ", shape);
        }
        return {Borrowed::contiguous(prediction), contiguous_indices(at, target, shape.back()), true};
    }
    if (target->Dtype() != prediction->Dtype()) {
        fail(at, "Not same data type for inputs of cross entropy.");
    }
    if (target->Shape() != shape) {
        fail(at, "Target of shape ", target->Shape(), "does not fit a prediction of shape ", shape);
    }
    return {Borrowed::contiguous(prediction), Borrowed::contiguous(target), false};
}

}  // namespace

LSoftCrossEntropy::LSoftCrossEntropy() : Loss("soft_cross_entropy") {}

Tensor* LSoftCrossEntropy::loss_forward(Tensor* prediction, Tensor* target) {
    const Operands operands = check(where("ornik::LSoftCrossEntropy::loss_forward"), prediction, target);
    std::unique_ptr<Tensor> loss(Tensor::empty({}, prediction->Device(), prediction->Dtype()));
    device::cpu::soft_cross_entropy(operands.prediction.get(), operands.target.get(), operands.has_indices, loss.get());
    return loss.release();
}

Tensor* LSoftCrossEntropy::loss_backward(Tensor* prediction, Tensor* target) {
    const Operands operands = check(where("ornik::LSoftCrossEntropy::loss_backward"), prediction, target);
    std::unique_ptr<Tensor> gradient(Tensor::empty_like(prediction));
    device::cpu::soft_cross_entropy_grad(operands.prediction.get(), operands.target.get(), operands.has_indices,
                                         gradient.get());
    return gradient.release();
}

}  // namespace ornik
