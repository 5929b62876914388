#include "hardware/cpu/nn/cpu_activation.h"

#include <initializer_list>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/cpu_elements.h"
#include "hardware/cpu/elements/elementary.h"

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

// out = function(in) and out = function(in, gradient) over the types of a list. The function is made for the type.
template <typename Types, typename Make>
void forward(Types types, const Tensor* in, Tensor* out, const Make& make) {
    const MultiTensorIterationHelper elements = elements_of({in}, out);
    dispatch(types, in->Dtype(),
             [&]<typename T>() { elements.run<TypeList<T>, TypeList<T>>(make.template operator()<T>()); });
}
template <typename Types, typename Make>
void backward(Types types, const Tensor* in, const Tensor* gradient, Tensor* out, const Make& make) {
    const MultiTensorIterationHelper elements = elements_of({in, gradient}, out);
    dispatch(types, in->Dtype(),
             [&]<typename T>() { elements.run<TypeList<T>, TypeList<T, T>>(make.template operator()<T>()); });
}

// tanh(log(1 + e^x)) = n / (n + 2) with n = e^x (e^x + 2). Beyond `most` it is 1, and n might overflow.
template <typename T>
struct SoftTanh {
    static constexpr T most = sizeof(T) == 4 ? T(16) : T(32);
    T power, n;
    explicit SoftTanh(T x) : power(elementary::exp(x < most ? x : most)), n(power * (power + T(2))) {}
    T value() const { return n / (n + T(2)); }
    // Of value() by x: (1 - value^2) sigmoid(x).
    T slope() const { return T(4) * (n + T(1)) / ((n + T(2)) * (n + T(2))) * (power / (power + T(1))); }
};

template <typename T>
T cut(T x, T low, T high) {
    const T above = x < low ? low : x;
    return above > high ? high : above;
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

void hardtanh(const Tensor* in, double low, double high, Tensor* out) {
    forward(RealTypes{}, in, out, [=]<typename T>() {
        return [least = static_cast<T>(low), most = static_cast<T>(high)](T x) { return cut(x, least, most); };
    });
}

void hardtanh_grad(const Tensor* in, const Tensor* gradient, double low, double high, Tensor* out) {
    backward(RealTypes{}, in, gradient, out, [=]<typename T>() {
        return [least = static_cast<T>(low), most = static_cast<T>(high)](T x, T g) {
            return x > least && x < most ? g : T(0);
        };
    });
}

void hardsigmoid(const Tensor* in, Tensor* out) {
    forward(FloatTypes{}, in, out, []<typename T>() { return [](T x) { return cut(x + T(3), T(0), T(6)) / T(6); }; });
}

void hardsigmoid_grad(const Tensor* in, const Tensor* gradient, Tensor* out) {
    backward(FloatTypes{}, in, gradient, out,
             []<typename T>() { return [](T x, T g) { return x > T(-3) && x < T(3) ? g / T(6) : T(0); }; });
}

void hardswish(const Tensor* in, Tensor* out) {
    forward(FloatTypes{}, in, out,
            []<typename T>() { return [](T x) { return x * cut(x + T(3), T(0), T(6)) / T(6); }; });
}

void hardswish_grad(const Tensor* in, const Tensor* gradient, Tensor* out) {
    backward(FloatTypes{}, in, gradient, out, []<typename T>() {
        return [](T x, T g) { return x < T(-3) ? T(0) : x <= T(3) ? g * (x / T(3) + T(0.5)) : g; };
    });
}

void mish(const Tensor* in, Tensor* out) {
    forward(FloatTypes{}, in, out, []<typename T>() { return [](T x) { return x * SoftTanh<T>(x).value(); }; });
}

void mish_grad(const Tensor* in, const Tensor* gradient, Tensor* out) {
    backward(FloatTypes{}, in, gradient, out, []<typename T>() {
        return [](T x, T g) {
            const SoftTanh<T> soft(x);
            return g * (soft.value() + x * soft.slope());
        };
    });
}

}  // namespace ornik::device::cpu
