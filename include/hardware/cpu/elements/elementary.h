// elementary.h: exponentials, logarithms and circular functions that a compiler turns into vector code.
//
// Straight-line code without branches, tables or calls: a loop over them vectorises. Every rounding is
// written out (fused() where a product and a sum may round once; contraction is off), so a value gets the
// same bits in a vector lane, in the last elements of a row and alone.
//
// Polynomials are minimax fits (interpolation at Chebyshev nodes in 40 digits) of the function named in the
// comment; the error given is that of the fit. Single-precision functions that are not worth a fit of
// their own run in double: the last rounding is then all their error.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#include "hardware/cpu/vector_types.h"

// A call that is not expanded would keep the loop around it from becoming vector code.
#if defined(__GNUC__)
#define ORNIK_IN_PLACE [[gnu::always_inline]] inline
#else
#define ORNIK_IN_PLACE inline
#endif

#if ORNIK_VECTOR_CALLS
extern "C" {
[[gnu::simd("notinbranch"), gnu::const, gnu::nothrow, gnu::visibility("hidden")]] float ornik_fused_float(float, float,
                                                                                                          float);
[[gnu::simd("notinbranch"), gnu::const, gnu::nothrow, gnu::visibility("hidden")]] double ornik_fused_double(double,
                                                                                                            double,
                                                                                                            double);
}
#endif

