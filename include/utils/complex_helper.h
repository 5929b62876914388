// complex_helper.h: the complex element of the library, a plain pair of real numbers.
//
// Products and quotients are the schoolbook formulas, evaluated as written: no recovery of infinities
// or NaN and no scaling against overflow, so that the same operands give the same bits everywhere.
#pragma once

#include <complex>

#include "../export.h"

namespace ornik::complex_scalar {

/// Complex number over float or double: real part first, imaginary part second.
template <typename T>
struct ORNIK_API_TYPE complex {
    T real{};
    T imag{};

    constexpr complex() = default;
    constexpr complex(T real_part, T imag_part = T(0)) : real(real_part), imag(imag_part) {}
    /// From the standard library's complex type.
    constexpr complex(const std::complex<T>& value) : real(value.real()), imag(value.imag()) {}

    friend constexpr bool operator==(const complex&, const complex&) = default;
    friend constexpr complex operator+(const complex& a, const complex& b) {
        return {a.real + b.real, a.imag + b.imag};
    }
    friend constexpr complex operator-(const complex& a, const complex& b) {
        return {a.real - b.real, a.imag - b.imag};
    }
    friend constexpr complex operator*(const complex& a, const complex& b) {
        return {a.real * b.real - a.imag * b.imag, a.real * b.imag + a.imag * b.real};
    }
    friend constexpr complex operator/(const complex& a, const complex& b) {
        const T norm = b.real * b.real + b.imag * b.imag;
        return {(a.real * b.real + a.imag * b.imag) / norm, (a.imag * b.real - a.real * b.imag) / norm};
    }
    friend constexpr complex conj(const complex& a) { return {a.real, -a.imag}; }
};

}  // namespace ornik::complex_scalar
