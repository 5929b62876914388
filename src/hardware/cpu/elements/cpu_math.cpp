// cpu_math.cpp: arithmetic of two tensors.
#include "hardware/cpu/elements/cpu_math.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

namespace {

// out = function(a, b), plus the old out when it accumulates.
template <typename T, typename Function>
void apply(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate, const Function& function) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    if (accumulate) {
        elements.add_input(out);
    }
    elements.add_output(out);
    elements.build();
    if (accumulate) {
        elements.run<TypeList<T>, TypeList<T, T, T>>(
            [function](T x, T y, T old) { return element::add(function(x, y), old); });
    } else {
        elements.run<TypeList<T>, TypeList<T, T>>(function);
    }
}

template <typename T, T (*Combine)(T, T)>
void combine_scaled(float alpha, const Tensor* a, float beta, const Tensor* b, Tensor* out, bool accumulate) {
    if (alpha == 1.0F && beta == 1.0F) {
        apply<T>(a, b, out, accumulate, [](T x, T y) { return Combine(x, y); });
        return;
    }
    const auto scale_a = convert_element<element::Coefficient<T>>(alpha);
    const auto scale_b = convert_element<element::Coefficient<T>>(beta);
    apply<T>(a, b, out, accumulate, [scale_a, scale_b](T x, T y) {
        return Combine(element::scale<T>(scale_a, x), element::scale<T>(scale_b, y));
    });
}

}  // namespace

void add(float alpha, const Tensor* a, float beta, const Tensor* b, Tensor* out, bool accumulate) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { combine_scaled<T, element::add<T>>(alpha, a, beta, b, out, accumulate); });
}

void sub(float alpha, const Tensor* a, float beta, const Tensor* b, Tensor* out, bool accumulate) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { combine_scaled<T, element::sub<T>>(alpha, a, beta, b, out, accumulate); });
}

void mult(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, b, out, accumulate, [](T x, T y) { return element::mult(x, y); }); });
}

void div(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, b, out, accumulate, [](T x, T y) { return x / y; }); });
}

}  // namespace ornik::device::cpu
