// complex_functions.h: every operation on one or two complex numbers. Included by the complex kernels only.
//
// Principal values with the branch cuts of the standard library, computed in double for both dtypes. Parts
// are accurate to about 4 units in the last place of the result's magnitude.
#pragma once

#include <cmath>
#include <complex>

#include "../../../../include/utils/complex_helper.h"

namespace ornik::complex_functions {

template <typename T>
using Own = complex_scalar::complex<T>;
using Wide = std::complex<double>;

template <typename T>
Wide wide(Own<T> z) {
    return {static_cast<double>(z.real), static_cast<double>(z.imag)};
}
template <typename T>
Own<T> narrow(Wide z) {
    return {static_cast<T>(z.real()), static_cast<T>(z.imag())};
}

namespace wide_functions {

inline Wide exp(Wide z) { return std::exp(z); }
inline Wide exp2(Wide z) { return std::exp(z * 0.69314718055994530942); }
inline Wide expm1(Wide z) {
    if (z.imag() == 0.0) {
        return {std::expm1(z.real()) + 0.0, z.imag()};  // Its zero has no sign.
    }
    if (std::isinf(z.real()) && !std::isfinite(z.imag())) {
        return z.real() < 0.0 ? Wide(-1.0, 0.0) : Wide(z.real(), std::nan(""));
    }
    const double half_sine = std::sin(0.5 * z.imag());
    const double growth = std::expm1(z.real());
    return {growth * std::cos(z.imag()) - 2.0 * half_sine * half_sine, (growth + 1.0) * std::sin(z.imag())};
}
inline Wide log(Wide z) { return std::log(z); }
inline Wide log2(Wide z) { return std::log(z) * 1.4426950408889634074; }
inline Wide log10(Wide z) { return std::log(z) * 0.43429448190325182765; }
inline Wide log1p(Wide z) {
    // Only near zero does adding 1 lose anything.
    if (std::abs(z) > 0.5) {
        return std::log(1.0 + z);
    }
    const double x = z.real();
    const double y = z.imag();
    return {0.5 * std::log1p(x * (2.0 + x) + y * y), std::atan2(y, 1.0 + x)};
}
inline Wide sqrt(Wide z) { return std::sqrt(z); }
inline Wide rsqrt(Wide z) { return 1.0 / std::sqrt(z); }
inline Wide reciprocal(Wide z) { return 1.0 / z; }
inline Wide sin(Wide z) { return std::sin(z); }
inline Wide cos(Wide z) { return std::cos(z); }
inline Wide tan(Wide z) { return std::tan(z); }
inline Wide asin(Wide z) { return std::asin(z); }
inline Wide acos(Wide z) { return std::acos(z); }
inline Wide atan(Wide z) { return std::atan(z); }
inline Wide sinh(Wide z) { return std::sinh(z); }
inline Wide cosh(Wide z) { return std::cosh(z); }
inline Wide tanh(Wide z) { return std::tanh(z); }
inline Wide asinh(Wide z) { return std::asinh(z); }
inline Wide acosh(Wide z) { return std::acosh(z); }
inline Wide atanh(Wide z) { return std::atanh(z); }
inline Wide sigmoid(Wide z) {
    // The exponential of a number with a negative real part does not overflow.
    if (z.real() < 0.0) {
        const Wide e = std::exp(z);
        return e / (1.0 + e);
    }
    return 1.0 / (1.0 + std::exp(-z));
}
/// Of magnitude 1, or 0 for 0.
inline Wide sign(Wide z) { return z == Wide(0) ? z : z / std::abs(z); }

}  // namespace wide_functions

template <typename T>
T abs(Own<T> z) {
    return static_cast<T>(std::abs(wide(z)));
}
template <typename T>
T angle(Own<T> z) {
    return static_cast<T>(std::arg(wide(z)));
}
template <typename T>
T real(Own<T> z) {
    return z.real;
}
template <typename T>
T imag(Own<T> z) {
    return z.imag;
}
template <typename T>
Own<T> conj(Own<T> z) {
    return {z.real, -z.imag};
}
template <typename T>
Own<T> neg(Own<T> z) {
    return {-z.real, -z.imag};
}
template <typename T>
Own<T> sqr(Own<T> z) {
    return z * z;
}
template <typename T>
bool is_nan(Own<T> z) {
    return std::isnan(z.real) || std::isnan(z.imag);
}
template <typename T>
bool is_inf(Own<T> z) {
    return std::isinf(z.real) || std::isinf(z.imag);
}
template <typename T>
bool is_finite(Own<T> z) {
    return std::isfinite(z.real) && std::isfinite(z.imag);
}
template <typename T>
bool logical_not(Own<T> z) {
    return z == Own<T>(0);
}
/// Anything to the power 0 is 1; 0 to any other power is 0, or not a number when that has no limit.
template <typename T>
Own<T> pow(Own<T> z, Own<T> w) {
    if (w == Own<T>(0)) {
        return Own<T>(1);
    }
    return z == Own<T>(0) && w.real > 0 ? Own<T>(0) : narrow<T>(std::pow(wide(z), wide(w)));
}

}  // namespace ornik::complex_functions
