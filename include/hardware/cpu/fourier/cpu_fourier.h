// cpu_fourier.h: discrete Fourier transforms along one axis. Internal.
//
// Tensors are on the CPU, of one precision, any strides; their shapes agree but for the axis, along which x has at
// least one element. A transform of length n takes the first n elements of x, or all and zeros behind them; the result
// is cut off or filled up with zeros in the same way.
#pragma once

#include <cstdint>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out[k] = scale sum over j of x[j] e^(-2 pi i j k / n), with the opposite sign for the inverse. Both complex.
void cpu_fourier(const Tensor* x, Tensor* out, int axis, std::int64_t n, bool inverse, double scale);
/// The same of a real x, k = 0 .. n / 2.
void cpu_fourier_of_real(const Tensor* x, Tensor* out, int axis, std::int64_t n, double scale);
/// The inverse with a real result: x[n - k] stands for conj(x[k]), k = 1 .. n / 2. Imaginary parts of x[0] and, for
/// even n, of x[n / 2] do not count.
void cpu_fourier_to_real(const Tensor* x, Tensor* out, int axis, std::int64_t n, double scale);

}  // namespace ornik::device::cpu
