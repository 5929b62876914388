// clipping.cpp: bounds for the gradients of parameters.
#include "modules/clipping.h"

#include <cmath>

#include "hardware/cpu/elements/called_functions.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"

namespace ornik {

double clip_grad_norm(const std::vector<KTensor>& parameters, double max_norm, bool infinity) {
    const NoGrad values_alone;
    double total = 0;
    std::vector<KTensor> gradients;
    for (const KTensor& parameter : parameters) {
        KTensor gradient = parameter.grad();
        if (!gradient.defined() || gradient.size() == 0) {
            continue;
        }
        const double norm = infinity ? astype(max(abs(gradient)), dtype::float64).item<double>()
                                     : astype(l2_norm(gradient), dtype::float64).item<double>();
        // NaN stays.
        total = infinity ? (norm > total || std::isnan(norm) ? norm : total) : elementary::called::hypot(total, norm);
        gradients.push_back(std::move(gradient));
    }
    if (const double factor = max_norm / (total + 1e-6); factor < 1) {
        for (KTensor& gradient : gradients) {
            mul_(gradient, Scalar(factor));
        }
    }
    return total;
}

void clip_grad_value(const std::vector<KTensor>& parameters, double bound) {
    const NoGrad values_alone;
    for (const KTensor& parameter : parameters) {
        if (KTensor gradient = parameter.grad(); gradient.defined()) {
            clamp_(gradient, Scalar(-bound), Scalar(bound));
        }
    }
}

}  // namespace ornik
