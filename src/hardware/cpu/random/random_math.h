// random_math.h: logarithm, sine and cosine for distributions.
//
// Made of additions, multiplications, divisions and operations on bits alone, each rounded by itself: the same
// bits on every machine, which the functions of the C library do not promise. Loops over them vectorise.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <utility>

namespace ornik::device::cpu::random {

template <typename T>
struct FloatBits;
template <>
struct FloatBits<float> {
    using Bits = std::uint32_t;
    static constexpr int mantissa_bits = 23;
    static constexpr Bits bias = 127;
};
template <>
struct FloatBits<double> {
    using Bits = std::uint64_t;
    static constexpr int mantissa_bits = 52;
    static constexpr Bits bias = 1023;
};

/// A whole number below 2^mantissa_bits, converted without an instruction that only scalars have.
template <typename T>
inline T small_to_float(typename FloatBits<T>::Bits value) {
    using Format = FloatBits<T>;
    constexpr auto exponent = (Format::bias + Format::mantissa_bits) << Format::mantissa_bits;
    return std::bit_cast<T>(value | exponent) - std::bit_cast<T>(exponent);
}

/// A whole number below 2^53.
inline double to_double(std::uint64_t value) {
    constexpr std::uint64_t low_exponent = std::uint64_t{1023 + 52} << 52;
    constexpr std::uint64_t high_exponent = std::uint64_t{1023 + 52 + 32} << 52;
    const double high = std::bit_cast<double>((value >> 32) | high_exponent) - std::bit_cast<double>(high_exponent);
    return high + (std::bit_cast<double>((value & 0xffffffffU) | low_exponent) - std::bit_cast<double>(low_exponent));
}

namespace detail {

// The sum of Table::values[k] z^k by Horner's rule.
template <typename Table, typename T, std::size_t... K>
inline T series(T z, std::index_sequence<K...> /*terms*/) {
    T sum = 0;
    ((sum = sum * z + Table::values[sizeof...(K) - 1 - K]), ...);
    return sum;
}
template <typename Table, typename T>
inline T series(T z) {
    return series<Table>(z, std::make_index_sequence<Table::values.size()>{});
}

// 2 / (2k + 1): 2 atanh(s) = s sum_k of these times s^2k.
template <typename T, std::size_t Terms>
struct AreaTangent {
    static constexpr std::array<T, Terms> values = [] {
        std::array<T, Terms> list{};
        for (std::size_t k = 0; k < Terms; ++k) {
            list[k] = T(2) / static_cast<T>(2 * k + 1);
        }
        return list;
    }();
};

// (-1)^k / (first + 2k)!, of the sine for first = 1 and the cosine for first = 0.
template <typename T, std::size_t Terms, std::size_t First>
struct Alternating {
    static constexpr std::array<T, Terms> values = [] {
        std::array<T, Terms> list{};
        double value = 1;
        for (std::size_t k = 0; k < Terms; ++k) {
            list[k] = static_cast<T>(value);
            const std::size_t last = First + 2 * k;
            value /= -static_cast<double>((last + 1) * (last + 2));
        }
        return list;
    }();
};

}  // namespace detail

/// The natural logarithm of a positive, normal x, within a few units in the last place (of 1, near 1).
template <typename T>
inline T log_positive(T x) {
    using Format = FloatBits<T>;
    using Bits = typename Format::Bits;
    // x = 2^e m with m in [sqrt(1/2), sqrt(2)); log m = 2 atanh(s), s = (m - 1) / (m + 1).
    constexpr Bits sqrt_half = std::bit_cast<Bits>(T(0.70710678118654752440));
    constexpr Bits offset = Format::bias << Format::mantissa_bits;
    const Bits bits = std::bit_cast<Bits>(x);
    const Bits biased = (bits - sqrt_half + offset) >> Format::mantissa_bits;
    const T m = std::bit_cast<T>(bits - ((biased - Format::bias) << Format::mantissa_bits));
    const T e = small_to_float<T>(biased) - T(Format::bias);
    const T s = (m - T(1)) / (m + T(1));
    constexpr std::size_t terms = sizeof(T) == 4 ? 5 : 12;
    return e * T(0.69314718055994530942) + s * detail::series<detail::AreaTangent<T, terms>>(s * s);
}

template <typename T>
struct SineCosine {
    T sine, cosine;
};

/// Of the angle (quadrant + f) quarter turns, f in [-0.5, 0.5] and quadrant 0 .. 3.
template <typename T>
inline SineCosine<T> sine_cosine(typename FloatBits<T>::Bits quadrant, T f) {
    using Bits = typename FloatBits<T>::Bits;
    constexpr std::size_t terms = sizeof(T) == 4 ? 6 : 10;
    const T x = f * T(1.57079632679489661923);
    const Bits s = std::bit_cast<Bits>(x * detail::series<detail::Alternating<T, terms, 1>>(x * x));
    const Bits c = std::bit_cast<Bits>(detail::series<detail::Alternating<T, terms, 0>>(x * x));
    // A quarter turn takes (cos, sin) to (-sin, cos).
    const Bits swap = Bits{0} - (quadrant & 1);
    constexpr int sign = sizeof(Bits) * 8 - 1;
    const Bits sine_sign = (quadrant >> 1) << sign;
    const Bits cosine_sign = ((quadrant + 1) >> 1) << sign;
    return {std::bit_cast<T>(((c & swap) | (s & ~swap)) ^ sine_sign),
            std::bit_cast<T>(((s & swap) | (c & ~swap)) ^ cosine_sign)};
}

}  // namespace ornik::device::cpu::random
