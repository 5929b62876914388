// cpu_unary_grad.cpp: gradients of unary operations on floating elements.
#include "row_kernels.h"
#include "slopes.h"

namespace ornik::device::cpu {

namespace {

#define ORNIK_GRAD(name, ...)                                             \
    struct name##_grad {                                                  \
        template <typename T>                                             \
        ORNIK_IN_PLACE T operator()(T x, T y, T grad) const {             \
            const T slope = slopes::name(x, y);                           \
            if constexpr (requires { slopes::name(x, y, grad); }) {       \
                const T product = slopes::name(x, y, grad);               \
                return slopes::is_finite(slope) ? grad * slope : product; \
            }                                                             \
            return grad * slope;                                          \
        }                                                                 \
    };
ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_GRAD)

template <typename Grad>
void grad_kernel(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() { run_function_rows<Grad, T, T, T, T>(elements); });
}

}  // namespace

ORNIK_IN_VECTORS(silu_grad)
ORNIK_IN_VECTORS(gelu_grad)
template <>
struct NearZero<gelu_grad, float> : real_functions::GeluSlopeNear {
    template <elementary::Singles V>
    ORNIK_IN_PLACE static V value(V x, V /*y*/, V grad) {
        return grad * GeluSlopeNear::value(x);
    }
};

template <std::floating_point T>
struct BeyondLimit<sin_grad, T> {
    static constexpr bool needed = true;
    static T value(T x, T /*y*/, T grad) { return grad * static_cast<T>(elementary::cos(double{x})); }
};
template <std::floating_point T>
struct BeyondLimit<cos_grad, T> {
    static constexpr bool needed = true;
    static T value(T x, T /*y*/, T grad) { return -grad * static_cast<T>(elementary::sin(double{x})); }
};

ElementKernel real_grad_kernel(operations::Unary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)     \
    case operations::Unary::name: \
        return grad_kernel<name##_grad>;
        ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
