#include "hardware/cpu/nn/cpu_activation.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"

namespace ornik::device::cpu {

void relu(const Tensor* in, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_output(out);
    elements.build();
    dispatch(RealTypes{}, in->Dtype(),
             [&]<typename T>() { elements.run<TypeList<T>, TypeList<T>>([](T x) { return x <= T(0) ? T(0) : x; }); });
}

void relu_grad(const Tensor* in, const Tensor* gradient, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_input(gradient);
    elements.add_output(out);
    elements.build();
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        elements.run<TypeList<T>, TypeList<T, T>>([](T x, T g) { return x > T(0) ? g : T(0); });
    });
}

}  // namespace ornik::device::cpu
