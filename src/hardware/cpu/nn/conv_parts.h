// conv_parts.h: complex convolutions as real ones. Internal.
//
// A plane of complex elements is a plane of twice as many real ones. Sums of it with the real parts of the weights,
// and with their imaginary parts, are all that a complex sum needs: (a + bi)(x + yi) = (ax - by) + (ay + bx)i. So
// every complex target is two real ones, and the loops know real numbers only.
#pragma once

#include <complex>
#include <cstdint>

#include "cpu_conv_kernels.h"

namespace ornik::device::cpu {

template <typename T>
struct RealOf {
    using type = T;
    static constexpr std::int64_t parts = 1;
};
template <typename T>
struct RealOf<std::complex<T>> {
    using type = T;
    static constexpr std::int64_t parts = 2;
};
template <typename T>
using Real = typename RealOf<T>::type;
template <typename T>
inline constexpr std::int64_t parts = RealOf<T>::parts;

/// The elements' parts, one after the other.
template <typename T>
const Real<T>* as_real(const T* elements) {
    return reinterpret_cast<const Real<T>*>(elements);
}
template <typename T>
Real<T>* as_real(T* elements) {
    return reinterpret_cast<Real<T>*>(elements);
}

/// `real` holds the sums with the weights' real parts, those with the imaginary parts lie `stride` elements on:
/// real[i] becomes the whole sum.
template <typename T>
void join_parts(T* real, std::int64_t stride, std::int64_t count) {
    const T* imaginary = real + stride;
    for (std::int64_t i = 0; i < count; ++i) {
        const T with_imaginary(-imaginary[i].imag(), imaginary[i].real());
        real[i] = real[i] + with_imaginary;
    }
}

}  // namespace ornik::device::cpu
