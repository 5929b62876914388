// elements.h: element-wise mathematics, comparisons and logic.
//
// Two operands broadcast, and their dtypes promote as in arithmetic; a number takes the dtype of a tensor of its kind,
// in comparisons, too. The forms whose names end in _ work in place: the target keeps its shape and dtype. Accuracy and
// special values are those of tensor/tensor_math/tensor_element_math.h.
//
// Steps (sign, floor, comparisons, logic) have no gradient: their results are constants to what is recorded.
#pragma once

#include "ktensor.h"

namespace ornik {

// ---- Any dtype; float32 results for bool and the smaller integers, float64 for int64 ----

/// e^x
[[nodiscard]] ORNIK_API KTensor exp(const KTensor& x);
ORNIK_API KTensor& exp_(KTensor& x);
/// 2^x
[[nodiscard]] ORNIK_API KTensor exp2(const KTensor& x);
ORNIK_API KTensor& exp2_(KTensor& x);
/// e^x - 1
[[nodiscard]] ORNIK_API KTensor expm1(const KTensor& x);
ORNIK_API KTensor& expm1_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor log(const KTensor& x);
ORNIK_API KTensor& log_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor log2(const KTensor& x);
ORNIK_API KTensor& log2_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor log10(const KTensor& x);
ORNIK_API KTensor& log10_(KTensor& x);
/// log(1 + x)
[[nodiscard]] ORNIK_API KTensor log1p(const KTensor& x);
ORNIK_API KTensor& log1p_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor sqrt(const KTensor& x);
ORNIK_API KTensor& sqrt_(KTensor& x);
/// 1 / sqrt(x)
[[nodiscard]] ORNIK_API KTensor rsqrt(const KTensor& x);
ORNIK_API KTensor& rsqrt_(KTensor& x);
/// 1 / x
[[nodiscard]] ORNIK_API KTensor reciprocal(const KTensor& x);
ORNIK_API KTensor& reciprocal_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor sin(const KTensor& x);
ORNIK_API KTensor& sin_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor cos(const KTensor& x);
ORNIK_API KTensor& cos_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor tan(const KTensor& x);
ORNIK_API KTensor& tan_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor asin(const KTensor& x);
ORNIK_API KTensor& asin_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor acos(const KTensor& x);
ORNIK_API KTensor& acos_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor atan(const KTensor& x);
ORNIK_API KTensor& atan_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor sinh(const KTensor& x);
ORNIK_API KTensor& sinh_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor cosh(const KTensor& x);
ORNIK_API KTensor& cosh_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor tanh(const KTensor& x);
ORNIK_API KTensor& tanh_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor asinh(const KTensor& x);
ORNIK_API KTensor& asinh_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor acosh(const KTensor& x);
ORNIK_API KTensor& acosh_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor atanh(const KTensor& x);
ORNIK_API KTensor& atanh_(KTensor& x);
/// 1 / (1 + e^-x)
[[nodiscard]] ORNIK_API KTensor sigmoid(const KTensor& x);
ORNIK_API KTensor& sigmoid_(KTensor& x);

// ---- Real dtypes; results as above ----

/// log(sigmoid(x))
[[nodiscard]] ORNIK_API KTensor logsigmoid(const KTensor& x);
ORNIK_API KTensor& logsigmoid_(KTensor& x);
/// log(1 + e^x)
[[nodiscard]] ORNIK_API KTensor softplus(const KTensor& x);
ORNIK_API KTensor& softplus_(KTensor& x);
/// x sigmoid(x)
[[nodiscard]] ORNIK_API KTensor silu(const KTensor& x);
ORNIK_API KTensor& silu_(KTensor& x);
/// x (1 + erf(x / sqrt(2))) / 2
[[nodiscard]] ORNIK_API KTensor gelu(const KTensor& x);
ORNIK_API KTensor& gelu_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor erf(const KTensor& x);
ORNIK_API KTensor& erf_(KTensor& x);

// ---- Any dtype, kept (neg: not bool) ----

[[nodiscard]] ORNIK_API KTensor neg(const KTensor& x);
ORNIK_API KTensor& neg_(KTensor& x);
/// x x
[[nodiscard]] ORNIK_API KTensor sqr(const KTensor& x);
ORNIK_API KTensor& sqr_(KTensor& x);
/// The complex conjugate; a copy for real dtypes.
[[nodiscard]] ORNIK_API KTensor conj(const KTensor& x);
ORNIK_API KTensor& conj_(KTensor& x);

// ---- Any dtype; real results of the dtype of a complex tensor's parts ----

/// The magnitude of a complex number.
[[nodiscard]] ORNIK_API KTensor abs(const KTensor& x);
/// A copy for real dtypes.
[[nodiscard]] ORNIK_API KTensor real(const KTensor& x);
/// Zeros for real dtypes.
[[nodiscard]] ORNIK_API KTensor imag(const KTensor& x);
/// In (-pi, pi]; 0 or pi for real numbers.
[[nodiscard]] ORNIK_API KTensor angle(const KTensor& x);

// ---- Steps ----

/// -1, 0 or 1; z / |z| for complex numbers.
[[nodiscard]] ORNIK_API KTensor sign(const KTensor& x);
ORNIK_API KTensor& sign_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor floor(const KTensor& x);
ORNIK_API KTensor& floor_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor ceil(const KTensor& x);
ORNIK_API KTensor& ceil_(KTensor& x);
/// Half to even; of complex numbers both parts.
[[nodiscard]] ORNIK_API KTensor round(const KTensor& x);
ORNIK_API KTensor& round_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor trunc(const KTensor& x);
ORNIK_API KTensor& trunc_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor bitwise_not(const KTensor& x);
ORNIK_API KTensor& bitwise_not_(KTensor& x);
[[nodiscard]] ORNIK_API KTensor is_nan(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor is_inf(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor is_finite(const KTensor& x);
/// True for numbers below 0, -0.0, and NaN with a sign.
[[nodiscard]] ORNIK_API KTensor signbit(const KTensor& x);
/// True for zero.
[[nodiscard]] ORNIK_API KTensor logical_not(const KTensor& x);

[[nodiscard]] inline KTensor operator-(const KTensor& x) { return neg(x); }
[[nodiscard]] inline KTensor operator~(const KTensor& x) { return bitwise_not(x); }

// ---- Two operands, either of which may be a number ----

/// a^b. Integers: a negative exponent gives the whole part of the result.
[[nodiscard]] ORNIK_API KTensor pow(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor pow(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor pow(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& pow_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& pow_(KTensor& a, const Scalar& b);
/// Of the dividend's sign.
[[nodiscard]] ORNIK_API KTensor fmod(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor fmod(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor fmod(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& fmod_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& fmod_(KTensor& a, const Scalar& b);
/// Of the divisor's sign.
[[nodiscard]] ORNIK_API KTensor remainder(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor remainder(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor remainder(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& remainder_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& remainder_(KTensor& a, const Scalar& b);
/// NaN of either operand wins, here and in minimum. Equal operands share the gradient.
[[nodiscard]] ORNIK_API KTensor maximum(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor maximum(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor maximum(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& maximum_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& maximum_(KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor minimum(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor minimum(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor minimum(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& minimum_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& minimum_(KTensor& a, const Scalar& b);
/// The angle of the point (b, a).
[[nodiscard]] ORNIK_API KTensor atan2(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor atan2(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor atan2(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& atan2_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& atan2_(KTensor& a, const Scalar& b);

/// sqrt(a^2 + b^2) without overflow. Where it is 0 its gradient counts as 0.
[[nodiscard]] ORNIK_API KTensor hypot(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor hypot(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor hypot(const Scalar& a, const KTensor& b);
/// log(e^a + e^b) without overflow.
[[nodiscard]] ORNIK_API KTensor logaddexp(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logaddexp(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor logaddexp(const Scalar& a, const KTensor& b);
/// The magnitude of a with the sign of b, which counts as a constant; no gradient where a is 0.
[[nodiscard]] ORNIK_API KTensor copysign(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor copysign(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor copysign(const Scalar& a, const KTensor& b);
/// The largest whole number not above a / b, of the promoted dtype. A step, as is the next.
[[nodiscard]] ORNIK_API KTensor floor_divide(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor floor_divide(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor floor_divide(const Scalar& a, const KTensor& b);
/// The next number from a towards b.
[[nodiscard]] ORNIK_API KTensor nextafter(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor nextafter(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor nextafter(const Scalar& a, const KTensor& b);

// bool results.

[[nodiscard]] ORNIK_API KTensor equal(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor equal(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor equal(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor not_equal(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor not_equal(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor not_equal(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor greater(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor greater(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor greater(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor greater_equal(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor greater_equal(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor greater_equal(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor less(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor less(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor less(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor less_equal(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor less_equal(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor less_equal(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_and(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_and(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor logical_and(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_or(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_or(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor logical_or(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_xor(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor logical_xor(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor logical_xor(const Scalar& a, const KTensor& b);

// bool and integers.

[[nodiscard]] ORNIK_API KTensor bitwise_and(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor bitwise_and(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor bitwise_and(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& bitwise_and_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& bitwise_and_(KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor bitwise_or(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor bitwise_or(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor bitwise_or(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& bitwise_or_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& bitwise_or_(KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor bitwise_xor(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor bitwise_xor(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor bitwise_xor(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& bitwise_xor_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& bitwise_xor_(KTensor& a, const Scalar& b);
/// Counts beyond the width shift everything out, here and below.
[[nodiscard]] ORNIK_API KTensor left_shift(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor left_shift(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor left_shift(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& left_shift_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& left_shift_(KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor right_shift(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor right_shift(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor right_shift(const Scalar& a, const KTensor& b);
ORNIK_API KTensor& right_shift_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& right_shift_(KTensor& a, const Scalar& b);

[[nodiscard]] inline KTensor operator==(const KTensor& a, const KTensor& b) { return equal(a, b); }
[[nodiscard]] inline KTensor operator==(const KTensor& a, const Scalar& b) { return equal(a, b); }
[[nodiscard]] inline KTensor operator==(const Scalar& a, const KTensor& b) { return equal(a, b); }
[[nodiscard]] inline KTensor operator!=(const KTensor& a, const KTensor& b) { return not_equal(a, b); }
[[nodiscard]] inline KTensor operator!=(const KTensor& a, const Scalar& b) { return not_equal(a, b); }
[[nodiscard]] inline KTensor operator!=(const Scalar& a, const KTensor& b) { return not_equal(a, b); }
[[nodiscard]] inline KTensor operator>(const KTensor& a, const KTensor& b) { return greater(a, b); }
[[nodiscard]] inline KTensor operator>(const KTensor& a, const Scalar& b) { return greater(a, b); }
[[nodiscard]] inline KTensor operator>(const Scalar& a, const KTensor& b) { return greater(a, b); }
[[nodiscard]] inline KTensor operator>=(const KTensor& a, const KTensor& b) { return greater_equal(a, b); }
[[nodiscard]] inline KTensor operator>=(const KTensor& a, const Scalar& b) { return greater_equal(a, b); }
[[nodiscard]] inline KTensor operator>=(const Scalar& a, const KTensor& b) { return greater_equal(a, b); }
[[nodiscard]] inline KTensor operator<(const KTensor& a, const KTensor& b) { return less(a, b); }
[[nodiscard]] inline KTensor operator<(const KTensor& a, const Scalar& b) { return less(a, b); }
[[nodiscard]] inline KTensor operator<(const Scalar& a, const KTensor& b) { return less(a, b); }
[[nodiscard]] inline KTensor operator<=(const KTensor& a, const KTensor& b) { return less_equal(a, b); }
[[nodiscard]] inline KTensor operator<=(const KTensor& a, const Scalar& b) { return less_equal(a, b); }
[[nodiscard]] inline KTensor operator<=(const Scalar& a, const KTensor& b) { return less_equal(a, b); }
[[nodiscard]] inline KTensor operator&(const KTensor& a, const KTensor& b) { return bitwise_and(a, b); }
[[nodiscard]] inline KTensor operator&(const KTensor& a, const Scalar& b) { return bitwise_and(a, b); }
[[nodiscard]] inline KTensor operator&(const Scalar& a, const KTensor& b) { return bitwise_and(a, b); }
[[nodiscard]] inline KTensor operator|(const KTensor& a, const KTensor& b) { return bitwise_or(a, b); }
[[nodiscard]] inline KTensor operator|(const KTensor& a, const Scalar& b) { return bitwise_or(a, b); }
[[nodiscard]] inline KTensor operator|(const Scalar& a, const KTensor& b) { return bitwise_or(a, b); }
[[nodiscard]] inline KTensor operator^(const KTensor& a, const KTensor& b) { return bitwise_xor(a, b); }
[[nodiscard]] inline KTensor operator^(const KTensor& a, const Scalar& b) { return bitwise_xor(a, b); }
[[nodiscard]] inline KTensor operator^(const Scalar& a, const KTensor& b) { return bitwise_xor(a, b); }

// ---- Choices ----

/// condition ? a : b, of the promoted dtype; condition is bool. All three broadcast.
[[nodiscard]] ORNIK_API KTensor where(const KTensor& condition, const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor where(const KTensor& condition, const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor where(const KTensor& condition, const Scalar& a, const KTensor& b);
/// The value where the bool mask, which broadcasts to x, is true.
[[nodiscard]] ORNIK_API KTensor masked_fill(const KTensor& x, const KTensor& mask, const Scalar& value);
ORNIK_API KTensor& masked_fill_(KTensor& x, const KTensor& mask, const Scalar& value);
/// minimum(maximum(x, min), max). The gradient goes to the elements inside the bounds, which belong to the inside.
[[nodiscard]] ORNIK_API KTensor clamp(const KTensor& x, const Scalar& min, const Scalar& max);
[[nodiscard]] ORNIK_API KTensor clamp_min(const KTensor& x, const Scalar& min);
[[nodiscard]] ORNIK_API KTensor clamp_max(const KTensor& x, const Scalar& max);
ORNIK_API KTensor& clamp_(KTensor& x, const Scalar& min, const Scalar& max);
ORNIK_API KTensor& clamp_min_(KTensor& x, const Scalar& min);
ORNIK_API KTensor& clamp_max_(KTensor& x, const Scalar& max);

/// |a - b| <= atol + rtol |b|, computed in double; infinities equal only themselves. bool.
[[nodiscard]] ORNIK_API KTensor is_close(const KTensor& a, const KTensor& b, double rtol = 1e-5, double atol = 1e-8,
                                         bool equal_nan = false);
[[nodiscard]] ORNIK_API bool all_close(const KTensor& a, const KTensor& b, double rtol = 1e-5, double atol = 1e-8,
                                       bool equal_nan = false);

}  // namespace ornik
