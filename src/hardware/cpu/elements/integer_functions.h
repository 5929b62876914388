// integer_functions.h: every operation on one or two integers or bools. Included by row kernels only.
//
// Arithmetic wraps. Division by zero gives 0.
#pragma once

#include <concepts>
#include <limits>
#include <type_traits>

#include "hardware/cpu/elements/element_math.h"

namespace ornik::integer_functions {

template <std::integral T>
inline T neg(T x) {
    return element::sub(T(0), x);
}
template <std::integral T>
inline T abs(T x) {
    return x < T(0) ? neg(x) : x;
}
template <std::integral T>
inline T sqr(T x) {
    return element::mult(x, x);
}
template <std::integral T>
inline T sign(T x) {
    return static_cast<T>((x > T(0)) - (x < T(0)));
}
template <std::integral T>
inline T conj(T x) {
    return x;
}
template <std::integral T>
inline T real(T x) {
    return x;
}
template <std::integral T>
inline T imag(T /*x*/) {
    return T(0);
}
template <std::integral T>
inline T floor(T x) {
    return x;
}
template <std::integral T>
inline T ceil(T x) {
    return x;
}
template <std::integral T>
inline T round(T x) {
    return x;
}
template <std::integral T>
inline T trunc(T x) {
    return x;
}
template <std::integral T>
inline bool is_nan(T /*x*/) {
    return false;
}
template <std::integral T>
inline bool is_inf(T /*x*/) {
    return false;
}
template <std::integral T>
inline bool is_finite(T /*x*/) {
    return true;
}
template <std::integral T>
inline bool logical_not(T x) {
    return x == T(0);
}
template <std::integral T>
inline T bitwise_not(T x) {
    if constexpr (std::is_same_v<T, bool>) {
        return !x;
    } else {
        return static_cast<T>(~x);
    }
}

/// A negative exponent gives the whole part of the result: 0, 1 or -1.
template <std::integral T>
inline T pow(T base, T exponent) {
    if (exponent < T(0)) {
        const bool odd = (exponent & T(1)) != 0;
        return base == T(1) ? T(1) : (base == static_cast<T>(-1) ? (odd ? base : T(1)) : T(0));
    }
    T result = 1;
    for (auto rest = static_cast<std::make_unsigned_t<T>>(exponent); rest != 0;
         rest = static_cast<decltype(rest)>(rest >> 1)) {
        if ((rest & 1) != 0) {
            result = element::mult(result, base);
        }
        base = element::mult(base, base);
    }
    return result;
}
/// Of the dividend's sign.
template <std::integral T>
inline T fmod(T x, T y) {
    // The quotient of the least number by -1 does not fit its type.
    return y == T(0) || (std::is_signed_v<T> && y == static_cast<T>(-1)) ? T(0) : static_cast<T>(x % y);
}
/// Of the divisor's sign.
template <std::integral T>
inline T remainder(T x, T y) {
    const T rest = fmod(x, y);
    return rest != T(0) && (rest < T(0)) != (y < T(0)) ? static_cast<T>(rest + y) : rest;
}
template <std::integral T>
inline T bitwise_and(T a, T b) {
    return static_cast<T>(a & b);
}
template <std::integral T>
inline T bitwise_or(T a, T b) {
    return static_cast<T>(a | b);
}
template <std::integral T>
inline T bitwise_xor(T a, T b) {
    return static_cast<T>(a ^ b);
}
// Counts beyond the width shift everything out; so do negative ones.
template <std::integral T>
inline bool is_shift(T count) {
    return count >= T(0) && count < static_cast<T>(std::numeric_limits<std::make_unsigned_t<T>>::digits);
}
template <std::integral T>
inline T left_shift(T x, T count) {
    using Unsigned = std::make_unsigned_t<T>;
    return is_shift(count) ? static_cast<T>(static_cast<Unsigned>(x) << count) : T(0);
}
template <std::integral T>
inline T right_shift(T x, T count) {
    return is_shift(count) ? static_cast<T>(x >> count) : (x < T(0) ? static_cast<T>(-1) : T(0));
}

}  // namespace ornik::integer_functions
