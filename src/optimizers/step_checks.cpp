#include "step_checks.h"

#include "tensor/checks.h"
#include "tensor/overlap.h"

namespace ornik {

void check_step(const Where& at, const std::string& name, const Tensor* param, const Tensor* grad,
                const std::vector<const Tensor*>& states) {
    std::vector<const Tensor*> others = states;
    others.push_back(grad);
    for (const Tensor* t : others) {
        if (t->Device() != param->Device()) {
            fail(at, "Not same device of inputs for '", name, "'. ");
        }
    }
    for (const Tensor* t : others) {
        if (t->Dtype() != param->Dtype()) {
            fail(at, "Not same data type of inputs for '", name, "'. ");
        }
    }
    for (const Tensor* t : others) {
        if (t->Shape() != grad->Shape() || param->Shape() != grad->Shape()) {
            fail(at, "Not same shape of inputs for '", name, "'. ");
        }
    }
    if (param->Dtype() < dtype::float32) {
        fail(at, "'", name, "' only supports float or complex.");
    }
    std::vector<const Tensor*> written = states;
    written.push_back(param);
    for (std::size_t i = 0; i < written.size(); ++i) {
        check_not_expanded(at, written[i]);
        bool overlaps = memory_overlap(written[i], grad) != Overlap::none;
        for (std::size_t j = 0; j < i; ++j) {
            overlaps = overlaps || memory_overlap(written[i], written[j]) != Overlap::none;
        }
        if (overlaps) {
            fail(at, "Inputs for '", name, "' overlap in memory.");
        }
    }
}

}  // namespace ornik
