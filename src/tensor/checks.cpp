#include "tensor/checks.h"

#include <algorithm>

namespace ornik {

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

}  // namespace ornik
