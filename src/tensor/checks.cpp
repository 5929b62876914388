#include "tensor/checks.h"

namespace ornik {

void check_not_expanded(const Where& at, const Tensor* out) {
    for (std::size_t i = 0; i < out->Shape().size(); ++i) {
        if (out->Shape()[i] > 1 && out->Strides()[i] == 0) {
            fail(at, "Output can not be an expanded view: shape ", out->Shape(), ", strides ", out->Strides());
        }
    }
}

void check_alike(const Where& at, std::string_view name, const Tensor* t, const Tensor* like) {
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
