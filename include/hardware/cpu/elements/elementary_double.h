// elementary_double.h: functions of double-precision numbers, of this library's own. Internal.
//
// The standard library's differ from system to system and, by the instructions that it finds, from processor to
// processor. Results here err by less than a unit in the last place: what counts is carried as a sum of two numbers.
//
// Included by row kernels only, which have the fused multiply-add; other files call called_functions.h. Without
// branches, as far as it goes: loops over these functions become vector code.
#pragma once

#include <limits>

#include "elementary.h"

namespace ornik::elementary {

/// high + low, where low is at most about half a unit of high's last digit.
struct Pair {
    double high;
    double low = 0;
};

/// Exact on every processor, whatever the numbers.
ORNIK_IN_PLACE double exactly_fused(double a, double b, double c) {
#if ORNIK_VECTOR_CALLS
    return ornik_fused_double(a, b, c);
#else
    return device::cpu::vec::fused(a, b, c);
#endif
}
ORNIK_IN_PLACE Pair sum_of(double a, double b) {
    const auto [sum, rest] = device::cpu::vec::detail::exact_sum(a, b);
    return {sum, rest};
}
/// Of an a that is not smaller.
ORNIK_IN_PLACE Pair joined(double a, double b) {
    const double sum = a + b;
    return {sum, b - (sum - a)};
}
ORNIK_IN_PLACE Pair product_of(double a, double b) {
    const double product = a * b;
    return {product, exactly_fused(a, b, -product)};
}
ORNIK_IN_PLACE Pair product_of(Pair a, Pair b) {
    const Pair p = product_of(a.high, b.high);
    return joined(p.high, p.low + (a.high * b.low + a.low * b.high));
}
ORNIK_IN_PLACE Pair quotient_of(Pair a, Pair b) {
    const double q = a.high / b.high;
    return {q, (exactly_fused(-q, b.high, a.high) + (a.low - q * b.low)) / b.high};
}
ORNIK_IN_PLACE Pair root_of(Pair a) {
    const double root = std::sqrt(a.high);
    return {root, root > 0 ? (exactly_fused(-root, root, a.high) + a.low) / (2 * root) : 0.0};
}
ORNIK_IN_PLACE double value_of(Pair a) { return a.high + a.low; }

inline constexpr Pair ln2{0x1.62e42fefa39efp-1, 0x1.abc9e3b39803fp-56};
inline constexpr Pair half_pi{0x1.921fb54442d18p+0, 0x1.1a62633145c07p-54};
inline constexpr Pair whole_pi{0x1.921fb54442d18p+1, 0x1.1a62633145c07p-53};

// ---- Exponentials: x = k ln 2 + r ----

/// e^x = 2^k (1 + r + rest)
struct Power {
    double k;
    double r;
    double rest;
};
ORNIK_IN_PLACE Power power_of_e(Pair x) {
    const double k = fused(x.high, 1.4426950408889634, whole64) - whole64;
    const Pair lower = product_of(k, ln2_low64);
    const auto [r, lost] = sum_of(fused(-k, ln2_high64, x.high), -lower.high);
    const double rest = lost - lower.low + x.low;
    const double tail = r * r * exp_tail(r);
    return {k, r, tail + (rest + rest * (r + tail))};
}
/// 2^k times it.
ORNIK_IN_PLACE double scaled_value(const Power& p, double k) {
    const Pair sum = sum_of(1.0, p.r);
    const double half = fused(k, 0.5, whole64) - whole64;
    return (sum.high + (sum.low + p.rest)) * power_of_two(half) * power_of_two(k - half);
}
/// e^x - 1 for x from -60 to 44.
ORNIK_IN_PLACE Pair expm1_pair(double x) {
    const Power p = power_of_e({x});
    const double scale = power_of_two(p.k);
    const Pair power = sum_of(scale, scale * p.r);
    const Pair less = sum_of(-1.0, power.high);
    return joined(less.high, less.low + power.low + scale * p.rest);
}

ORNIK_IN_PLACE double exp2(double x) {
    const double c = clamped(x, -1100.0, 1100.0);
    const double whole = (c + whole64) - whole64;
    const Pair rest = product_of(c - whole, ln2.high);
    const Power p = power_of_e({rest.high, rest.low + (c - whole) * ln2.low});
    return scaled_value(p, p.k + whole);
}
ORNIK_IN_PLACE double expm1(double x) {
    return x > 40.0 ? exp(x) : std::copysign(value_of(expm1_pair(x < -60.0 ? -60.0 : x)), x);
}
ORNIK_IN_PLACE double sinh(double x) {
    const double a = std::fabs(x);
    const Power p = power_of_e({clamped(a, 0.0, 720.0)});
    const Pair e = expm1_pair(a > 22.0 ? 22.0 : a);
    const double value = 0.5 * (e.high + (e.low + e.high / (e.high + 1.0)));
    return std::copysign(a > 22.0 ? scaled_value(p, p.k - 1.0) : value, x);
}
ORNIK_IN_PLACE double cosh(double x) {
    const double a = std::fabs(x);
    const Power p = power_of_e({clamped(a, 0.0, 720.0)});
    const double half = scaled_value(p, p.k - 1.0);
    return a > 22.0 ? half : half + 0.25 / half;
}
ORNIK_IN_PLACE double tanh(double x) {
    const double a = std::fabs(x);
    const Pair e = expm1_pair(2.0 * (a > 20.0 ? 20.0 : a));
    return std::copysign(e.high / (2.0 + e.high), x);
}

// ---- Logarithms: x = 2^k m, sqrt(1/2) <= m < sqrt(2) ----

/// Of a positive finite x, to 2^-64 of itself.
ORNIK_IN_PLACE Pair log_pair(double x) {
    const bool tiny = x < 0x1p-1022;
    const double normal = tiny ? x * 0x1p54 : x;
    constexpr std::uint64_t root_half = 0x3fe6a09e667f3bcd;
    const std::uint64_t shifted = std::bit_cast<std::uint64_t>(normal) + (0x3ff0000000000000 - root_half);
    const double biased = std::bit_cast<double>((shifted >> 52) | 0x4330000000000000) - 0x1p52;
    const double k = biased - (tiny ? 1023.0 + 54.0 : 1023.0);
    const double f = std::bit_cast<double>((shifted & 0x000fffffffffffff) + root_half) - 1.0;
    const Pair s = quotient_of({f}, sum_of(2.0, f));
    Pair z = product_of(s.high, s.high);
    z.low += 2.0 * s.high * s.low;
    // log((1 + s) / (1 - s)) = 2 s + 2/3 s^3 + s^5 tail; as in log(), 2^-64 of it.
    const Pair cube = product_of(s, product_of(z, {0x1.5555555555555p-1, 0x1.5555555555555p-55}));
    const double tail =
        polynomial(z.high, 0.40000000000000879686, 0.28571428570801956942, 0.22222222392089007998,
                   0.18181795600060787268, 0.15386241881938825606, 0.13268714792342885109, 0.13087236196706833707);
    const Pair lower = product_of(k, ln2_low64);
    const Pair first = sum_of(k * ln2_high64, 2.0 * s.high);
    const Pair second = sum_of(first.high, cube.high);
    const Pair third = sum_of(second.high, lower.high);
    const double rest = z.high * z.high * s.high * tail + (2.0 * s.low + cube.low + lower.low);
    return joined(third.high, third.low + (second.low + (first.low + rest)));
}
/// What the standard says of other x.
ORNIK_IN_PLACE double logarithm_or(double value, double x) {
    const double positive = x < HUGE_VAL ? value : x;
    return x > 0.0 ? positive : (x == 0.0 ? -HUGE_VAL : NAN);
}
ORNIK_IN_PLACE double log2(double x) {
    return logarithm_or(product_of(log_pair(x), {0x1.71547652b82fep+0, 0x1.777d0ffda0d24p-56}).high, x);
}
ORNIK_IN_PLACE double log10(double x) {
    return logarithm_or(product_of(log_pair(x), {0x1.bcb7b1526e50ep-2, 0x1.95355baaafad3p-57}).high, x);
}
/// log(1 + y)
ORNIK_IN_PLACE double log1p_of(Pair y) {
    const Pair sum = sum_of(1.0, y.high);
    const Pair log = log_pair(sum.high);
    return log.high + (log.low + (sum.low + y.low) / sum.high);
}
ORNIK_IN_PLACE double log1p_exact(double x) {
    const Pair sum = sum_of(1.0, x);
    const Pair log = log_pair(sum.high);
    const double value = log.high + (log.low + (x > 0x1p60 ? 0.0 : sum.low) / sum.high);
    return std::copysign(logarithm_or(value, sum.high), x);
}
ORNIK_IN_PLACE double asinh(double x) {
    const double a = std::fabs(x);
    const double c = a > 0x1p30 ? 1.0 : a;
    const double square = c * c;
    const double value = log1p_of(sum_of(c, square / (1.0 + std::sqrt(square + 1.0))));
    const double large = value_of(log_pair(a < HUGE_VAL ? a : 1.0)) + ln2.high;
    const double beyond = a < HUGE_VAL ? large : a;
    return std::copysign(a > 0x1p30 ? beyond : (a < 0x1p-30 ? a : value), x);
}
ORNIK_IN_PLACE double acosh(double x) {
    const double t = (x > 0x1p30 ? 2.0 : x) - 1.0;
    const double value = log1p_of(sum_of(t, std::sqrt(t < 0.0 ? NAN : t * (t + 2.0))));
    const double large = value_of(log_pair(x < HUGE_VAL && x > 0x1p30 ? x : 1.0)) + ln2.high;
    return x > 0x1p30 ? (x < HUGE_VAL ? large : x) : value;
}
ORNIK_IN_PLACE double atanh(double x) {
    const double a = std::fabs(x);
    const double value = a < 0x1p-30 ? a : 0.5 * log1p_of(quotient_of({2.0 * a}, sum_of(1.0, -a)));
    return std::copysign(a < 1.0 ? value : (a == 1.0 ? HUGE_VAL : NAN), x);
}

// ---- Powers ----

ORNIK_IN_PLACE double pow(double x, double y) {
    const double a = std::fabs(x);
    const bool whole = std::trunc(y) == y;
    const bool odd = whole & (2.0 * std::trunc(0.5 * y) != y);
    const double sign = odd ? std::copysign(1.0, x) : 1.0;
    const bool end = (a == 0.0) | (a == HUGE_VAL);
    const Pair log = log_pair(((a > 0.0) & (a < HUGE_VAL)) ? a : 1.0);
    const double exponent = log.high * y;
    const bool moderate = std::fabs(exponent) < 800.0;
    const double e = moderate ? exponent : 0.0;
    const Power p = power_of_e({e, moderate ? exactly_fused(log.high, y, -exponent) + log.low * y : 0.0});
    const double beyond = exponent > 0.0 ? HUGE_VAL : 0.0;
    const double inside = moderate ? scaled_value(p, p.k) : beyond;
    const double power = sign * (end ? ((a == 0.0) == (y > 0.0) ? 0.0 : HUGE_VAL) : inside);
    const bool none = (x != x) | (y != y) | ((x < 0.0) & !whole & !end);
    const bool one = (y == 0.0) | (x == 1.0) | ((a == 1.0) & (std::fabs(y) == HUGE_VAL));
    return one ? 1.0 : (none ? NAN : power);
}

// ---- Circular functions: |x| = n pi / 2 + r ----

struct Turned {
    std::uint64_t n;  ///< Modulo 4 in the low bits.
    Pair r;
};

/// Of an x from 2^19 on: what 2 / pi has to offer below multiples of 4 (M. Payne, R. Hanek, Radian reduction for
/// trigonometric functions, 1983).
inline Turned turned_far(double x) {
    constexpr std::uint64_t two_over_pi[] = {0,
                                             0xa2f9836e4e441529,
                                             0xfc2757d1f534ddc0,
                                             0xdb6295993c439041,
                                             0xfe5163abdebbc561,
                                             0xb7246e3a424dd2e0,
                                             0x06492eea09d1921c,
                                             0xfe1deb1cb129a73e,
                                             0xe88235f52ebb4484,
                                             0xe99c7026b45f7e41,
                                             0x3991d639835339f4,
                                             0x9c845f8bbdf9283b,
                                             0x1ff897ffde05980f,
                                             0xef2f118b5a0a6d1f,
                                             0x6d367ecf27cb09b7,
                                             0x4f463f669e5fea2d,
                                             0x7527bac7ebe5f17b,
                                             0x3d0739f78a5292ea,
                                             0x6bfb5fb11f8d5d08,
                                             0x56033046fc7b6bab,
                                             0xf0cfbc209af4361d,
                                             0xa9e391615ee61b08};
    __extension__ using Wide = unsigned __int128;
    const auto bits = std::bit_cast<std::uint64_t>(x);
    const auto first = static_cast<unsigned>((bits >> 52) - 1023 - 52 - 2 + 64);  // of the window, from the zeros on
    const Wide digits = (bits & 0x000fffffffffffff) | 0x0010000000000000;
    const auto word = [&](unsigned i) {
        const std::uint64_t high = two_over_pi[first / 64 + i];
        const std::uint64_t low = two_over_pi[first / 64 + i + 1];
        return first % 64 == 0 ? high : (high << (first % 64)) | (low >> (64 - first % 64));
    };
    const Wide low = digits * word(2);
    const Wide middle = digits * word(1) + (low >> 64);
    const auto top = static_cast<std::uint64_t>(digits * word(0) + (middle >> 64));
    // Turns: two bits of quarters, then the fraction of one.
    Wide fraction = (static_cast<Wide>(top) << 66) | (static_cast<Wide>(static_cast<std::uint64_t>(middle)) << 2) |
                    (static_cast<std::uint64_t>(low) >> 62);
    const bool beyond = (fraction >> 127) != 0;
    if (beyond) {
        fraction = -fraction;
    }
    int shift = 0;
    for (; (fraction >> 127) == 0 && shift < 127; ++shift) {
        fraction <<= 1;
    }
    const double sign = beyond ? -1.0 : 1.0;
    const double unit = std::ldexp(sign, -shift);
    const Pair quarter{
        static_cast<double>(static_cast<std::uint64_t>(fraction >> 75)) * 0x1p-53 * unit,
        static_cast<double>(static_cast<std::uint64_t>(fraction >> 22) & 0x001fffffffffffff) * 0x1p-106 * unit};
    return {(top >> 62) + (beyond ? 1 : 0), product_of(quarter, half_pi)};
}

/// Of an x up to circular_limit.
template <>
inline constexpr double circular_limit<double> = 0x1p19;
ORNIK_IN_PLACE Turned turned_near(double x) {
    const double shifted = fused(x, 0.63661977236758134, whole64);
    const double k = shifted - whole64;
    // pi / 2 in pieces of 33 bits, whose products with k are exact.
    const Pair first = sum_of(fused(-k, 0x1.921fb544p+0, x), -k * 0x1.0b4611a6p-34);
    const Pair second = sum_of(first.high, -k * 0x1.3198a2ep-69);
    return {std::bit_cast<std::uint64_t>(shifted),
            joined(second.high, second.low + (first.low - k * 0x1.b839a252049c1p-104))};
}
ORNIK_IN_PLACE Pair sin_of(Pair r) {
    const double z = r.high * r.high;
    const double tail = polynomial(z, -1.0 / 6, 1.0 / 120, -1.0 / 5040, 1.0 / 362880, -1.0 / 39916800,
                                   1.0 / 6227020800.0, -1.0 / 1307674368000.0, 1.0 / 355687428096000.0);
    return joined(r.high, fused(r.high * z, tail, r.low - 0.5 * z * r.low));
}
ORNIK_IN_PLACE Pair cos_of(Pair r) {
    const Pair z = product_of(r.high, r.high);
    const double tail = polynomial(z.high, 1.0 / 24, -1.0 / 720, 1.0 / 40320, -1.0 / 3628800, 1.0 / 479001600,
                                   -1.0 / 87178291200.0, 1.0 / 20922789888000.0, -1.0 / 6402373705728000.0);
    const Pair sum = joined(1.0, -0.5 * z.high);
    return joined(sum.high, fused(z.high * z.high, tail, sum.low - 0.5 * z.low - r.high * r.low));
}
ORNIK_IN_PLACE double negated_if(std::uint64_t bit, double x) {
    return std::bit_cast<double>(std::bit_cast<std::uint64_t>(x) ^ (bit << 63));
}
ORNIK_IN_PLACE std::uint64_t sign_bit(double x) { return std::bit_cast<std::uint64_t>(x) >> 63; }
/// sin(x + shift pi / 2), where |x| is t.
ORNIK_IN_PLACE double sin_turned(const Turned& t, std::uint64_t shift) {
    const std::uint64_t n = t.n + shift;
    const double sine = value_of(sin_of(t.r));
    const double cosine = value_of(cos_of(t.r));
    return negated_if((n >> 1) & 1, (n & 1) != 0 ? cosine : sine);
}
ORNIK_IN_PLACE double tan_turned(const Turned& t) {
    const Pair sine = sin_of(t.r);
    const Pair cosine = cos_of(t.r);
    const bool odd = (t.n & 1) != 0;
    const Pair above{odd ? cosine.high : sine.high, odd ? cosine.low : sine.low};
    const Pair below{odd ? sine.high : cosine.high, odd ? sine.low : cosine.low};
    return negated_if(t.n & 1, value_of(quotient_of(above, below)));
}
ORNIK_IN_PLACE double sin_near(double x) { return negated_if(sign_bit(x), sin_turned(turned_near(std::fabs(x)), 0)); }
ORNIK_IN_PLACE double cos_near(double x) { return sin_turned(turned_near(std::fabs(x)), 1); }
ORNIK_IN_PLACE double tan_near(double x) { return negated_if(sign_bit(x), tan_turned(turned_near(std::fabs(x)))); }

/// Of any finite x.
inline Turned turned(double x) { return x > circular_limit<double> ? turned_far(x) : turned_near(x); }
template <typename Function>
ORNIK_IN_PLACE double if_finite(double x, const Function& function) {
    return x < HUGE_VAL ? function(turned(x)) : NAN;
}
inline double sin(double x) {
    return negated_if(sign_bit(x), if_finite(std::fabs(x), [](const Turned& t) { return sin_turned(t, 0); }));
}
inline double cos(double x) {
    return if_finite(std::fabs(x), [](const Turned& t) { return sin_turned(t, 1); });
}
inline double tan(double x) {
    return negated_if(sign_bit(x), if_finite(std::fabs(x), [](const Turned& t) { return tan_turned(t); }));
}

/// Angles of tangents of 0 to 8 eighths.
inline constexpr double eighths[] = {0.0,
                                     0x1.fd5ba9aac2f6ep-4,
                                     0x1.f5b75f92c80ddp-3,
                                     0x1.6f61941e4def1p-2,
                                     0x1.dac670561bb4fp-2,
                                     0x1.1e00babdefeb4p-1,
                                     0x1.4978fa3269ee1p-1,
                                     0x1.700a7c5784634p-1,
                                     0x1.921fb54442d18p-1};
inline constexpr double eighths_rest[] = {0.0,
                                          -0x1.cd37686760c17p-59,
                                          0x1.8ab6e3cf7afbdp-57,
                                          -0x1.c63aae6f6e918p-56,
                                          0x1.a2b7f222f65e2p-56,
                                          -0x1.928df287a668fp-58,
                                          0x1.2419a87f2a458p-56,
                                          -0x1.8c34d25aadef6p-56,
                                          0x1.1a62633145c07p-55};
/// The angle from x to y, neither of them negative and not both 0: t = j / 8 + u (1 + t j / 8).
ORNIK_IN_PLACE Pair angle_of(Pair y, Pair x) {
    const bool steep = y.high > x.high;
    const Pair a{steep ? x.high : y.high, steep ? x.low : y.low};
    const Pair b{steep ? y.high : x.high, steep ? y.low : x.low};
    const double j = std::floor(8.0 * (a.high / b.high) + 0.5);
    const double c = j / 8;
    const Pair across = product_of(c, b.high);
    const Pair along = product_of(c, a.high);
    const Pair above = sum_of(a.high, -across.high);
    const Pair below = sum_of(b.high, along.high);
    const Pair u = quotient_of({above.high, above.low - across.low + (a.low - c * b.low)},
                               {below.high, below.low + along.low + (b.low + c * a.low)});
    const double z = u.high * u.high;
    const double tail = polynomial(z, -1.0 / 3, 1.0 / 5, -1.0 / 7, 1.0 / 9, -1.0 / 11, 1.0 / 13, -1.0 / 15, 1.0 / 17);
    const std::uint64_t place = std::bit_cast<std::uint64_t>(j + 0x1p52) & 15;  // Vectors of numbers of one width.
    const Pair sum = sum_of(eighths[place], u.high);
    const Pair angle{sum.high, sum.low + (eighths_rest[place] + u.low + u.high * z * tail)};
    const Pair rest = sum_of(half_pi.high, -angle.high);
    return {steep ? rest.high : angle.high, steep ? rest.low + (half_pi.low - angle.low) : angle.low};
}
/// pi less an angle.
ORNIK_IN_PLACE Pair supplement_of(Pair angle) {
    const Pair rest = sum_of(whole_pi.high, -angle.high);
    return {rest.high, rest.low + (whole_pi.low - angle.low)};
}
/// sqrt(1 - a^2)
ORNIK_IN_PLACE Pair cathetus_of(double a) {
    const Pair square = product_of(a, a);
    const Pair rest = sum_of(1.0, -square.high);
    return root_of(joined(rest.high, rest.low - square.low));
}
ORNIK_IN_PLACE double asin(double x) {
    const double a = std::fabs(x);
    const double c = a <= 1.0 ? a : 1.0;
    const double angle = value_of(angle_of({c}, cathetus_of(c)));
    return a <= 1.0 ? (a < 0x1p-30 ? x : std::copysign(angle, x)) : NAN;
}
ORNIK_IN_PLACE double acos(double x) {
    const double a = std::fabs(x);
    const double c = a <= 1.0 ? a : 1.0;
    const Pair angle = angle_of(cathetus_of(c), {c});
    const Pair other = supplement_of(angle);
    const bool left = sign_bit(x) != 0;
    const double value = value_of({left ? other.high : angle.high, left ? other.low : angle.low});
    return a <= 1.0 ? value : NAN;
}
ORNIK_IN_PLACE double atan(double x) {
    const double a = std::fabs(x);
    const double angle = value_of(angle_of({a <= 0x1p60 ? a : 1.0}, {1.0}));
    const double value = a > 0x1p60 ? half_pi.high : angle;
    return a >= 0x1p-30 ? std::copysign(value, x) : x;  // NaN, too
}

/// A power of two that keeps a number's square from overflow, and what is lost of it from being subnormal.
ORNIK_IN_PLACE double scale_of(double x) { return x > 0x1p300 ? 0x1p-600 : (x < 0x1p-300 ? 0x1p600 : 1.0); }

ORNIK_IN_PLACE double atan2(double y, double x) {
    const double above = y == y ? std::fabs(y) : 1.0;
    const double beside = x == x ? std::fabs(x) : 1.0;
    const double larger = above > beside ? above : beside;
    const double smaller = above > beside ? beside : above;
    const double scale = scale_of(larger);
    const double a = smaller < HUGE_VAL ? above * scale : 1.0;
    const double b = smaller < HUGE_VAL ? beside * scale : 1.0;
    // By exponents: neither far above the other, nor both 0.
    const std::uint64_t steepness =
        (std::bit_cast<std::uint64_t>(a) >> 52) - (std::bit_cast<std::uint64_t>(larger > 0.0 ? b : 1.0) >> 52) + 64;
    const Pair angle = angle_of({steepness <= 128 ? a : 1.0}, {steepness <= 128 ? b : 1.0});
    const Pair other = supplement_of(angle);
    const bool left = sign_bit(x) != 0;
    const double inside = value_of({left ? other.high : angle.high, left ? other.low : angle.low});
    const double flat = left ? whole_pi.high : (above > 0.0 ? above / beside : 0.0);
    const double beyond = a > b ? half_pi.high : flat;
    const double value = steepness <= 128 ? inside : beyond;
    return x == x ? (y == y ? std::copysign(value, y) : NAN) : NAN;
}

/// sqrt(x^2 + y^2)
ORNIK_IN_PLACE double hypot(double x, double y) {
    const double a = std::fabs(x);
    const double b = std::fabs(y);
    const double larger = a < b ? b : a;
    const double scale = scale_of(larger);
    const Pair first = product_of(a * scale, a * scale);
    const Pair second = product_of(b * scale, b * scale);
    const Pair sum = sum_of(first.high, second.high);
    const double value = value_of(root_of({sum.high, sum.low + (first.low + second.low)})) / scale;
    const bool endless = (a == HUGE_VAL) | (b == HUGE_VAL);
    const bool some = (larger > 0.0) & (a == a) & (b == b);
    return endless ? HUGE_VAL : (some ? value : a + b);
}

// ---- The error function ----

/// What is missing to 1, for a from 1 on. e^(a^2) (1 + 2 a) times it is fitted in (a - 4) / (a + 4) up to 28: 2^-71.
inline double erfc_far(double a) {
    const double c = a > 28.0 ? 28.0 : a;
    const double t = (c - 4.0) / (c + 4.0);
    const double fit = polynomial(
        t, 1.2329951186255526, -0.1396211168405625, 0.015379652102620043, 0.06809705425469156, -0.10103906603632538,
        0.09373283499839574, -0.0663303658116359, 0.03716751553665075, -0.016197734066171008, 0.005031969985749351,
        -0.0007577732173506622, -0.00019925673424103462, 0.00015062129336025878, -2.4399109592219978e-05,
        -1.1220690492120547e-05, 5.709652451901359e-06, 2.9070532178982917e-07, -8.257372331601753e-07,
        7.939061555992945e-08, 1.1105432563840869e-07, -2.2614363806672668e-08, -1.5296071954154673e-08,
        4.60607538565295e-09, 1.8096975962164102e-09, -7.660852221904505e-10);
    const Pair square = product_of(c, c);
    const Power p = power_of_e({-square.high, -square.low});
    return scaled_value(p, p.k) * (fit / (1.0 + 2.0 * c));
}
/// For |x| up to 1: (erf(x) / x - 2 / sqrt(pi)) / x^2 in x^2; 2^-65.
ORNIK_IN_PLACE double erf_near(double x) {
    const Pair z = product_of(x, x);
    const double rest =
        polynomial(z.high, 0.11283791670955125, -0.026866170645131082, 0.005223977625438469, -0.0008548327023024696,
                   0.0001205533295270044, -1.4925649082364785e-05, 1.6462076794793434e-06, -1.6365085592632062e-07,
                   1.4796618901290416e-08, -1.219035624032117e-09, 8.800680090460203e-11, -4.374621450325064e-12);
    const Pair second = product_of(z.high, rest);
    const Pair fit = sum_of(-0x1.812746b0379e7p-2, second.high);
    const Pair cube = product_of({x}, product_of(z, {fit.high, fit.low + (second.low + 0x1.ee12e49cab700p-57)}));
    const Pair main = product_of(x, 0x1.20dd750429b6dp+0);
    const Pair sum = joined(main.high, cube.high);
    return sum.high + (sum.low + (cube.low + (main.low + x * 0x1.1ae3a914fed80p-56)));
}
inline double erf(double x) {
    const double a = std::fabs(x);
    if (a < 0x1p-500) {
        return x * 0x1.20dd750429b6dp+0;  // Further parts may be too small for a number.
    }
    return std::copysign(a >= 1.0 ? 1.0 - erfc_far(a) : erf_near(a), x);
}
inline double erfc(double x) {
    if (x >= 1.0) {
        return erfc_far(x);
    }
    return x > -1.0 ? 1.0 - erf_near(x) : (x <= -1.0 ? 2.0 - erfc_far(-x) : x);
}

}  // namespace ornik::elementary
