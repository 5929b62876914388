#include "hardware/cpu/nn/cpu_dropout.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

void keep_scaled(const Tensor* in, const Tensor* kept, double scale, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_input(kept);
    elements.add_output(out);
    elements.build();
    dispatch(FloatOrComplexTypes{}, in->Dtype(), [&]<typename T>() {
        const auto factor = static_cast<element::Coefficient<T>>(scale);
        elements.run<TypeList<T>, TypeList<T, bool>>(
            [factor](T x, bool keep) { return keep ? element::scale(factor, x) : T(0); });
    });
}

}  // namespace ornik::device::cpu
