// cpu_scalar_math.cpp: arithmetic of a tensor and a scalar, and conjugation.
#include "descriptors/tensoriterator.h"
#include "hardware/cpu/copy/cpu_core.h"
#include "hardware/cpu/elements/cpu_math.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

namespace {

template <typename T, typename Function>
void apply(const Tensor* a, Tensor* out, const Function& function) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_output(out);
    elements.build();
    elements.run<TypeList<T>, TypeList<T>>(function);
}

}  // namespace

void add_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, out, [s = scalar.as<T>()](T x) { return element::add(x, s); }); });
}

void sub_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, out, [s = scalar.as<T>()](T x) { return element::sub(x, s); }); });
}

void mult_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out) {
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, out, [s = scalar.as<T>()](T x) { return element::mult(x, s); }); });
}

void div_scalar(const Tensor* a, const AnyScalar& scalar, Tensor* out) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(),
             [&]<typename T>() { apply<T>(a, out, [s = scalar.as<T>()](T x) { return x / s; }); });
}

void conj(const Tensor* a, Tensor* out) {
    if (!a->isComplexType()) {
        copy(a, out);
        return;
    }
    dispatch(ComplexTypes{}, a->Dtype(), [&]<typename T>() { apply<T>(a, out, [](T x) { return conj(x); }); });
}

}  // namespace ornik::device::cpu
