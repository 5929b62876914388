// real_functions.h: every operation on one or two floating numbers. Included by row kernels only.
//
// Single precision runs the vectorisable code of elementary.h, double precision that of elementary_double.h, too.
#pragma once

#include <concepts>
#include <limits>
#include <type_traits>

#include "hardware/cpu/elements/elementary_double.h"

namespace ornik::real_functions {

using elementary::fused;

// ---- Exponentials and logarithms ----

ORNIK_IN_PLACE float exp(float x) { return elementary::exp(x); }
ORNIK_IN_PLACE double exp(double x) { return elementary::exp(x); }
ORNIK_IN_PLACE float exp2(float x) {
    return static_cast<float>(elementary::exp(elementary::clamped<double>(x, -1000, 1000) * 0.69314718055994531));
}
ORNIK_IN_PLACE double exp2(double x) { return elementary::exp2(x); }
ORNIK_IN_PLACE float expm1(float x) {
    return std::copysign(static_cast<float>(elementary::expm1_moderate(elementary::clamped<double>(x, -100, 100))), x);
}
ORNIK_IN_PLACE double expm1(double x) { return elementary::expm1(x); }
ORNIK_IN_PLACE float log(float x) { return elementary::log(x); }
ORNIK_IN_PLACE double log(double x) { return elementary::log(x); }
ORNIK_IN_PLACE float log2(float x) { return static_cast<float>(elementary::log(double{x}) * 1.4426950408889634); }
ORNIK_IN_PLACE double log2(double x) { return elementary::log2(x); }
ORNIK_IN_PLACE float log10(float x) { return static_cast<float>(elementary::log(double{x}) * 0.43429448190325183); }
ORNIK_IN_PLACE double log10(double x) { return elementary::log10(x); }
ORNIK_IN_PLACE float log1p(float x) { return std::copysign(static_cast<float>(elementary::log1p(x)), x); }
ORNIK_IN_PLACE double log1p(double x) { return elementary::log1p_exact(x); }

// ---- Powers ----

template <std::floating_point T>
ORNIK_IN_PLACE T quotient(T a, T b) {
    return a / b;
}

template <std::floating_point T>
ORNIK_IN_PLACE T sqrt(T x) {
    return std::sqrt(x);
}
ORNIK_IN_PLACE float rsqrt(float x) { return static_cast<float>(1.0 / std::sqrt(double{x})); }
ORNIK_IN_PLACE double rsqrt(double x) { return 1.0 / std::sqrt(x); }
template <std::floating_point T>
ORNIK_IN_PLACE T reciprocal(T x) {
    return T(1) / x;
}

// ---- Circular and hyperbolic functions; sin, cos and tan up to elementary::circular_limit ----

ORNIK_IN_PLACE float sin(float x) { return elementary::sin(x); }
ORNIK_IN_PLACE double sin(double x) { return elementary::sin_near(x); }
ORNIK_IN_PLACE float cos(float x) { return elementary::cos(x); }
ORNIK_IN_PLACE double cos(double x) { return elementary::cos_near(x); }
ORNIK_IN_PLACE float tan(float x) { return elementary::tan(x); }
ORNIK_IN_PLACE double tan(double x) { return elementary::tan_near(x); }

ORNIK_IN_PLACE float asin(float x) {
    const double d = x;
    return static_cast<float>(elementary::atan_approx(d / std::sqrt((1.0 - d) * (1.0 + d))));
}
ORNIK_IN_PLACE double asin(double x) { return elementary::asin(x); }
ORNIK_IN_PLACE float acos(float x) {
    const double d = x;
    return static_cast<float>(2.0 * elementary::atan_approx(std::sqrt((1.0 - d) / (1.0 + d))));
}
ORNIK_IN_PLACE double acos(double x) { return elementary::acos(x); }
ORNIK_IN_PLACE float atan(float x) { return static_cast<float>(elementary::atan_approx(x)); }
ORNIK_IN_PLACE double atan(double x) { return elementary::atan(x); }

ORNIK_IN_PLACE float sinh(float x) {
    const double e = elementary::expm1_moderate(elementary::clamped<double>(std::fabs(x), 0, 100));
    return std::copysign(static_cast<float>(0.5 * (e + e / (e + 1.0))), x);
}
ORNIK_IN_PLACE double sinh(double x) { return elementary::sinh(x); }
ORNIK_IN_PLACE float cosh(float x) {
    const double e = elementary::exp(elementary::clamped<double>(x, -100, 100));
    return static_cast<float>(0.5 * (e + 1.0 / e));
}
ORNIK_IN_PLACE double cosh(double x) { return elementary::cosh(x); }
ORNIK_IN_PLACE float tanh(float x) {
    const float e = elementary::expm1_moderate(-2.0F * elementary::clamped(std::fabs(x), 0.0F, 40.0F));
    return std::copysign(e / (2.0F + e), x);
}
ORNIK_IN_PLACE double tanh(double x) { return elementary::tanh(x); }

ORNIK_IN_PLACE float asinh(float x) {
    const double a = std::fabs(double{x});
    const double square = a * a;
    const double growth = a + square / (1.0 + std::sqrt(square + 1.0));
    return static_cast<float>(std::copysign(elementary::log1p(a < HUGE_VAL ? growth : a), double{x}));
}
ORNIK_IN_PLACE double asinh(double x) { return elementary::asinh(x); }
ORNIK_IN_PLACE float acosh(float x) {
    const double t = double{x} - 1.0;
    return static_cast<float>(elementary::log1p(t + std::sqrt(t < 0.0 ? t : t * (t + 2.0))));
}
ORNIK_IN_PLACE double acosh(double x) { return elementary::acosh(x); }
ORNIK_IN_PLACE float atanh(float x) {
    const double a = std::fabs(double{x});
    return static_cast<float>(std::copysign(0.5 * elementary::log1p(2.0 * a / (1.0 - a)), double{x}));
}
ORNIK_IN_PLACE double atanh(double x) { return elementary::atanh(x); }

// ---- Functions of neural networks ----

ORNIK_IN_PLACE float sigmoid(float x) { return elementary::sigmoid(x); }
ORNIK_IN_PLACE double sigmoid(double x) {
    const double e = exp(-std::fabs(x));
    return (x < 0.0 ? e : 1.0) / (1.0 + e);
}
/// log(1 + e^x)
ORNIK_IN_PLACE float softplus(float x) {
    const double e = elementary::exp(-std::fabs(double{x}));
    return static_cast<float>((x < 0.0F ? 0.0 : double{x}) + elementary::log1p(e));
}
ORNIK_IN_PLACE double softplus(double x) { return (x < 0.0 ? 0.0 : x) + elementary::log1p_exact(exp(-std::fabs(x))); }
template <std::floating_point T>
ORNIK_IN_PLACE T logsigmoid(T x) {
    return -softplus(-x);
}
/// x sigmoid(x) = x / (1 + e^-x) of an x nearer to 0 than the limit: in pairs of numbers to 2^-30, before it is
/// rounded.
ORNIK_IN_PLACE float silu_near(float x) {
    using namespace elementary;
    // -x = k ln 2 + r + r_low; the low bits of the sum are k's biased exponent.
    const float shifted = fused(x, -1.44269504F, whole32 + 127.0F);
    const float k = shifted - (whole32 + 127.0F);
    const float high = fused(-k, ln2_high32, -x);
    const float r = fused(-k, ln2_low32, high);
    const float r_low = fused(-k, ln2_low32, high - r);
    // e^r = 1 + (r + r^2 / 2) + r^3 / 6 + ...; what a rounded square, cube, sum or sixth lacks is added to the rest.
    constexpr float sixth = 0.166666672F;
    const float square = r * r;
    const float cube = square * r;
    const float near = fused(square, 0.5F, r);
    const float near_low = fused(square, 0.5F, r - near);
    const float lost =
        fused(fused(square, r, -cube), sixth, fused(fused(r, r, -square), 0.5F, fused(r_low, near, r_low + near_low)));
    // (e^r - 1 - r - r^2 / 2) / r^3 - sixth; 2^-35 of e^r.
    const float tail = polynomial(r, -4.9670538e-9F, 0.04166666667F, 0.008333320759F, 0.001388887632F, 0.0001988291202F,
                                  2.484322186e-05F);
    const float rest = fused(cube, sixth, fused(cube, tail, lost));
    const float growth = near + rest;
    const float mantissa = 1.0F + growth;
    const float mantissa_low = (growth - (mantissa - 1.0F)) + (rest - (growth - near));
    const float scale = std::bit_cast<float>(std::bit_cast<std::uint32_t>(shifted) << 23);
    // 1 + e^-x, whichever of the two is more.
    const float power = mantissa * scale;
    const float below = 1.0F + power;
    const float added = below - 1.0F;
    const float below_low = fused(mantissa_low, scale, (1.0F - (below - added)) + (power - added));
    const float inverse = 1.0F / below;
    const float quotient = x * inverse;
    const float missing = fused(-quotient, below_low, fused(-quotient, below, x));
    return std::copysign(fused(missing, inverse, quotient), x);
}
/// What row kernels know of such functions (NearZero, row_kernels.h).
struct SiluNear {
    static constexpr bool differs = true;
    static constexpr float limit = 48.0F;
    ORNIK_IN_PLACE static float value(float x) { return silu_near(x); }
};
ORNIK_IN_PLACE float silu(float x) {
    const double d = elementary::clamped(x, -200.0F, 200.0F);
    const double power = elementary::power_of_two_approx(d * -1.4426950408889634);
    const float far = static_cast<float>(double{elementary::clamped(x, -200.0F, INFINITY)} / (1.0 + power));
    return elementary::selected(elementary::bits_if(std::fabs(x) >= SiluNear::limit), far, silu_near(x));
}
ORNIK_IN_PLACE double silu(double x) {
    // Two factors, so that none is subnormal before the result is.
    const double d = elementary::clamped(x, -800.0, HUGE_VAL);
    const double half = exp(-0.5 * std::fabs(d));
    const double below = 1.0 + half * half;
    return d < 0.0 ? d * half / below * half : d / below;
}
/// x (1 + erf(x / sqrt(2))) / 2. In single precision the relative error is bounded for x above -1/2 alone: below, the
/// error is at most 2^-23 |x|.
ORNIK_IN_PLACE float gelu(float x) {
    using elementary::selected;
    const auto [far, near, tail] = elementary::normal_parts(x);
    const float a = elementary::clamped(std::fabs(x), 0.0F, 6.0F);
    const float positive = x < 0.0F ? 0.0F : x;
    const float value = fused(selected(far, -a, x * x), selected(far, tail, near), selected(far, positive, 0.5F * x));
    return std::copysign(value, x);
}
/// The same of an x nearer to 0.
struct GeluNear {
    static constexpr bool differs = true;
    static constexpr float limit = elementary::normal_near_limit;
    ORNIK_IN_PLACE static float value(float x) {
        return std::copysign(fused(x * x, elementary::normal_near(x), 0.5F * x), x);
    }
};
inline double gelu(double x) {
    const double d = elementary::clamped(x, -50.0, HUGE_VAL);
    // erfc falls so steeply that the rounding of its argument z shows: put it right by the logarithmic slope,
    // which is near z + sqrt(z^2 + 4 / pi).
    constexpr double root_half = 0.70710678118654752;
    constexpr double root_half_rest = -4.8336466567264567e-17;
    const double z = d * -root_half;
    const double rest = fused(d, -root_half, -z) - d * root_half_rest;
    const double steep = d < -1.0 ? rest * (z + std::sqrt(z * z + 1.2732395447351628)) : 0.0;
    const double tail = elementary::erfc(z);
    return 0.5 * d * (tail - tail * steep);
}
/// Derivative of silu, sigmoid(x) (1 + x sigmoid(-x)); its clamped argument keeps infinities from meeting zeros.
ORNIK_IN_PLACE float silu_slope(float x) {
    const float d = elementary::clamped(x, -800.0F, 800.0F);
    const float power = elementary::exp(-std::fabs(d));
    const float above = 1.0F / (1.0F + power);  // sigmoid(|d|)
    const float below = power * above;
    const std::uint32_t negative = elementary::bits_if(d < 0.0F);
    return elementary::selected(negative, below, above) * fused(d, elementary::selected(negative, above, below), 1.0F);
}
ORNIK_IN_PLACE double silu_slope(double x) {
    const double d = elementary::clamped(x, -800.0, 800.0);
    return sigmoid(d) * (1.0 + d * sigmoid(-d));
}
/// Derivative of gelu: the normal distribution and x times its density.
ORNIK_IN_PLACE float gelu_slope(float x) {
    const float d = elementary::clamped(x, -12.0F, 12.0F);
    const auto [far, near, tail] = elementary::normal_parts(d);
    const float density = elementary::scaled_power(-0.5F * d * d) * (0.39894228F * 0x1p-24F);
    const float beyond = d < 0.0F ? tail : 1.0F - tail;
    return fused(d, density, elementary::selected(far, beyond, fused(d, near, 0.5F)));
}
ORNIK_IN_PLACE double gelu_slope(double x) {
    const double d = elementary::clamped(x, -50.0, 50.0);
    return 0.5 * elementary::erfc(d * -0.70710678118654752) + 0.39894228040143268 * d * exp(-0.5 * d * d);
}
ORNIK_IN_PLACE float erf(float x) { return elementary::erf(x); }
ORNIK_IN_PLACE double erf(double x) { return elementary::erf(x); }

// ---- Signs, parts and tests ----

template <std::floating_point T>
ORNIK_IN_PLACE T abs(T x) {
    return std::fabs(x);
}
template <std::floating_point T>
ORNIK_IN_PLACE T neg(T x) {
    return -x;
}
template <std::floating_point T>
ORNIK_IN_PLACE T sqr(T x) {
    return x * x;
}
/// NaN and zeros stay what they are.
template <std::floating_point T>
ORNIK_IN_PLACE T sign(T x) {
    return x > T(0) ? T(1) : (x < T(0) ? T(-1) : x);
}
template <std::floating_point T>
ORNIK_IN_PLACE T conj(T x) {
    return x;
}
template <std::floating_point T>
ORNIK_IN_PLACE T real(T x) {
    return x;
}
template <std::floating_point T>
ORNIK_IN_PLACE T imag(T /*x*/) {
    return T(0);
}
/// 0, or pi with the sign bit.
template <std::floating_point T>
ORNIK_IN_PLACE T angle(T x) {
    return x != x ? x : (std::copysign(T(1), x) < T(0) ? T(3.14159265358979323846L) : T(0));
}
template <std::floating_point T>
ORNIK_IN_PLACE T floor(T x) {
    return std::floor(x);
}
template <std::floating_point T>
ORNIK_IN_PLACE T ceil(T x) {
    return std::ceil(x);
}
/// Half to even.
template <std::floating_point T>
ORNIK_IN_PLACE T round(T x) {
    return std::nearbyint(x);
}
template <std::floating_point T>
ORNIK_IN_PLACE T trunc(T x) {
    return std::trunc(x);
}
template <std::floating_point T>
ORNIK_IN_PLACE bool is_nan(T x) {
    return x != x;
}
template <std::floating_point T>
ORNIK_IN_PLACE bool is_inf(T x) {
    return std::fabs(x) == std::numeric_limits<T>::infinity();
}
template <std::floating_point T>
ORNIK_IN_PLACE bool is_finite(T x) {
    return std::fabs(x) < std::numeric_limits<T>::infinity();
}
template <std::floating_point T>
ORNIK_IN_PLACE bool logical_not(T x) {
    return x == T(0);
}

// ---- Two operands ----

template <std::floating_point T>
ORNIK_IN_PLACE T pow(T x, T y) {
    return static_cast<T>(elementary::pow(double{x}, double{y}));
}
template <std::floating_point T>
ORNIK_IN_PLACE T atan2(T y, T x) {
    return static_cast<T>(elementary::atan2(double{y}, double{x}));
}
template <std::floating_point T>
ORNIK_IN_PLACE T fmod(T x, T y) {
    return std::fmod(x, y);
}
/// Of the divisor's sign.
template <std::floating_point T>
ORNIK_IN_PLACE T remainder(T x, T y) {
    const T rest = std::fmod(x, y);
    if (rest == T(0)) {
        return std::copysign(rest, y);
    }
    return (rest < T(0)) != (y < T(0)) ? rest + y : rest;
}

}  // namespace ornik::real_functions
