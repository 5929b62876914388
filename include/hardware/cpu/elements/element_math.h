// element_math.h: sum, difference, product and quotient of two elements of one type. Internal.
//
// Integers wrap; bool computes as the numbers 0 and 1 do, any non-zero result being true.
#pragma once

#include <concepts>
#include <type_traits>

#include "../copy/element_convert.h"

namespace ornik::element {

// The unsigned type that integer arithmetic runs in: at least 32 bits wide, so that promotion to a signed
// int can not overflow.
template <std::integral T>
using Wrapping = std::conditional_t<sizeof(T) <= 4, std::uint32_t, std::uint64_t>;

template <typename T>
inline T add(T a, T b) {
    if constexpr (std::is_same_v<T, bool>) {
        return a || b;
    } else if constexpr (std::integral<T>) {
        return static_cast<T>(static_cast<Wrapping<T>>(a) + static_cast<Wrapping<T>>(b));
    } else {
        return a + b;
    }
}

template <typename T>
inline T sub(T a, T b) {
    if constexpr (std::is_same_v<T, bool>) {
        return a != b;
    } else if constexpr (std::integral<T>) {
        return static_cast<T>(static_cast<Wrapping<T>>(a) - static_cast<Wrapping<T>>(b));
    } else {
        return a - b;
    }
}

template <typename T>
inline T mult(T a, T b) {
    if constexpr (std::is_same_v<T, bool>) {
        return a && b;
    } else if constexpr (std::integral<T>) {
        return static_cast<T>(static_cast<Wrapping<T>>(a) * static_cast<Wrapping<T>>(b));
    } else {
        return a * b;
    }
}

/// A coefficient: the element type, or the type of its parts for complex elements.
template <typename T>
struct CoefficientOf {
    using type = T;
};
template <typename T>
struct CoefficientOf<complex_scalar::complex<T>> {
    using type = T;
};
template <typename T>
using Coefficient = typename CoefficientOf<T>::type;

template <typename T>
inline T scale(Coefficient<T> coefficient, T value) {
    if constexpr (is_complex_element<T>) {
        return {coefficient * value.real, coefficient * value.imag};
    } else {
        return mult(coefficient, value);
    }
}

}  // namespace ornik::element
