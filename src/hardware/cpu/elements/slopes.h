// slopes.h: derivatives of the differentiable operations at x, where they give y. Included by row kernels.
//
// T is float, double or, where the operation takes complex numbers, std::complex<double>, whose own quotient differs
// from one processor to the next.
#pragma once

#include "complex_functions.h"
#include "real_functions.h"

namespace ornik::slopes {

namespace functions {
using namespace real_functions;
using namespace complex_functions::wide_functions;
}  // namespace functions

inline constexpr double ln2 = 0.69314718055994530942;
inline constexpr double ln10 = 2.30258509299404568402;

// clang-format off
#define ORNIK_SLOPE(name, ...)                                                   \
    template <typename T>                                                        \
    ORNIK_IN_PLACE T name([[maybe_unused]] T x, [[maybe_unused]] T y) {          \
        return __VA_ARGS__;                                                      \
    }

ORNIK_SLOPE(exp,        y)
ORNIK_SLOPE(exp2,       y * T(ln2))
ORNIK_SLOPE(expm1,      y + T(1))
ORNIK_SLOPE(log,        functions::quotient(T(1), x))
ORNIK_SLOPE(log2,       functions::quotient(T(1), x * T(ln2)))
ORNIK_SLOPE(log10,      functions::quotient(T(1), x * T(ln10)))
ORNIK_SLOPE(log1p,      functions::quotient(T(1), T(1) + x))
ORNIK_SLOPE(sqrt,       functions::quotient(T(0.5), y))
ORNIK_SLOPE(rsqrt,      T(-0.5) * y * y * y)
ORNIK_SLOPE(reciprocal, -y * y)
ORNIK_SLOPE(sin,        functions::cos(x))
ORNIK_SLOPE(cos,        -functions::sin(x))
ORNIK_SLOPE(tan,        T(1) + y * y)
ORNIK_SLOPE(asin,       functions::quotient(T(1), functions::sqrt((T(1) - x) * (T(1) + x))))
ORNIK_SLOPE(acos,       functions::quotient(T(-1), functions::sqrt((T(1) - x) * (T(1) + x))))
ORNIK_SLOPE(atan,       functions::quotient(T(1), T(1) + x * x))
ORNIK_SLOPE(sinh,       functions::cosh(x))
ORNIK_SLOPE(cosh,       functions::sinh(x))
ORNIK_SLOPE(tanh,       (T(1) - y) * (T(1) + y))
ORNIK_SLOPE(asinh,      functions::quotient(T(1), functions::sqrt(T(1) + x * x)))
ORNIK_SLOPE(acosh,      functions::quotient(T(1), functions::sqrt(x - T(1)) * functions::sqrt(x + T(1))))
ORNIK_SLOPE(atanh,      functions::quotient(T(1), (T(1) - x) * (T(1) + x)))
ORNIK_SLOPE(sigmoid,    y * (T(1) - y))
ORNIK_SLOPE(logsigmoid, functions::sigmoid(-x))
ORNIK_SLOPE(softplus,   functions::sigmoid(x))
ORNIK_SLOPE(silu,       functions::silu_slope(x))
ORNIK_SLOPE(gelu,       functions::gelu_slope(x))
ORNIK_SLOPE(erf,        T(1.12837916709551257390) * functions::exp(-x * x))
ORNIK_SLOPE(neg,        T(-1))
ORNIK_SLOPE(sqr,        x + x)
// Of real numbers only: parts of complex ones have no complex derivative.
ORNIK_SLOPE(abs,        functions::sign(x))
ORNIK_SLOPE(conj,       T(1))
ORNIK_SLOPE(real,       T(1))
ORNIK_SLOPE(imag,       T(0))
ORNIK_SLOPE(angle,      T(0))
#undef ORNIK_SLOPE

// The same times grad, for slopes that overflow where the product does not.
#define ORNIK_STEEP_SLOPE(name, ...)                                                     \
    template <typename T>                                                                \
    ORNIK_IN_PLACE T name([[maybe_unused]] T x, [[maybe_unused]] T y, T grad) {          \
        return __VA_ARGS__;                                                              \
    }

ORNIK_STEEP_SLOPE(log,        functions::quotient(grad, x))
ORNIK_STEEP_SLOPE(log2,       functions::quotient(grad * T(1 / ln2), x))
ORNIK_STEEP_SLOPE(log10,      functions::quotient(grad * T(1 / ln10), x))
ORNIK_STEEP_SLOPE(rsqrt,      T(-0.5) * grad * y * y * y)
ORNIK_STEEP_SLOPE(reciprocal, -(grad * y) * y)
#undef ORNIK_STEEP_SLOPE
// clang-format on

template <std::floating_point T>
ORNIK_IN_PLACE bool is_finite(T slope) {
    return std::fabs(slope) < std::numeric_limits<T>::infinity();
}
template <typename T>
bool is_finite(const std::complex<T>& slope) {
    return std::isfinite(slope.real()) && std::isfinite(slope.imag());
}

}  // namespace ornik::slopes
