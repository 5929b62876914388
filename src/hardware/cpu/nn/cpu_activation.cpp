#include "hardware/cpu/nn/cpu_activation.h"

#include <initializer_list>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/cpu_elements.h"

namespace ornik::device::cpu {

namespace {

MultiTensorIterationHelper elements_of(std::initializer_list<const Tensor*> inputs, Tensor* out) {
    MultiTensorIterationHelper elements;
    for (const Tensor* input : inputs) {
        elements.add_input(input);
    }
    elements.add_output(out);
    elements.build();
    return elements;
}

}  // namespace

void relu(const Tensor* in, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({in}, out);
    dispatch(RealTypes{}, in->Dtype(),
             [&]<typename T>() { elements.run<TypeList<T>, TypeList<T>>([](T x) { return x <= T(0) ? T(0) : x; }); });
}

void relu_grad(const Tensor* in, const Tensor* gradient, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({in, gradient}, out);
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        elements.run<TypeList<T>, TypeList<T, T>>([](T x, T g) { return x > T(0) ? g : T(0); });
    });
}

void leaky_relu(const Tensor* in, double slope, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({in}, out);
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T below = static_cast<T>(slope);
        elements.run<TypeList<T>, TypeList<T>>([below](T x) { return x > T(0) ? x : below * x; });
    });
}

void leaky_relu_grad(const Tensor* in, const Tensor* gradient, double slope, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({in, gradient}, out);
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T below = static_cast<T>(slope);
        elements.run<TypeList<T>, TypeList<T, T>>([below](T x, T g) { return x > T(0) ? g : below * g; });
    });
}

void elu(const Tensor* in, double slope, double scale, Tensor* out) {
    unary(operations::Unary::expm1, in, out);
    const MultiTensorIterationHelper elements = elements_of({in, out}, out);
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T above = static_cast<T>(scale);
        const T below = above * static_cast<T>(slope);
        elements.run<TypeList<T>, TypeList<T, T>>(
            [above, below](T x, T power) { return x > T(0) ? above * x : below * power; });
    });
}

void elu_grad(const Tensor* in, const Tensor* y, const Tensor* gradient, double slope, double scale, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({in, y, gradient}, out);
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T above = static_cast<T>(scale);
        const T below = above * static_cast<T>(slope);
        elements.run<TypeList<T>, TypeList<T, T, T>>(
            [above, below](T x, T value, T g) { return g * (x > T(0) ? above : value + below); });
    });
}

}  // namespace ornik::device::cpu
