#include "hardware/cpu/reduce/cpu_reduce_grad.h"

#include <cmath>
#include <initializer_list>
#include <limits>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"

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

void scaled(const Tensor* g, double factor, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({g}, out);
    dispatch(FloatOrComplexTypes{}, out->Dtype(), [&]<typename T>() {
        const auto scale = static_cast<element::Coefficient<T>>(factor);
        elements.run<TypeList<T>, TypeList<T>>([scale](T gradient) { return element::scale<T>(scale, gradient); });
    });
}

void l2_norm_grad(const Tensor* g, const Tensor* x, const Tensor* norm, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({g, x, norm}, out);
    dispatch(FloatOrComplexTypes{}, out->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        elements.run<TypeList<T>, TypeList<Real, T, Real>>([](Real gradient, T value, Real length) {
            return element::scale<T>(length == Real(0) ? Real(0) : gradient / length, value);
        });
    });
}

void var_grad(const Tensor* g, const Tensor* x, const Tensor* mean, double factor, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({g, x, mean}, out);
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        const T scale = static_cast<T>(factor);
        elements.run<TypeList<T>, TypeList<T, T, T>>(
            [scale](T gradient, T value, T middle) { return scale * gradient * (value - middle); });
    });
}

void std_dev_grad(const Tensor* g, const Tensor* x, const Tensor* mean, const Tensor* deviation, double factor,
                  Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({g, x, mean, deviation}, out);
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        const T scale = static_cast<T>(factor);
        elements.run<TypeList<T>, TypeList<T, T, T, T>>([scale](T gradient, T value, T middle, T spread) {
            return spread == T(0) ? T(0) : scale * gradient * (value - middle) / spread;
        });
    });
}

void mark_equal(const Tensor* x, const Tensor* y, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({x, y}, out);
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        elements.run<TypeList<T>, TypeList<T, T>>(
            [](T a, T b) { return (a == b) | ((a != a) & (b != b)) ? T(1) : T(0); });
    });
}

void shared_grad(const Tensor* g, const Tensor* mark, const Tensor* count, Tensor* out) {
    const MultiTensorIterationHelper elements = elements_of({g, mark, count}, out);
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        elements.run<TypeList<T>, TypeList<T, T, T>>(
            [](T gradient, T chosen, T number) { return chosen != T(0) ? gradient / number : T(0); });
    });
}

}  // namespace ornik::device::cpu