namespace ornik::elementary {

/// a b + c, rounded once, as part of vector code; in double, of factors below 2^900 whose product is no infinity, and
/// is 0, above 2^-900, or of no account beside c.
#if ORNIK_FUSES
ORNIK_IN_PLACE float fused(float a, float b, float c) { return std::fma(a, b, c); }
ORNIK_IN_PLACE double fused(double a, double b, double c) { return std::fma(a, b, c); }
#elif ORNIK_VECTOR_CALLS
ORNIK_IN_PLACE float fused(float a, float b, float c) { return ornik_fused_float(a, b, c); }
ORNIK_IN_PLACE double fused(double a, double b, double c) { return ornik_fused_double(a, b, c); }
#else
ORNIK_IN_PLACE float fused(float a, float b, float c) { return device::cpu::vec::fused(a, b, c); }
ORNIK_IN_PLACE double fused(double a, double b, double c) {
    using namespace device::cpu::vec::detail;
    const double a_high = upper_half(a);
    const double a_low = a - a_high;
    const double b_high = upper_half(b);
    const double b_low = b - b_high;
    const double product = a * b;
    const double lost = a_low * b_low - (((product - a_high * b_high) - a_low * b_high) - a_high * b_low);
    const auto [low, lowest] = exact_sum(c, lost);
    const auto [high, middle] = exact_sum(product, low);
    const double sum = high + odd_sum(middle, lowest);
    return product == 0 ? product + c : sum;  // The sign of 0.
}
#endif

// Functions of single precision take one number or a vector of them (Singles).
using device::cpu::vec::Bits;
using device::cpu::vec::bits_of;
using device::cpu::vec::from_bits;
using device::cpu::vec::larger;
using device::cpu::vec::looked_up;
using device::cpu::vec::Singles;
using device::cpu::vec::smaller;

template <typename V>
concept SingleVector = Singles<V> && !std::is_same_v<V, float>;

template <SingleVector V>
ORNIK_IN_PLACE V fused(V a, V b, V c) {
    return device::cpu::vec::fused(a, b, c);
}
/// c - a b, rounded once.
template <typename V>
ORNIK_IN_PLACE V fused_minus(V a, V b, V c) {
    if constexpr (SingleVector<V>) {
        return device::cpu::vec::fused_minus(a, b, c);
    } else {
        return fused(-a, b, c);
    }
}
/// a b - c, rounded once.
template <Singles V>
ORNIK_IN_PLACE V fused_less(V a, V b, V c) {
    if constexpr (SingleVector<V>) {
        return device::cpu::vec::fused_less(a, b, c);
    } else {
        return fused(a, b, -c);
    }
}
/// The number, as often as there are lanes.
template <typename V, typename T>
ORNIK_IN_PLACE V all(T x) {
    if constexpr (std::is_same_v<V, T>) {
        return x;
    } else {
        return device::cpu::vec::broadcast<V>(x);
    }
}

/// c0 + c1 x + c2 x^2 + ...
template <typename V, typename T>
ORNIK_IN_PLACE V polynomial(V /*x*/, T c) {
    return all<V>(c);
}
template <typename V, typename T, typename... Ts>
ORNIK_IN_PLACE V polynomial(V x, T c0, Ts... rest) {
    return fused(x, polynomial(x, rest...), all<V>(c0));
}

/// NaN passes.
ORNIK_IN_PLACE double clamped(double x, double low, double high) {
    const double above = x < low ? low : x;
    return above > high ? high : above;
}
template <Singles V>
ORNIK_IN_PLACE V clamped(V x, float low, float high) {
    return smaller(all<V>(high), larger(all<V>(low), x));
}

/// All bits or none of each; branches would keep the compiler from vector code where much depends on them.
ORNIK_IN_PLACE std::uint32_t bits_if(bool condition) { return condition ? ~std::uint32_t{0} : 0; }
template <typename Condition>
ORNIK_IN_PLACE auto bits_if(const Condition& condition) requires(!std::is_same_v<Condition, bool>) {
    return std::bit_cast<Bits<Condition>>(condition);
}
template <Singles V>
ORNIK_IN_PLACE V selected(Bits<V> bits, V a, V b) {
    return from_bits<V>((bits_of(a) & bits) | (bits_of(b) & ~bits));
}
template <Singles V>
ORNIK_IN_PLACE V magnitude(V x) {
    if constexpr (std::is_same_v<V, float>) {
        return std::fabs(x);
    } else {
        return from_bits<V>(bits_of(x) & 0x7fffffffU);
    }
}
template <Singles V>
ORNIK_IN_PLACE V with_sign(V size, V sign) {
    if constexpr (std::is_same_v<V, float>) {
        return std::copysign(size, sign);
    } else {
        return from_bits<V>((bits_of(size) & 0x7fffffffU) | (bits_of(sign) & 0x80000000U));
    }
}

/// 2^k for an integer k in the exponent range.
template <Singles V>
ORNIK_IN_PLACE V power_of_two(Bits<V> k) {
    return from_bits<V>((k + 127U) << 23);
}

// Adding and subtracting this rounds to a whole number, which also appears in the low bits of the sum.
inline constexpr float whole32 = 0x1.8p23F;
inline constexpr double whole64 = 0x1.8p52;

// ln 2 in two pieces; products of the first one with an exponent are exact.
inline constexpr float ln2_high32 = 0x1.63p-1F;
inline constexpr float ln2_low32 = -0x1.bd0106p-13F;
inline constexpr double ln2_high64 = 0x1.62e42feep-1;
inline constexpr double ln2_low64 = 0x1.a39ef35793c76p-33;

// ---- Exponentials: x = k ln 2 + r, |r| <= ln 2 / 2 ----

/// (e^r - 1 - r) / r^2; 2^-32.
template <Singles V>
ORNIK_IN_PLACE V exp_tail(V r) {
    return polynomial(r, 0.5F, 0.1666666668F, 0.04166646499F, 0.008333310933F, 0.001393364269F, 0.0001989098271F);
}
/// 2^-62.
ORNIK_IN_PLACE double exp_tail(double r) {
    return polynomial(r, 0.5, 0.16666666666666670987, 0.041666666666666669752, 0.0083333333333261398193,
                      0.0013888888888883751656, 0.00019841269874804214781, 0.000024801587325536022311,
                      2.7557255421023504491e-6, 2.7557273657975951331e-7, 2.5105208339987696806e-8,
                      2.0914680780540265278e-9);
}

template <Singles V>
struct Reduced32 {
    Bits<V> k;
    V r;
};
template <Singles V>
ORNIK_IN_PLACE Reduced32<V> by_ln2(V x) {
    const V shifted = fused(x, all<V>(1.44269504F), all<V>(whole32));
    const V k = shifted - whole32;
    const V r = fused_minus(k, all<V>(ln2_low32), fused_minus(k, all<V>(ln2_high32), x));
    return {bits_of(shifted) - bits_of(whole32), r};
}
/// e^r
template <Singles V>
ORNIK_IN_PLACE V exp_near(V r) {
    return fused(r * r, exp_tail(r), r) + 1.0F;
}

struct Reduced64 {
    double k;
    double r;
};
ORNIK_IN_PLACE Reduced64 by_ln2(double x) {
    const double k = fused(x, 1.4426950408889634, whole64) - whole64;
    return {k, fused(-k, ln2_low64, fused(-k, ln2_high64, x))};
}

/// 2^k for a whole k in the exponent range.
ORNIK_IN_PLACE double power_of_two(double k) {
    const auto low_bits = std::bit_cast<std::uint64_t>(k + (whole64 + 1023.0));
    return std::bit_cast<double>(low_bits << 52);
}

template <Singles V>
ORNIK_IN_PLACE V exp(V x) {
    // Beyond the bounds the result is 0 or infinite; between them it may be subnormal.
    const V c = clamped(x, -104.0F, 89.0F);
    const V shifted = fused(c, all<V>(1.44269504F), all<V>(whole32 + 254.0F));
    const V k = shifted - (whole32 + 254.0F);
    const V r = fused_minus(k, all<V>(ln2_low32), fused_minus(k, all<V>(ln2_high32), c));
    return device::cpu::vec::scaled(exp_near(r), k, bits_of(shifted));
}

ORNIK_IN_PLACE double exp(double x) {
    const auto [k, r] = by_ln2(clamped(x, -746.0, 710.0));
    const double mantissa = fused(r * r, exp_tail(r), r) + 1.0;
    const double half = fused(k, 0.5, whole64) - whole64;
    return mantissa * power_of_two(half) * power_of_two(k - half);
}

/// 2^scale e^x of an x that is not above 0. One factor then covers all exponents: dividing by a sum of such powers, or
/// multiplying by 2^-scale, reaches the subnormal range.
template <typename T>
inline constexpr int power_scale = sizeof(T) == 4 ? 24 : 54;
template <Singles V>
ORNIK_IN_PLACE V scaled_power(V x) {
    const auto [k, r] = by_ln2(larger(all<V>(-104.0F), x));
    return exp_near(r) * power_of_two<V>(k + static_cast<std::uint32_t>(power_scale<float>));
}
ORNIK_IN_PLACE double scaled_power(double x) {
    const auto [k, r] = by_ln2(x < -746.0 ? -746.0 : x);
    return (fused(r * r, exp_tail(r), r) + 1.0) * power_of_two(k + double{power_scale<double>});
}

/// e^x of an x from -708 to 709.
ORNIK_IN_PLACE double power_in_range(double x) {
    const auto [k, r] = by_ln2(x);
    return (fused(r * r, exp_tail(r), r) + 1.0) * power_of_two(k);
}

/// e^x of an x that is not above 0, or 0 where that is next to nothing.
ORNIK_IN_PLACE float power_or_nothing(float x) {
    const auto [k, r] = by_ln2(larger(-87.0F, x));
    const float power = exp_near(r) * power_of_two<float>(k);
    return x < -87.0F ? 0.0F : power;
}
ORNIK_IN_PLACE double power_or_nothing(double x) {
    const double power = power_in_range(x < -708.0 ? -708.0 : x);
    return x < -708.0 ? 0.0 : power;
}

/// 1 / (1 + e^-x) = 2^-30 / (2^-30 + 2^-30 e^-x): one factor then covers all exponents.
template <Singles V>
ORNIK_IN_PLACE V sigmoid(V x) {
    const auto [k, r] = by_ln2(clamped(-x, -25.0F, 104.0F));
    return 0x1p-30F / fused(exp_near(r), power_of_two<V>(k - 30U), all<V>(0x1p-30F));
}

/// x in -86 .. 0 for float, -700 .. 700 for double.
template <Singles V>
ORNIK_IN_PLACE V expm1_moderate(V x) {
    const auto [k, r] = by_ln2(x);
    const V scale = power_of_two<V>(k);
    return fused(scale, fused(r * r, exp_tail(r), r), scale - 1.0F);
}
ORNIK_IN_PLACE double expm1_moderate(double x) {
    const auto [k, r] = by_ln2(x);
    const double scale = power_of_two(k);
    return fused(scale, fused(r * r, exp_tail(r), r), scale - 1.0);
}

// ---- Logarithms: x = 2^k m, sqrt(1/2) <= m < sqrt(2) ----

ORNIK_IN_PLACE float log(float x) {
    const bool tiny = x < 0x1p-126F;
    const float normal = tiny ? x * 0x1p25F : x;
    constexpr std::uint32_t root_half = 0x3f3504f3;
    // Biased by 127 * 2^23, as the exponent is.
    const std::uint32_t shifted = std::bit_cast<std::uint32_t>(normal) + (0x3f800000 - root_half);
    const float k = static_cast<float>(static_cast<std::int32_t>(shifted >> 23)) - (tiny ? 127.0F + 25.0F : 127.0F);
    const float f = std::bit_cast<float>((shifted & 0x007fffff) + root_half) - 1.0F;
    // (log(1 + f) - f + f^2 / 2) / f^3; 2^-28.
    const float tail = polynomial(f, 0.3333333118F, -0.2499999696F, 0.2000071575F, -0.1666780232F, 0.1424905765F,
                                  -0.1242568733F, 0.1168541992F, -0.1147973385F, 0.06971611471F);
    const float square = f * f;
    const float small = fused(square * f, tail, fused(k, ln2_low32, -0.5F * square));
    const float result = fused(k, ln2_high32, f + small);
    const float positive = x < INFINITY ? result : x;
    return x > 0.0F ? positive : (x == 0.0F ? -INFINITY : NAN);
}

/// Of a normal positive number, as one that was scaled by 2^(bias - 1023).
ORNIK_IN_PLACE double log_of_normal(double normal, double bias) {
    constexpr std::uint64_t root_half = 0x3fe6a09e667f3bcd;
    constexpr std::uint64_t mantissa_bits = 0x000fffffffffffff;
    // Biased by 1023 * 2^52, so that a logical shift does.
    const std::uint64_t shifted = std::bit_cast<std::uint64_t>(normal) + (0x3ff0000000000000 - root_half);
    const double biased = std::bit_cast<double>((shifted >> 52) | 0x4330000000000000) - 0x1p52;
    const double k = biased - bias;
    const double f = std::bit_cast<double>((shifted & mantissa_bits) + root_half) - 1.0;
    const double s = f / (2.0 + f);
    const double z = s * s;
    // log((1 + s) / (1 - s)) = 2 s + s z tail(z); 2^-64.
    const double tail = z * polynomial(z, 0.66666666666666666464, 0.40000000000000879686, 0.28571428570801956942,
                                       0.22222222392089007998, 0.18181795600060787268, 0.15386241881938825606,
                                       0.13268714792342885109, 0.13087236196706833707);
    const double half_square = 0.5 * f * f;
    const double small = half_square - fused(s, half_square + tail, k * ln2_low64);
    return fused(k, ln2_high64, f - small);
}

ORNIK_IN_PLACE double log(double x) {
    const bool tiny = x < 0x1p-1022;
    const double result = log_of_normal(tiny ? x * 0x1p54 : x, tiny ? 1023.0 + 54.0 : 1023.0);
    const double positive = x < HUGE_VAL ? result : x;
    return x > 0.0 ? positive : (x == 0.0 ? -HUGE_VAL : NAN);
}

/// For x that a float or a product of two floats can hold.
ORNIK_IN_PLACE double log1p(double x) {
    const double sum = 1.0 + x;
    const double lost = x - (sum - 1.0);
    return log(sum) + (sum < HUGE_VAL && sum > 0.0 ? lost / sum : 0.0);
}

// ---- Circular functions of single-precision arguments up to circular_limit: x = k pi / 2 + r ----

template <typename T>
inline constexpr T circular_limit{};
template <>
inline constexpr float circular_limit<float> = 0x1p16F;

ORNIK_IN_PLACE float negated_if(std::uint32_t bit, float x) {
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(x) ^ (bit << 31));
}

