#include "loss_operands.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "tensor/checks.h"

namespace ornik {

namespace {

void check_prediction(const Where& at, std::string_view name, std::string_view title, const Tensor* prediction,
                      const Tensor* target) {
    if (prediction == nullptr || target == nullptr) {
        fail(at, title, " needs a prediction and a target.");
    }
    check_operands(at, prediction, target);
    if (prediction->Device() != target->Device()) {
        fail(at, "Not same device for inputs of ", name, ".");
    }
    if (!prediction->isFloat()) {
        fail(at, "Not valid dtype for this function.");
    }
}

void check_target(const Where& at, std::string_view name, const Tensor* prediction, const Tensor* target) {
    if (target->Dtype() != prediction->Dtype()) {
        fail(at, "Not same data type for inputs of ", name, ".");
    }
    if (target->Shape() != prediction->Shape()) {
        fail(at, "Target of shape ", target->Shape(), "does not fit a prediction of shape ", prediction->Shape());
    }
}

Borrowed class_indices(const Where& at, Tensor* target, const Dims& shape, std::optional<std::int64_t> ignored) {
    const Dims leading(shape.begin(), shape.end() - 1);
    Dims leading_and_one = leading;
    leading_and_one.push_back(1);
    if (target->Shape() != leading && target->Shape() != leading_and_one) {
        fail(at, "Class indices of shape ", target->Shape(), "do not fit a prediction of shape ", shape);
    }
    // A conversion is contiguous already; otherwise the tensor has the dtype and may need a copy.
    Borrowed indices =
        target->Dtype() == dtype::int64 ? Borrowed::contiguous(target) : Borrowed::of_dtype(target, dtype::int64);
    if (!device::cpu::classes_in_range(indices.get(), shape.back(), ignored)) {
        fail(at, "Class index out of range, there are ", shape.back(), " classes.");
    }
    return indices;
}

}  // namespace

void check_loss_pair(const Where& at, std::string_view name, std::string_view title, const Tensor* prediction,
                     const Tensor* target, bool may_be_empty) {
    check_prediction(at, name, title, prediction, target);
    if (prediction->Size() < 1 && !may_be_empty) {
        fail(at, title, " needs at least one element, however the prediction is ", prediction->Shape());
    }
    check_target(at, name, prediction, target);
}

LossOperands check_class_loss(const Where& at, std::string_view name, std::string_view title, Tensor* prediction,
                              Tensor* target, bool weights_too, std::optional<std::int64_t> ignored,
                              bool may_be_empty) {
    check_prediction(at, name, title, prediction, target);
    const Dims& shape = prediction->Shape();
    if (shape.empty() || shape.back() < 1 || (prediction->Size() < 1 && !may_be_empty)) {
        fail(at, title, " needs a prediction [..., classes], however it is ", shape);
    }
    if (target->isInteger() && !target->isBool()) {
        Borrowed indices = class_indices(at, target, shape, ignored);
        return {Borrowed::contiguous(prediction), std::move(indices), true};
    }
    if (!weights_too) {
        fail(at, title, " needs class indices of an integer dtype.");
    }
    check_target(at, name, prediction, target);
    return {Borrowed::contiguous(prediction), Borrowed::contiguous(target), false};
}

void check_probabilities(const Where& at, const Tensor* prediction) {
    if (!device::cpu::in_unit_interval(prediction)) {
        fail(at, "Binary cross entropy needs probabilities between 0 and 1.");
    }
}

std::unique_ptr<Tensor> loss_value(const Tensor* prediction) {
    return std::unique_ptr<Tensor>(Tensor::empty({}, prediction->Device(), prediction->Dtype()));
}

}  // namespace ornik
