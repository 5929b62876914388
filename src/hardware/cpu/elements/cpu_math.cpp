// cpu_math.cpp: arithmetic of two tensors.
#include "hardware/cpu/elements/cpu_math.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

namespace {

MultiTensorIterationHelper elements_of(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    if (accumulate) {
        elements.add_input(out);
    }
    elements.add_output(out);
    elements.build();
    return elements;
}

// out = function(a, b) + the old out. This form and that with coefficients are one loop each, the common ones below
// one for every layout.
template <typename T, typename Function>
void apply_and_add(const Tensor* a, const Tensor* b, Tensor* out, const Function& function) {
    elements_of(a, b, out, true)
        .run_rows<TypeList<T>, TypeList<T, T, T>>(
            [function](std::int64_t n, T* result, const T* x, const T* y, const T* old) {
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t i = 0; i < n; ++i) {
                    result[i] = element::add(function(x[i], y[i]), old[i]);
                }
            },
            true);
}

// A few elements side by side: a plan for the loop would take longer than the loop.
template <typename T, typename Function>
bool apply_to_few(const Tensor* a, const Tensor* b, Tensor* out, const Function& function) {
    constexpr std::int64_t few = 32;
    const std::int64_t n = out->Size();
    for (const Tensor* t : {a, b, static_cast<const Tensor*>(out)}) {
        if (n > few || t->Size() != n || t->Dtype() != out->Dtype() || !t->isCPU() || !t->is_dense() ||
            !t->is_contiguous()) {
            return false;
        }
    }
    T* result = static_cast<T*>(out->getRawData());
    const T* x = static_cast<const T*>(a->getRawData());
    const T* y = static_cast<const T*>(b->getRawData());
    for (const T* operand : {x, y}) {
        if (operand != result && operand < result + n && result < operand + n) {
            return false;
        }
    }
    for (std::int64_t i = 0; i < n; ++i) {
        result[i] = function(detail::load<T>(reinterpret_cast<const char*>(x + i)),
                             detail::load<T>(reinterpret_cast<const char*>(y + i)));
    }
    return true;
}

template <typename T, typename Function>
void apply(const Tensor* a, const Tensor* b, Tensor* out, bool accumulate, const Function& function) {
    if (accumulate) {
        apply_and_add<T>(a, b, out, function);
    } else if (!apply_to_few<T>(a, b, out, function)) {
        elements_of(a, b, out, false).run<TypeList<T>, TypeList<T, T>>(function);
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
    const auto combine = [scale_a, scale_b](T x, T y) {
        return Combine(element::scale<T>(scale_a, x), element::scale<T>(scale_b, y));
    };
    if (accumulate) {
        apply_and_add<T>(a, b, out, combine);
        return;
    }
    elements_of(a, b, out, false)
        .run_rows<TypeList<T>, TypeList<T, T>>(
            [combine](std::int64_t n, T* result, const T* x, const T* y) {
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t i = 0; i < n; ++i) {
                    result[i] = combine(x[i], y[i]);
                }
            },
            true);
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