/// sin(x + shift pi / 2) for a shift of 0 or 1.
ORNIK_IN_PLACE float sin_shifted(float x, std::uint32_t shift) {
    const float shifted = fused(x, 0.636619772F, whole32);
    const float k = shifted - whole32;
    // pi / 2 in three pieces of 24 bits: the first step is exact, k being below 2^16.
    const float r = fused(-k, -0x1.ee59dap-50F, fused(-k, -0x1.777a5cp-25F, fused(-k, 0x1.921fb6p+0F, x)));
    const float z = r * r;
    // (sin r / r - 1) / z, 2^-36, and (cos r - 1 + z / 2) / z^2, 2^-30.
    const float s = fused(r * z, polynomial(z, -0.1666666667F, 0.008333331874F, -0.000198400865F, 2.72498953e-6F), r);
    const float c =
        fused(z * z, polynomial(z, 0.04166666459F, -0.001388828923F, 2.454497646e-5F), fused(z, -0.5F, 1.0F));
    const std::uint32_t quarter = std::bit_cast<std::uint32_t>(shifted) + shift;
    return negated_if((quarter >> 1) & 1, (quarter & 1) != 0 ? c : s);
}

ORNIK_IN_PLACE float sin(float x) { return std::copysign(1.0F, x) * sin_shifted(std::fabs(x), 0); }
ORNIK_IN_PLACE float cos(float x) { return sin_shifted(x, 1); }

