// scalar.h: one number of any element type, as an argument.
//
//     t->greater_scalar(0.5F);   // T is deduced: a float32 scalar
#pragma once

#include <complex>
#include <cstring>
#include <type_traits>

#include "dtype.h"

namespace ornik {

class Scalar {
  public:
    /// From any of the ten element types.
    template <typename T, std::int64_t Code = detail::find_code<T>(detail::DtypeRows{})>
    requires(Code >= 0) Scalar(T value) : dtype_(Code) {  // NOLINT(google-explicit-constructor)
        std::memcpy(bytes_, &value, sizeof(T));
    }
    /// From the standard library's complex numbers.
    template <typename T>
    Scalar(const std::complex<T>& value)  // NOLINT(google-explicit-constructor)
        : Scalar(complex_scalar::complex<T>(value)) {}

    std::int64_t Dtype() const { return dtype_; }
    /// The value as an object of the dtype's element type.
    const void* data() const { return bytes_; }

  private:
    std::int64_t dtype_;
    alignas(16) unsigned char bytes_[16] = {};
};

}  // namespace ornik
