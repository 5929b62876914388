// cpu_unary_complex.cpp: unary operations on complex elements, and their gradients.
#include <algorithm>

#include "complex_functions.h"
#include "row_kernels.h"
#include "slopes.h"

namespace ornik::device::cpu {

// clang-format off
#define ORNIK_WIDE_OPERATIONS(ROW) \
    ORNIK_FLOATING_OPERATIONS(ROW) \
    ORNIK_STEP_OPERATIONS(ROW)
#define ORNIK_OPERATIONS_HERE(ROW) \
    ORNIK_SIGN_OPERATIONS(ROW)     \
    ORNIK_PART_OPERATIONS(ROW)     \
    ORNIK_ANGLE_OPERATIONS(ROW)    \
    ORNIK_TEST_OPERATIONS(ROW)
#define FUNCTIONS complex_functions
// clang-format on

namespace {

using complex_functions::narrow;
using complex_functions::Own;
using complex_functions::wide;
using complex_functions::Wide;

ORNIK_OPERATIONS_HERE(ORNIK_UNARY_FUNCTION)

#define ORNIK_WIDE_FUNCTION(name, ...)                                          \
    struct name##_function {                                                    \
        template <typename T>                                                   \
        Own<T> operator()(Own<T> z) const {                                     \
            return narrow<T>(complex_functions::wide_functions::name(wide(z))); \
        }                                                                       \
    };
ORNIK_WIDE_OPERATIONS(ORNIK_WIDE_FUNCTION)

// ---- Those of which many are faster together, their parts apart ----

template <typename Function>
struct Parts {
    static constexpr bool known = false;
};
#define ORNIK_PARTS(name)                                                  \
    template <>                                                            \
    struct Parts<name##_function> {                                        \
        static constexpr bool known = true;                                \
        static constexpr auto* compute = elementary::called::name##_parts; \
    };
ORNIK_PARTS(exp)
ORNIK_PARTS(asin)
ORNIK_PARTS(acos)
ORNIK_PARTS(atan)
ORNIK_PARTS(asinh)
ORNIK_PARTS(acosh)
ORNIK_PARTS(atanh)

template <typename Function>
void wide_kernel(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    if constexpr (!Parts<Function>::known) {
        unary_kernel<Function, ComplexTypes>(elements, dtype);
    } else {
        dispatch(ComplexTypes{}, dtype, [&]<typename T>() {
            elements.run_rows<TypeList<T>, TypeList<T>>([](std::int64_t n, T* out, const T* in) {
                using Part = decltype(T::real);
                constexpr std::int64_t block = 64;
                double re[block];
                double im[block];
                for (std::int64_t first = 0; first < n; first += block, in += block, out += block) {
                    const std::int64_t count = std::min(block, n - first);
                    for (std::int64_t i = 0; i < count; ++i) {
                        re[i] = static_cast<double>(in[i].real);
                        im[i] = static_cast<double>(in[i].imag);
                    }
                    const bool together = Parts<Function>::compute(count, re, im);
                    for (std::int64_t i = 0; i < count; ++i) {
                        out[i] = together ? T{static_cast<Part>(re[i]), static_cast<Part>(im[i])} : Function{}(in[i]);
                    }
                }
            });
        });
    }
}

// ---- Gradients: (x, y, grad), the latter two real where the operation gives a part ----

#define ORNIK_HOLOMORPHIC_GRAD(name, ...)                                                              \
    struct name##_grad {                                                                               \
        template <typename T>                                                                          \
        Own<T> operator()(Own<T> x, Own<T> y, Own<T> grad) const {                                     \
            const Wide slope = slopes::name(wide(x), wide(y));                                         \
            if constexpr (requires(Own<T> z) { slopes::name(wide(z), wide(z), wide(z)); }) {           \
                const Wide product = slopes::name(std::conj(wide(x)), std::conj(wide(y)), wide(grad)); \
                if (!slopes::is_finite(slope) && slopes::is_finite(product)) {                         \
                    return narrow<T>(product);                                                         \
                }                                                                                      \
            }                                                                                          \
            return narrow<T>(wide(grad) * std::conj(slope));                                           \
        }                                                                                              \
    };
ORNIK_FLOATING_OPERATIONS(ORNIK_HOLOMORPHIC_GRAD)
ORNIK_SIGN_OPERATIONS(ORNIK_HOLOMORPHIC_GRAD)

struct abs_grad {
    template <typename T>
    Own<T> operator()(Own<T> x, T /*y*/, T grad) const {
        return narrow<T>(complex_functions::wide_functions::sign(wide(x)) * static_cast<double>(grad));
    }
};
struct real_grad {
    template <typename T>
    Own<T> operator()(Own<T> /*x*/, T /*y*/, T grad) const {
        return {grad, T(0)};
    }
};
struct imag_grad {
    template <typename T>
    Own<T> operator()(Own<T> /*x*/, T /*y*/, T grad) const {
        return {T(0), grad};
    }
};
struct angle_grad {
    template <typename T>
    Own<T> operator()(Own<T> x, T /*y*/, T grad) const {
        const Wide z = wide(x);
        return narrow<T>(Wide(-z.imag(), z.real()) * (static_cast<double>(grad) / std::norm(z)));
    }
};
struct conj_grad {
    template <typename T>
    Own<T> operator()(Own<T> /*x*/, Own<T> /*y*/, Own<T> grad) const {
        return conj(grad);
    }
};

template <typename Grad>
void grad_kernel(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    dispatch(ComplexTypes{}, dtype, [&]<typename T>() {
        using Part = decltype(T::real);
        using Y = std::conditional_t<std::is_invocable_v<Grad, T, Part, Part>, Part, T>;
        run_function_rows<Grad, T, T, Y, Y>(elements);
    });
}

}  // namespace

ElementKernel complex_kernel(operations::Unary operation) {
    switch (operation) {
#define ORNIK_CASE(name, ...)     \
    case operations::Unary::name: \
        return unary_kernel<name##_function, ComplexTypes>;
        ORNIK_OPERATIONS_HERE(ORNIK_CASE)
#define ORNIK_WIDE_CASE(name, ...) \
    case operations::Unary::name:  \
        return wide_kernel<name##_function>;
        ORNIK_WIDE_OPERATIONS(ORNIK_WIDE_CASE)
        default:
            return nullptr;
    }
}

ElementKernel complex_grad_kernel(operations::Unary operation) {
    switch (operation) {
#define ORNIK_GRAD_CASE(name, ...) \
    case operations::Unary::name:  \
        return grad_kernel<name##_grad>;
        ORNIK_FLOATING_OPERATIONS(ORNIK_GRAD_CASE)
        ORNIK_SIGN_OPERATIONS(ORNIK_GRAD_CASE)
        ORNIK_PART_OPERATIONS(ORNIK_GRAD_CASE)
        ORNIK_ANGLE_OPERATIONS(ORNIK_GRAD_CASE)
        default:
            return nullptr;
    }
}

}  // namespace ornik::device::cpu
