#include "tensor/checks.h"

namespace ornik {

void check_not_expanded(const Where& at, const Tensor* out) {
    for (std::size_t i = 0; i < out->Shape().size(); ++i) {
        if (out->Shape()[i] > 1 && out->Strides()[i] == 0) {
            fail(at, "Output can not be an expanded view: shape ", out->Shape(), ", strides ", out->Strides());
        }
    }
}

}  // namespace ornik
