// fourier.h: discrete Fourier transforms along one axis, each its own gradient but for a sign.
//
// Any strides; results are new row-major tensors, which the caller deletes. A transform of length n >= 1 takes the
// first n elements along the axis, or all of them and zeros behind; of the result the first `extent` elements are
// given, and zeros beyond what there is. Negative axes count from the end. Times of n log n for every n.
#pragma once

#include <cstdint>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// y[k] = scale sum over j of x[j] e^(-2 pi i j k / n), k < n; the opposite sign in the exponent with `inverse`. x is
/// complex. The gradient for x of extent m is fourier(grad, axis, n, m, !inverse, scale).
[[nodiscard]] ORNIK_API Tensor* fourier(const Tensor* x, int axis, std::int64_t n, std::int64_t extent, bool inverse,
                                        double scale = 1);
/// The first half, k <= n / 2, of the forward transform of a real x: complex. The gradient is fourier_to_real(w grad,
/// axis, n, m, scale) with w = 1 for k = 0 and k = n / 2, 1 / 2 elsewhere.
[[nodiscard]] ORNIK_API Tensor* fourier_of_real(const Tensor* x, int axis, std::int64_t n, std::int64_t extent,
                                                double scale = 1);
/// The inverse transform of such a half x, real: x[n - k] counts as conj(x[k]), and the imaginary parts of x[0] and x[n
/// / 2] as 0. The gradient is fourier_of_real(grad, axis, n, m, scale) / w.
[[nodiscard]] ORNIK_API Tensor* fourier_to_real(const Tensor* x, int axis, std::int64_t n, std::int64_t extent,
                                                double scale = 1);

}  // namespace ornik