struct Angle {
    std::uint64_t quarter;  ///< Quarter turns, modulo 4 in the low bits.
    double sin;             ///< Of what is left.
    double cos;
};

ORNIK_IN_PLACE Angle quarter_turns(double x) {
    const double shifted = fused(x, 0.63661977236758134, whole64);
    const double k = shifted - whole64;
    const double r = fused(-k, 0x1.0b4611a626331p-34, fused(-k, 0x1.921fb544p+0, x));
    const double z = r * r;
    // (sin r / r - 1) / z, 2^-36, and (cos r - 1 + z / 2) / z^2, 2^-40.
    const double s =
        polynomial(z, -0.16666666663854167, 0.0083333318742736971, -0.00019840086499588236, 2.7249895230115074e-6);
    const double c =
        polynomial(z, 0.04166666666432016, -0.0013888887671638701, 2.4800600175889818e-5, -2.7300933272849958e-7);
    return {std::bit_cast<std::uint64_t>(shifted), r * fused(z, s, 1.0), fused(z * z, c, fused(z, -0.5, 1.0))};
}

ORNIK_IN_PLACE float tan(float x) {
    const Angle a = quarter_turns(x);
    const bool odd = (a.quarter & 1) != 0;
    return static_cast<float>((odd ? -a.cos : a.sin) / (odd ? a.sin : a.cos));
}

