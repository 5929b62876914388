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
using elementary::Singles;

// ---- Exponentials and logarithms ----

template <Singles V>
ORNIK_IN_PLACE V exp(V x) {
    return elementary::exp(x);
}
ORNIK_IN_PLACE double exp(double x) { return elementary::exp(x); }
ORNIK_IN_PLACE float exp2(float x) {
    return static_cast<float>(elementary::exp(elementary::clamped(double{x}, -1000, 1000) * 0.69314718055994531));
}
ORNIK_IN_PLACE double exp2(double x) { return elementary::exp2(x); }
ORNIK_IN_PLACE float expm1(float x) {
    return std::copysign(static_cast<float>(elementary::expm1_moderate(elementary::clamped(double{x}, -100, 100))), x);
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
    const double e = elementary::expm1_moderate(elementary::clamped(double{std::fabs(x)}, 0, 100));
    return std::copysign(static_cast<float>(0.5 * (e + e / (e + 1.0))), x);
}
ORNIK_IN_PLACE double sinh(double x) { return elementary::sinh(x); }
ORNIK_IN_PLACE float cosh(float x) {
    const double e = elementary::exp(elementary::clamped(double{x}, -100, 100));
    return static_cast<float>(0.5 * (e + 1.0 / e));
}
ORNIK_IN_PLACE double cosh(double x) { return elementary::cosh(x); }
template <Singles V>
ORNIK_IN_PLACE V tanh(V x) {
    const V e = elementary::expm1_moderate(-2.0F * elementary::clamped(elementary::magnitude(x), 0.0F, 40.0F));
    return elementary::with_sign(e / (2.0F + e), x);
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

template <Singles V>
ORNIK_IN_PLACE V sigmoid(V x) {
    return elementary::sigmoid(x);
}
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
/// x sigmoid(x) = x / (1 + e^-x) of an x nearer to 0 than the limit: in pairs of numbers to 2^-31, before it is
/// rounded.
inline constexpr float silu_limit = 80.0F;
template <Singles V>
ORNIK_IN_PLACE V silu_near(V x) {
    using namespace elementary;
    // Powers of 2^(1/8) of 23 digits, so that 1 more is exact where they are not below 1, and the logarithm of what
    // they lack.
    static constexpr float powers[] = {0x1p+0F,        0x1.172b84p+0F, 0x1.306fe0p+0F, 0x1.4bfdacp+0F,
                                       0x1.6a09e8p+0F, 0x1.8ace54p+0F, 0x1.ae89f8p+0F, 0x1.d5818cp+0F};
    static constexpr float lacking[] = {0.0F,
                                        -0x1.9c0c22p-27F,
                                        0x1.125002p-25F,
                                        0x1.05b3acp-24F,
                                        -0x1.20888ep-24F,
                                        0x1.67a1cap-28F,
                                        0x1.e26f00p-25F,
                                        0x1.f9b2d8p-25F};
    // x = -k ln 2 + high - low in eighths of k, which the low bits of the sum count; high is exact.
    constexpr float eighths = 0x1.8p20F;
    const V shifted = fused(x, all<V>(-1.44269504F), all<V>(eighths));
    const V k = shifted - eighths;
    const Bits<V> count = bits_of(shifted);
    const V high = fused(k, all<V>(0x1.62e43p-1F), x);
    const V low = fused(k, all<V>(0x1.05c61p-29F), looked_up<V>(lacking, count));
    // e^-r = 1 - high + rest; 2^-32.
    const V r = high - low;
    const V rest = fused(r * r, polynomial(r, 0.5F, -0x1.555c96p-3F, 0x1.555a2cp-5F), low);
    // 1 + e^-x = sum - power high + ...
    const V power = from_bits<V>(bits_of(looked_up<V>(powers, count)) + ((count >> 3) << 23));
    const V most = larger(all<V>(1.0F), power);
    const V least = smaller(all<V>(1.0F), power);
    const V sum = most + least;
    const V lost = least - (sum - most);
    const V below = fused(power, rest - high, sum);
    const V below_low = fused_minus(power, high, sum - below) + fused(power, rest, lost);
    const V inverse = 1.0F / below;
    const V quotient = x * inverse;
    const V excess = fused(quotient, below_low, fused_less(quotient, below, x));
    return fused_minus(excess, inverse, quotient);
}
/// Of any x.
inline float silu_far(float x) {
    const double d = elementary::clamped(x, -200.0F, 200.0F);
    const double power = elementary::power_of_two_approx(d * -1.4426950408889634);
    return static_cast<float>(double{elementary::clamped(x, -200.0F, INFINITY)} / (1.0 + power));
}
template <Singles V>
ORNIK_IN_PLACE V silu(V x) {
    V y = silu_near(x);
    constexpr auto limit = std::bit_cast<std::uint32_t>(silu_limit);
    if (device::cpu::vec::any_from(elementary::bits_of(elementary::magnitude(x)), limit)) [[unlikely]] {
        if constexpr (std::is_same_v<V, float>) {
            return silu_far(x);
        } else {
            for (unsigned i = 0; i < sizeof(V) / sizeof(float); ++i) {
                y[i] = std::fabs(x[i]) < silu_limit ? y[i] : silu_far(x[i]);
            }
        }
    }
    return y;
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
template <Singles V>
ORNIK_IN_PLACE V gelu(V x) {
    using namespace elementary;
    const auto [far, near, tail] = normal_parts(x);
    const V a = clamped(magnitude(x), 0.0F, 6.0F);
    const V positive = larger(all<V>(0.0F), x);
    return with_sign(fused(selected(far, -a, x * x), selected(far, tail, near), selected(far, positive, 0.5F * x)), x);
}
/// The same of an x nearer to 0: what row kernels know of such functions (NearZero, row_kernels.h).
struct GeluNear {
    static constexpr bool differs = true;
    static constexpr float limit = elementary::normal_near_limit;
    template <Singles V>
    ORNIK_IN_PLACE static V value(V x) {
        return elementary::with_sign(fused(x * x, elementary::normal_near(x), 0.5F * x), x);
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
template <Singles V>
ORNIK_IN_PLACE V silu_slope(V x) {
    using namespace elementary;
    const V d = clamped(x, -800.0F, 800.0F);
    const V power = elementary::exp(-magnitude(d));
    const V above = 1.0F / (1.0F + power);  // sigmoid(|d|)
    const V below = power * above;
    const Bits<V> negative = bits_if(d < 0.0F);
    return selected(negative, below, above) * fused(d, selected(negative, above, below), all<V>(1.0F));
}
ORNIK_IN_PLACE double silu_slope(double x) {
    const double d = elementary::clamped(x, -800.0, 800.0);
    return sigmoid(d) * (1.0 + d * sigmoid(-d));
}
/// Derivative of gelu: the normal distribution and x times its density.
template <Singles V>
ORNIK_IN_PLACE V gelu_slope(V x) {
    using namespace elementary;
    const V d = clamped(x, -12.0F, 12.0F);
    const auto [far, near, tail] = normal_parts(d);
    const V density = scaled_power(-0.5F * d * d) * (0.39894228F * 0x1p-24F);
    const V beyond = selected(bits_if(d < 0.0F), tail, 1.0F - tail);
    return fused(d, density, selected(far, beyond, fused(d, near, all<V>(0.5F))));
}
/// The same of an x nearer to 0.
struct GeluSlopeNear {
    static constexpr bool differs = true;
    static constexpr float limit = elementary::normal_near_limit;
    template <Singles V>
    ORNIK_IN_PLACE static V value(V x) {
        using namespace elementary;
        const auto [k, r] = by_ln2(-0.5F * x * x);
        const V density = exp_near(r) * power_of_two<V>(k) * 0.39894228F;
        return fused(x, density, fused(x, normal_near(x), all<V>(0.5F)));
    }
};
ORNIK_IN_PLACE double gelu_slope(double x) {
    const double d = elementary::clamped(x, -50.0, 50.0);
    return 0.5 * elementary::erfc(d * -0.70710678118654752) + 0.39894228040143268 * d * exp(-0.5 * d * d);
}
template <Singles V>
ORNIK_IN_PLACE V erf(V x) {
    return elementary::erf(x);
}
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
/// The power of single-precision numbers in single steps, to 2^-44; `unsure` is set where that does not tell what pow()
/// is.
ORNIK_IN_PLACE float pow_surely(float x, float y, int& unsure) {
    const double exponent = elementary::log_of_normal(double{x}, 1023.0) * double{y};
    const double power = elementary::power_in_range(elementary::clamped(exponent, -200.0, 200.0));
    const auto low = static_cast<float>(power * (1.0 - 0x1p-43));
    const auto high = static_cast<float>(power * (1.0 + 0x1p-43));
    unsure |= static_cast<int>(!((x > 0.0F) & (x < INFINITY) & (low == high)));
    return low;
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
