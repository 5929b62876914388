// real_pairs.h: functions of two real numbers beyond the members of Tensor.
//
// Operands have one shape, any strides, and dtypes that promote; results are new tensors. Errors, before anything is
// computed: operands away from the CPU or of different shapes, and dtypes that the operation is not defined for.
#pragma once

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// The largest whole number not above a / b, of the promoted dtype: a = b floor_divide(a, b) + remainder(a, b).
/// Integers: division by 0 gives 0. Floating numbers: floor(a / b) where a or b is not finite or b is 0.
[[nodiscard]] ORNIK_API Tensor* floor_divide(Tensor* a, Tensor* b);

// bool and integers are computed in floating numbers, as by Tensor::atan2.

/// The magnitude of a with the sign of b; zeros and NaN have signs, too.
[[nodiscard]] ORNIK_API Tensor* copysign(Tensor* a, Tensor* b);
/// sqrt(a^2 + b^2) without overflow; an infinity beside NaN gives infinity. Within 1 unit in the last place.
[[nodiscard]] ORNIK_API Tensor* hypot(Tensor* a, Tensor* b);
/// log(e^a + e^b) without overflow. Within 2 units in the last place of max(|a|, |b|, 1).
[[nodiscard]] ORNIK_API Tensor* logaddexp(Tensor* a, Tensor* b);
/// The next number from a towards b.
[[nodiscard]] ORNIK_API Tensor* nextafter(Tensor* a, Tensor* b);

/// True for numbers below 0, -0.0, and NaN with a sign. bool.
[[nodiscard]] ORNIK_API Tensor* signbit(Tensor* x);

}  // namespace ornik
