// scalar.h: one number of any arithmetic or complex type, as an argument.
//
//     t->greater_scalar(0.5F);   // T is deduced: a float32 scalar
#pragma once

#include <complex>
#include <concepts>
#include <cstring>
#include <type_traits>

#include "dtype.h"

namespace ornik {

namespace detail {

template <std::size_t Bytes>
constexpr auto signed_integer() {
    if constexpr (Bytes == sizeof(std::int8_t)) {
        return std::int8_t{};
    } else if constexpr (Bytes == sizeof(std::int16_t)) {
        return std::int16_t{};
    } else if constexpr (Bytes == sizeof(std::int32_t)) {
        return std::int32_t{};
    } else if constexpr (Bytes == sizeof(std::int64_t)) {
        return std::int64_t{};
    }
}

// The smallest element type that holds every value of T; void when there is none. Standard types meet their
// fixed-width twins by size, so that int and long and long long are served wherever int64 is which of them.
template <typename T>
constexpr auto element_for() {
    if constexpr (find_code<T>(DtypeRows{}) >= 0) {
        return T{};
    } else if constexpr (!std::is_integral_v<T>) {
        return;
    } else if constexpr (std::is_signed_v<T>) {
        return signed_integer<sizeof(T)>();
    } else if constexpr (sizeof(T) == sizeof(std::uint8_t)) {
        return std::uint8_t{};
    } else {
        return signed_integer<2 * sizeof(T)>();
    }
}

template <typename T>
inline constexpr bool an_element_type_holds_every_value_of = !std::is_void_v<decltype(element_for<T>())>;
template <>
inline constexpr bool an_element_type_holds_every_value_of<std::complex<float>> = true;
template <>
inline constexpr bool an_element_type_holds_every_value_of<std::complex<double>> = true;

}  // namespace detail

/// What a scalar argument may be: any arithmetic type but long double and the unsigned 64-bit integers, which no
/// element type holds, and complex numbers over float or double.
template <typename T>
concept ScalarArgument = detail::an_element_type_holds_every_value_of<T>;

/// The standard library's complex numbers that have an element type.
template <typename T>
concept StandardComplex = std::same_as<T, std::complex<float>> || std::same_as<T, std::complex<double>>;

/// A number and its dtype: that of its type when it is one of the ten element types, else the smallest integer
/// dtype that holds every value of its type (unsigned int: int64).
class Scalar {
  public:
    template <ScalarArgument T>
    Scalar(T value) {  // NOLINT(google-explicit-constructor)
        if constexpr (StandardComplex<T>) {
            set(complex_scalar::complex<typename T::value_type>(value));
        } else {
            set(static_cast<decltype(detail::element_for<T>())>(value));
        }
    }

    std::int64_t Dtype() const { return dtype_; }
    /// The value as an object of the dtype's element type.
    const void* data() const { return bytes_; }

  private:
    template <typename Element>
    void set(const Element& value) {
        dtype_ = dtype_code<Element>;
        std::memcpy(bytes_, &value, sizeof(Element));
    }

    std::int64_t dtype_;
    alignas(16) unsigned char bytes_[16] = {};
};

}  // namespace ornik
