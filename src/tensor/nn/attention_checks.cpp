#include "attention_checks.h"

#include "tensor/checks.h"

namespace ornik {

void check_attention_operands(const Where& at, std::initializer_list<const Tensor*> tensors) {
    const Tensor* first = *tensors.begin();
    for (const Tensor* t : tensors) {
        if (t == nullptr) {
            fail(at, "Attention needs all of its tensors but mask and biases.");
        }
        check_operands(at, t);
        if (t->Device() != first->Device()) {
            fail(ErrorKind::device, at, "Not same device for inputs of attention.");
        }
        if (t->Dtype() != first->Dtype()) {
            fail(ErrorKind::dtype, at, "Not same data type for inputs of attention.");
        }
    }
    if (!first->isFloat()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
}

void check_attention_mask(const Where& at, const Tensor* mask, std::int64_t dtype, std::int64_t device,
                          const Dims& scores) {
    if (mask == nullptr) {
        return;
    }
    check_operands(at, mask);
    if (mask->Device() != device) {
        fail(ErrorKind::device, at, "Not same device for inputs of attention.");
    }
    if (!mask->isBool() && mask->Dtype() != dtype) {
        fail(ErrorKind::dtype, at, "The mask of attention should be bool or of the inputs' data type.");
    }
    const Dims& shape = mask->Shape();
    bool fits = shape.size() <= scores.size();
    for (std::size_t i = 0; fits && i < shape.size(); ++i) {
        const std::int64_t wanted = scores[scores.size() - shape.size() + i];
        fits = shape[i] == 1 || shape[i] == wanted;
    }
    if (!fits) {
        fail(at, "A mask of shape ", shape, "does not broadcast to scores of shape ", scores);
    }
}

void check_attention_gradient(const Where& at, const Tensor* gradient, const Dims& output) {
    if (gradient->Shape() != output) {
        fail(at, "Attention needs a gradient of its output's shape ", output, ", its shape is ", gradient->Shape());
    }
}

}  // namespace ornik
