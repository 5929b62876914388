#include "tensor/checks.h"

#include <algorithm>

namespace ornik {

void detail::refuse_operand(const Where& at, const Tensor* t) {
    if (t == nullptr) {
        fail(at, "An operand is null, a tensor is needed.");
    }
    if (!t->is_dense()) {
        fail(at, "An operand of shape ", t->Shape(), "is not dense (layout code ", t->Layout(),
             "), a dense tensor is needed.");
    }
    fail(at, "An operand of shape ", t->Shape(), "has no storage, a tensor with elements is needed.");
}

void detail::refuse_output(const Where& at, const Tensor* t) {
    if (!has_elements(t)) {
        refuse_operand(at, t);
    }
    fail(ErrorKind::state, at, "A tensor of shape ", t->Shape(), "is to be written, but its storage is read-only.");
}

void check_not_expanded(const Where& at, const Tensor* out) {
    if (std::find(out->Shape().begin(), out->Shape().end(), 0) != out->Shape().end()) {
        return;  // No elements, no places: the strides of an empty tensor may be 0.
    }
    for (std::size_t i = 0; i < out->Shape().size(); ++i) {
        if (out->Shape()[i] > 1 && out->Strides()[i] == 0) {
            fail(at, "Output can not be an expanded view: shape ", out->Shape(), ", strides ", out->Strides());
        }
    }
}

void check_alike(const Where& at, std::string_view name, const Tensor* t, const Tensor* like) {
    check_operands(at, t);
    if (t->Device() != like->Device()) {
        fail(at, "Not same device for inputs of ", name, ".");
    }
    if (t->Dtype() != like->Dtype()) {
        fail(at, "Not same data type for inputs of ", name, ".");
    }
}

void check_output_gradient(const Where& at, std::string_view name, const Tensor* gradient, const Tensor* like,
                           const Dims& shape) {
    if (gradient == nullptr) {
        fail(at, "The gradient of ", name, " needs its output's gradient.");
    }
    check_alike(at, name, gradient, like);
    if (gradient->Shape() != shape) {
        fail(at, "The output of ", name, " has the shape ", shape, "but its gradient the shape ", gradient->Shape());
    }
}

}  // namespace ornik
