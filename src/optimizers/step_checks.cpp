#include "step_checks.h"

#include <algorithm>
#include <iterator>

#include "tensor/checks.h"
#include "tensor/overlap.h"
#include "tensor/tensor_shape.h"

namespace ornik {

void check_step(const Where& at, const std::string& name, const Tensor* param, const Tensor* grad,
                const std::vector<const Tensor*>& states, const std::vector<const Tensor*>& idle) {
    std::vector<const Tensor*> others = states;
    others.insert(others.end(), idle.begin(), idle.end());
    others.push_back(grad);
    check_operands(at, param);
    for (const Tensor* t : others) {
        check_operands(at, t);
    }
    for (const Tensor* t : others) {
        if (t->Device() != param->Device()) {
            fail(ErrorKind::device, at, "Not same device of inputs for '", name, "'. ");
        }
    }
    for (const Tensor* t : others) {
        if (t->Dtype() != param->Dtype()) {
            fail(ErrorKind::dtype, at, "Not same data type of inputs for '", name, "'. ");
        }
    }
    for (const Tensor* t : others) {
        if (t->Shape() != grad->Shape() || param->Shape() != grad->Shape()) {
            fail(at, "Not same shape of inputs for '", name, "'. ");
        }
    }
    if (param->Dtype() < dtype::float32) {
        fail(ErrorKind::dtype, at, "'", name, "' only supports float or complex.");
    }
    std::vector<const Tensor*> written = states;
    written.push_back(param);
    for (std::size_t i = 0; i < written.size(); ++i) {
        check_not_expanded(at, written[i]);
        check_writable(at, written[i]);
        bool overlaps = memory_overlap(written[i], grad) != Overlap::none;
        for (std::size_t j = 0; j < i; ++j) {
            overlaps = overlaps || memory_overlap(written[i], written[j]) != Overlap::none;
        }
        if (overlaps) {
            fail(at, "Inputs for '", name, "' overlap in memory.");
        }
    }
}

std::vector<const Tensor*> present(std::initializer_list<const Tensor*> states) {
    std::vector<const Tensor*> result;
    std::copy_if(states.begin(), states.end(), std::back_inserter(result),
                 [](const Tensor* t) { return t != nullptr; });
    return result;
}

void announce_step(const Where& at, std::initializer_list<const Tensor*> written) {
    for (const Tensor* t : present(written)) {
        announce_write(at, t);
    }
}

void check_step_count(const Where& at, const std::string& name, std::int32_t step) {
    if (step < 1) {
        fail(at, "Step count of '", name, "' should be >= 1, however it equals ", step);
    }
}

double bias_correction(float beta, std::int32_t step) {
    // Squaring instead of std::pow, whose last bit differs between platforms.
    double power = 1;
    double square = beta;
    for (std::int32_t rest = step; rest > 0; rest /= 2) {
        if (rest % 2 == 1) {
            power *= square;
        }
        square *= square;
    }
    return 1 / (1 - power);
}

RealParts::RealParts(Tensor* t) : tensor_(t), view_(t != nullptr && t->isComplexType() ? view_as_real(t) : nullptr) {}

}  // namespace ornik
