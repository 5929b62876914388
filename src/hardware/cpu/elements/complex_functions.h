// complex_functions.h: every operation on one or two complex numbers. Included by the complex kernels only.
//
// Principal values with the branch cuts of the standard library, computed in double for both dtypes. Parts
// are accurate to about 4 units in the last place of the result's magnitude.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>

#include "../../../../include/utils/complex_helper.h"
#include "hardware/cpu/elements/called_functions.h"

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

namespace elementary = ornik::elementary::called;

// Finite numbers by formulas of parts (W. Kahan, Branch cuts for complex elementary functions, 1987), the others as
// appendix G of the C standard has them: zeros, infinities, NaN and angles, which systems agree on where the standard
// library's are called.
inline bool is_finite(Wide z) { return std::isfinite(z.real()) && std::isfinite(z.imag()); }
inline Wide times_i(Wide z) { return {-z.imag(), z.real()}; }
inline Wide over_i(Wide z) { return {z.imag(), -z.real()}; }
inline double abs(Wide z) { return elementary::hypot(z.real(), z.imag()); }
inline double angle(Wide z) { return elementary::atan2(z.imag(), z.real()); }
inline Wide times(Wide a, Wide b) {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
/// a / b, with the larger part of b apart, so that no square overflows.
inline Wide quotient(Wide a, Wide b) {
    if (!is_finite(a) || !is_finite(b) || b == Wide(0)) {
        return a / b;
    }
    const bool turned = std::fabs(b.real()) < std::fabs(b.imag());
    const double large = turned ? b.imag() : b.real();
    const double small = turned ? b.real() : b.imag();
    const double ratio = small / large;
    const double below = large + small * ratio;
    const double x = turned ? a.imag() : a.real();
    const double y = turned ? a.real() : a.imag();
    const double re = (x + y * ratio) / below;
    const double im = turned ? (x * ratio - y) / below : (y - x * ratio) / below;
    return {re, im};
}

inline Wide special_exp(double x, double y) {
    if (y == 0.0) {
        return {x < 0.0 ? 0.0 : x, y};
    }
    if (std::isinf(x)) {
        const double size = x < 0.0 ? 0.0 : x;
        if (std::isfinite(y)) {
            return {std::copysign(size, elementary::cos(y)), std::copysign(size, elementary::sin(y))};
        }
        return {size, x < 0.0 ? std::copysign(0.0, y) : NAN};
    }
    return {NAN, NAN};
}
inline Wide special_sinh(double x, double y) {
    if (std::isinf(x) && std::isfinite(y) && y != 0.0) {
        return {x * std::copysign(1.0, elementary::cos(y)), std::copysign(HUGE_VAL, elementary::sin(y))};
    }
    if (y == 0.0) {
        return {x, y};
    }
    return {std::isinf(x) ? HUGE_VAL : (x == 0.0 ? x : NAN), NAN};
}
inline Wide special_cosh(double x, double y) {
    if (std::isinf(x) && std::isfinite(y) && y != 0.0) {
        return {std::copysign(HUGE_VAL, elementary::cos(y)),
                std::copysign(HUGE_VAL, elementary::sin(y)) * std::copysign(1.0, x)};
    }
    if (y == 0.0) {
        return {std::fabs(x), x != x ? y : y * std::copysign(1.0, x)};
    }
    return {std::isinf(x) ? HUGE_VAL : NAN, x == 0.0 ? 0.0 : NAN};
}
inline Wide special_tanh(double x, double y) {
    if (std::isinf(x)) {
        const bool turned = std::isfinite(y) && std::fabs(y) > 1.0;
        return {std::copysign(1.0, x), std::copysign(0.0, turned ? elementary::sin(y) * elementary::cos(y) : y)};
    }
    return y == 0.0 ? Wide(x, y) : Wide(x == 0.0 ? x : NAN, NAN);
}

inline Wide exp(Wide z) {
    if (!is_finite(z)) {
        return special_exp(z.real(), z.imag());
    }
    // Twice the root, where the power alone would overflow.
    const bool far = !(std::fabs(z.real()) < 700.0);
    const double power = elementary::exp(far ? 0.5 * z.real() : z.real());
    const double again = far ? power : 1.0;
    if (z.imag() == 0.0) {
        return {power * again, z.imag()};
    }
    const auto [sine, cosine] = elementary::sin_and_cos(z.imag());
    return {power * cosine * again, power * sine * again};
}
inline Wide exp2(Wide z) { return exp(z * 0.69314718055994530942); }
inline Wide expm1(Wide z) {
    if (z.imag() == 0.0) {
        return {elementary::expm1(z.real()) + 0.0, z.imag()};  // Its zero has no sign.
    }
    if (std::isinf(z.real()) && !std::isfinite(z.imag())) {
        return z.real() < 0.0 ? Wide(-1.0, 0.0) : Wide(z.real(), std::nan(""));
    }
    const double half_sine = elementary::sin(0.5 * z.imag());
    const double growth = elementary::expm1(z.real());
    const auto [sine, cosine] = elementary::sin_and_cos(z.imag());
    return {growth * cosine - 2.0 * half_sine * half_sine, (growth + 1.0) * sine};
}
inline Wide log(Wide z) {
    if (!is_finite(z)) {
        return std::log(z);
    }
    const double magnitude = abs(z);
    if (magnitude > 0.5 && magnitude < 2.0) {
        return {elementary::log_hypot_near_one(z.real(), z.imag()), angle(z)};
    }
    return {elementary::log(magnitude), angle(z)};
}
inline Wide log2(Wide z) { return log(z) * 1.4426950408889634074; }
inline Wide log10(Wide z) { return log(z) * 0.43429448190325182765; }
inline Wide log1p(Wide z) {
    // Only near zero does adding 1 lose anything.
    if (!(abs(z) <= 0.5)) {
        return log(1.0 + z);
    }
    const double x = z.real();
    const double y = z.imag();
    return {0.5 * elementary::log1p(x * (2.0 + x) + y * y), elementary::atan2(y, 1.0 + x)};
}
// The library's functions for exponents take a multiple of the time.
inline int exponent_of(double x) {
    const auto biased = static_cast<int>(std::bit_cast<std::uint64_t>(x) >> 52);
    return biased > 0 ? biased - 1023 : std::ilogb(x);
}
inline double shifted(double x, int k) {
    return k > -1000 && k < 1000 ? x * std::bit_cast<double>(static_cast<std::uint64_t>(1023 + k) << 52)
                                 : std::ldexp(x, k);
}
inline Wide sqrt(Wide z) {
    if (!is_finite(z) || z == Wide(0)) {
        return std::sqrt(z);
    }
    // Away from overflow and from what has few digits.
    const int exponent = exponent_of(std::max(std::fabs(z.real()), std::fabs(z.imag()))) & ~1;
    const double x = shifted(z.real(), -exponent);
    const double y = shifted(z.imag(), -exponent);
    const double root = std::sqrt(0.5 * (std::fabs(x) + elementary::hypot(x, y)));
    const double other = 0.5 * std::fabs(y) / root;
    const double re = shifted(x < 0.0 ? other : root, exponent / 2);
    return {re, std::copysign(shifted(x < 0.0 ? root : other, exponent / 2), y)};
}
inline Wide rsqrt(Wide z) { return quotient(1.0, sqrt(z)); }
inline Wide reciprocal(Wide z) { return quotient(1.0, z); }
inline Wide sinh(Wide z) {
    if (!is_finite(z)) {
        return special_sinh(z.real(), z.imag());
    }
    const double x = z.real();
    const double y = z.imag();
    if (y == 0.0) {
        return {elementary::sinh(x), y};
    }
    if (std::fabs(x) > 700.0) {
        const double root = elementary::exp(0.5 * std::fabs(x));
        return {std::copysign(0.5 * root, x) * elementary::cos(y) * root, 0.5 * root * elementary::sin(y) * root};
    }
    const auto [sine, cosine] = elementary::sin_and_cos(y);
    return {elementary::sinh(x) * cosine, elementary::cosh(x) * sine};
}
inline Wide cosh(Wide z) {
    if (!is_finite(z)) {
        return special_cosh(z.real(), z.imag());
    }
    const double x = z.real();
    const double y = z.imag();
    if (std::fabs(x) > 700.0) {
        const double root = elementary::exp(0.5 * std::fabs(x));
        const double im = y == 0.0 ? y : 0.5 * root * elementary::sin(y) * root;
        return {0.5 * root * elementary::cos(y) * root, std::signbit(x) ? -im : im};
    }
    const auto [sine, cosine] = elementary::sin_and_cos(y);
    return {elementary::cosh(x) * cosine, elementary::sinh(x) * sine};
}
inline Wide tanh(Wide z) {
    if (!is_finite(z)) {
        return special_tanh(z.real(), z.imag());
    }
    const double x = z.real();
    const double y = z.imag();
    if (std::fabs(x) > 22.0) {
        const double power = elementary::exp(-std::fabs(x));
        return {std::copysign(1.0, x), 4.0 * elementary::sin(y) * elementary::cos(y) * power * power};
    }
    const double t = elementary::tan(y);
    const double s = elementary::sinh(x);
    const double beta = 1.0 + t * t;
    const double below = 1.0 + beta * s * s;
    return {beta * std::sqrt(1.0 + s * s) * s / below, t / below};
}
inline Wide sin(Wide z) {
    const bool boundless = !std::isfinite(z.real()) && std::isinf(z.imag());  // What sign it is to have is not said.
    return boundless ? Wide(NAN, HUGE_VAL) : over_i(sinh(times_i(z)));
}
inline Wide cos(Wide z) { return cosh(times_i(z)); }
inline Wide tan(Wide z) { return over_i(tanh(times_i(z))); }
inline Wide asin(Wide z) {
    if (!is_finite(z)) {
        return std::asin(z);
    }
    const Wide below = sqrt(Wide(1.0 - z.real(), -z.imag()));
    const Wide above = sqrt(Wide(1.0 + z.real(), z.imag()));
    return {elementary::atan2(z.real(), below.real() * above.real() - below.imag() * above.imag()),
            std::copysign(elementary::asinh(below.real() * above.imag() - below.imag() * above.real()), z.imag())};
}
inline Wide acos(Wide z) {
    if (!is_finite(z)) {
        return std::acos(z);
    }
    const Wide below = sqrt(Wide(1.0 - z.real(), -z.imag()));
    const Wide above = sqrt(Wide(1.0 + z.real(), z.imag()));
    return {2.0 * elementary::atan2(below.real(), above.real()),
            std::copysign(elementary::asinh(above.real() * below.imag() - above.imag() * below.real()), -z.imag())};
}
inline Wide acosh(Wide z) {
    if (!is_finite(z)) {
        const Wide angle = std::acos(z);
        return {std::fabs(angle.imag()), std::copysign(angle.real(), z.imag())};
    }
    const Wide below = sqrt(Wide(z.real() - 1.0, z.imag()));
    const Wide above = sqrt(Wide(z.real() + 1.0, z.imag()));
    return {elementary::asinh(below.real() * above.real() + below.imag() * above.imag()),
            2.0 * elementary::atan2(below.imag(), above.real())};
}
inline Wide asinh(Wide z) { return is_finite(z) ? over_i(asin(times_i(z))) : std::asinh(z); }
inline Wide atanh(Wide z) {
    if (!is_finite(z)) {
        return std::atanh(z);
    }
    const double x = std::fabs(z.real());
    const double y = std::fabs(z.imag());
    const double magnitude = abs(z);
    if (magnitude > 0x1p60) {
        return {std::copysign(x / magnitude / magnitude, z.real()), std::copysign(std::numbers::pi / 2, z.imag())};
    }
    const double distance = elementary::hypot(1.0 - x, y);
    const double re = distance < 0x1p-400 ? 0.5 * (std::numbers::ln2 - elementary::log(distance))
                                          : 0.25 * elementary::log1p(4.0 * x / ((1.0 - x) * (1.0 - x) + y * y));
    const double im = 0.5 * elementary::atan2(2.0 * y, (1.0 - x) * (1.0 + x) - y * y);
    return {std::copysign(re, z.real()), std::copysign(im, z.imag())};
}
inline Wide atan(Wide z) { return is_finite(z) ? over_i(atanh(times_i(z))) : std::atan(z); }
inline Wide pow(Wide z, Wide w) { return exp(times(w, log(z))); }
inline Wide sigmoid(Wide z) {
    // The exponential of a number with a negative real part does not overflow.
    if (z.real() < 0.0) {
        const Wide e = exp(z);
        return quotient(e, 1.0 + e);
    }
    return quotient(1.0, 1.0 + exp(-z));
}
/// Of magnitude 1, or 0 for 0.
inline Wide sign(Wide z) { return z == Wide(0) ? z : z / abs(z); }

}  // namespace wide_functions

template <typename T>
T abs(Own<T> z) {
    return static_cast<T>(wide_functions::abs(wide(z)));
}
template <typename T>
T angle(Own<T> z) {
    return static_cast<T>(wide_functions::angle(wide(z)));
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
    return z == Own<T>(0) && w.real > 0 ? Own<T>(0) : narrow<T>(wide_functions::pow(wide(z), wide(w)));
}

}  // namespace ornik::complex_functions