/// To 2^-43, what a float result needs.
ORNIK_IN_PLACE double atan_approx(double x) {
    const double a = std::fabs(x);
    // Turned by an eighth or a quarter so that |t| <= tan(pi / 8).
    const bool far = a > 2.414213562373095;
    const bool middle = a > 0.41421356237309503;
    const double above = far ? -1.0 : (middle ? a - 1.0 : a);
    const double below = far ? a : (middle ? a + 1.0 : 1.0);
    const double start = far ? 1.5707963267948966 : (middle ? 0.78539816339744828 : 0.0);
    const double t = above / below;
    const double z = t * t;
    const double tail =
        polynomial(z, -0.3333333333326612, 0.19999999949803647, -0.14285708105033644, 0.11110819510960796,
                   -0.090840981434893147, 0.076047651947904962, -0.060271479490779813, 0.0329539428974707);
    return std::copysign(start + fused(t * z, tail, t), x);
}

// ---- The error function ----

template <Singles V>
ORNIK_IN_PLACE V erf(V x) {
    const V a = clamped(magnitude(x), 0.0F, 4.0F);
    const V z = a * a;
    // erf(a) / a - 1 in z up to 1; 2^-35.
    const V near = fused(a,
                         polynomial(z, 0.1283791671F, -0.3761263847F, 0.112837825F, -0.02686543073F, 0.005221031808F,
                                    -0.0008484080405F, 0.0001126595902F, -9.667044567e-6F),
                         a);
    // -log(erfc(a)) in a from 1 to 4; 2^-31.
    const V exponent = polynomial(a, -0.0003201380497F, 1.130233435F, 0.6318260516F, 0.1100800829F, -0.02642113601F,
                                  0.004759596293F, -0.0005968056257F, 4.605804269e-5F, -1.637151415e-6F);
    const V far = -expm1_moderate(-exponent);
    return with_sign(a < 1.0F ? near : far, x);
}

