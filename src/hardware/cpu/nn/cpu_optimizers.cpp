#include "hardware/cpu/nn/cpu_optimizers.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/element_math.h"

namespace ornik::device::cpu {

void sgd(Tensor* param, const Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov) {
    MultiTensorIterationHelper elements;
    elements.add_input(velocity);
    elements.add_input(grad);
    elements.add_input(param);
    elements.add_output(velocity);
    elements.add_output(param);
    elements.build();
    dispatch(FloatOrComplexTypes{}, param->Dtype(), [&]<typename T>() {
        const auto keep = convert_element<element::Coefficient<T>>(momentum);
        const auto step = convert_element<element::Coefficient<T>>(-lr);
        const auto combine = [keep, step](T v, T g) { return element::scale<T>(keep, v) + element::scale<T>(step, g); };
        if (nesterov) {
            elements.run<TypeList<T, T>, TypeList<T, T, T>>([combine](T v, T g, T p) {
                const T velocity_now = combine(v, g);
                return std::tuple{velocity_now, combine(velocity_now, g) + p};
            });
        } else {
            elements.run<TypeList<T, T>, TypeList<T, T, T>>([combine](T v, T g, T p) {
                const T velocity_now = combine(v, g);
                return std::tuple{velocity_now, p + velocity_now};
            });
        }
    });
}

}  // namespace ornik::device::cpu
