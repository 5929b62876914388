// element_convert.h: one element from any of the ten types to any other. Internal.
//
//   to bool            true when not zero, NaN included; a complex number when either part is not zero
//   complex to real    the real part
//   floating to integer  truncated toward zero; values beyond the range clamp to it, NaN gives 0
//   integer to integer   wraps
//   real to complex    imaginary part 0
#pragma once

#include <cmath>
#include <concepts>
#include <limits>
#include <type_traits>

#include "../../../tensor/dtype.h"

namespace ornik {

template <typename T>
inline constexpr bool is_complex_element = is_dtype_class(dtype_code<T>, DtypeClass::complex);

template <typename To, typename From>
inline To convert_element(From value) {
    if constexpr (std::is_same_v<To, From>) {
        return value;
    } else if constexpr (is_complex_element<From> && is_complex_element<To>) {
        using Part = decltype(To::real);
        return {static_cast<Part>(value.real), static_cast<Part>(value.imag)};
    } else if constexpr (is_complex_element<From> && std::is_same_v<To, bool>) {
        return value.real != 0 || value.imag != 0;
    } else if constexpr (is_complex_element<From>) {
        return convert_element<To>(value.real);
    } else if constexpr (is_complex_element<To>) {
        return {static_cast<decltype(To::real)>(value), 0};
    } else if constexpr (std::is_same_v<To, bool>) {
        return value != From(0);
    } else if constexpr (std::floating_point<From> && std::integral<To>) {
        // Both bounds are exact in the floating type: the upper one is max + 1, a power of two.
        constexpr From low = static_cast<From>(std::numeric_limits<To>::min());
        constexpr From above = static_cast<From>(std::numeric_limits<To>::max() / 2 + 1) * From(2);
        const From inside = value >= low && value < above ? value : From(0);
        const To truncated = static_cast<To>(inside);
        return value < low ? std::numeric_limits<To>::min()
                           : (value >= above ? std::numeric_limits<To>::max() : truncated);
    } else {
        return static_cast<To>(value);
    }
}

}  // namespace ornik
