// fft.h: discrete Fourier transforms, with gradients of every order.
//
// Transforms of any length in n log n steps, along any axes, in single or double precision as the operand's; integers
// are refused. A length n cuts the operand's axis off, or puts zeros behind it; left out (or -1 in a list) it is the
// axis's extent. The sums are multiplied by a scale, by norm and direction:
//
//                forward      inverse
//     backward   1            1 / n
//     ortho      1 / sqrt n   1 / sqrt n
//     forward    1 / n        1
#pragma once

#include <optional>
#include <vector>

#include "ktensor.h"

namespace ornik {

enum class FourierNorm { backward, ortho, forward };

/// y[k] = scale sum over j of x[j] e^(-2 pi i j k / n); ifft has the opposite sign. Complex.
[[nodiscard]] ORNIK_API KTensor fft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                    FourierNorm norm = FourierNorm::backward);
[[nodiscard]] ORNIK_API KTensor ifft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                     FourierNorm norm = FourierNorm::backward);
/// Along several axes, of lengths s each: without axes the last ones that s has a length for, without either all.
[[nodiscard]] ORNIK_API KTensor fftn(const KTensor& x, const Dims& s = {}, const std::vector<int>& axes = {},
                                     FourierNorm norm = FourierNorm::backward);
[[nodiscard]] ORNIK_API KTensor ifftn(const KTensor& x, const Dims& s = {}, const std::vector<int>& axes = {},
                                      FourierNorm norm = FourierNorm::backward);

/// The forward transform of real numbers, y[0] .. y[n / 2]; the rest are their conjugates.
[[nodiscard]] ORNIK_API KTensor rfft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                     FourierNorm norm = FourierNorm::backward);
/// Its inverse: n real numbers, by default 2 (m - 1) for an axis of m. Imaginary parts of x[0] and x[n / 2] do not
/// count.
[[nodiscard]] ORNIK_API KTensor irfft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                      FourierNorm norm = FourierNorm::backward);
/// The last of the axes is that of the real numbers' transform.
[[nodiscard]] ORNIK_API KTensor rfftn(const KTensor& x, const Dims& s = {}, const std::vector<int>& axes = {},
                                      FourierNorm norm = FourierNorm::backward);
[[nodiscard]] ORNIK_API KTensor irfftn(const KTensor& x, const Dims& s = {}, const std::vector<int>& axes = {},
                                       FourierNorm norm = FourierNorm::backward);

/// The forward transform, real, of numbers whose second half is the conjugate of the first, of which x is given; n as
/// in irfft. ihfft is its inverse.
[[nodiscard]] ORNIK_API KTensor hfft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                     FourierNorm norm = FourierNorm::backward);
[[nodiscard]] ORNIK_API KTensor ihfft(const KTensor& x, std::optional<std::int64_t> n = {}, int axis = -1,
                                      FourierNorm norm = FourierNorm::backward);

/// The frequencies of fft's results for samples d apart: 0, 1, .., -2, -1 over n d. rfftfreq: those of rfft.
[[nodiscard]] ORNIK_API KTensor fftfreq(std::int64_t n, double d = 1, std::int64_t dtype = dtype::float32);
[[nodiscard]] ORNIK_API KTensor rfftfreq(std::int64_t n, double d = 1, std::int64_t dtype = dtype::float32);
/// Frequency 0 moves from the begin of each axis (none: of all) to the middle; ifftshift moves it back.
[[nodiscard]] ORNIK_API KTensor fftshift(const KTensor& x, const std::vector<int>& axes = {});
[[nodiscard]] ORNIK_API KTensor ifftshift(const KTensor& x, const std::vector<int>& axes = {});

}  // namespace ornik