/// 2^y for y in -1000 .. 1000: the whole part joins the exponent of the rest's power. 2^-39.
ORNIK_IN_PLACE double power_of_two_approx(double y) {
    const double shifted = y + whole64;
    const double f = y - (shifted - whole64);
    // Even and odd powers apart: chains of half the length, which callers would otherwise wait for.
    const double ff = f * f;
    const double mantissa = fused(
        f, polynomial(ff, 0.69314718054593345, 0.05550410941205933, 0.0013333450568000646, 1.5310079402249297e-5),
        polynomial(ff, 1.0, 0.24022650695812988, 0.0096181291594025582, 0.00015403455852453839, 1.3255224878668817e-6));
    return std::bit_cast<double>(std::bit_cast<std::uint64_t>(mantissa) +
                                 (std::bit_cast<std::uint64_t>(shifted) << 52));
}

/// (F(x) - 1/2) / x of the normal distribution function F, for x nearer to 0 than the limit.
inline constexpr float normal_near_limit = 3.0F;
template <Singles V>
ORNIK_IN_PLACE V normal_near(V x) {
    const V z = x * x;
    // 2^-28 of the distribution up to 1, 2^-26 up to 3. The common factor is one whose rounded products do best.
    const V above = polynomial(z, 1.24609947F, 0.0601129271F, 0.00976137072F, -2.29170764e-05F, 1.47722926e-06F);
    const V below = polynomial(z, 3.12350798F, 0.671267331F, 0.0582534708F, 0.00217139255F);
    return above / below;
}

/// The normal distribution function at x. Nearer to 0 than the limit it is 1/2 + x near; beyond, `tail` is what is
/// missing to 1, or to 0 on the other side, and nothing from 5.5 on.
template <Singles V>
struct NormalParts {
    Bits<V> far;
    V near;
    V tail;
};
template <Singles V>
ORNIK_IN_PLACE NormalParts<V> normal_parts(V x) {
    const V a = magnitude(x);
    const V t = a - 4.0F;
    const V beyond =
        polynomial(t, 3.167571335e-5F, -0.000133893114F, 0.0002675305209F, -0.0003339059821F,  // 2^-26
                   0.0002904067506F, -0.0001838246734F, 8.249885903e-5F, -2.319020016e-5F, 2.981397941e-6F);
    const V positive = larger(all<V>(0.0F), beyond);
    return {bits_if(a >= normal_near_limit), normal_near(x), selected(bits_if(a < 5.5F), positive, V{})};
}

}  // namespace ornik::elementary
