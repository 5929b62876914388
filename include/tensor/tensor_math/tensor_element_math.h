// tensor_element_math.h: element-wise mathematics with outputs given by the caller, and gradients.
//
// Operands have any strides and one shape: broadcast first. Errors, before anything is written: operands
// away from the CPU or of different shapes, dtypes that the operation is not defined for ("exp() is not
// supported for ... tensor."), outputs of another shape or dtype, and expanded (stride-0) outputs.
//
// Accuracy: errors are bounded over the whole domain, in units in the last place of the correct result;
// "exact" where that is always given. The same input gives the same bits wherever it stands in a tensor and
// whatever the team size. NaN gives NaN; infinities, signed zeros and subnormal numbers give the limits that
// the C standard names.
//
//                                                          float32   float64
//   exp, log, erf, pow, atan2                             1         1
//   exp2, expm1, log2, log1p, tan, asin, acos, atan       0.51      1
//   rsqrt                                                 0.51      1.5
//   log10, sinh, cosh, asinh, acosh, atanh, logsigmoid,
//   softplus                                              0.51      2
//   silu                                                  0.51      6
//   gelu                                                  2 (1)     24
//   sqrt, reciprocal, sqr, angle, remainder               0.5       0.5
//   sin, cos                                              1.6       1
//   tanh, sigmoid                                         2.5       2.5
//   all others                                            exact     exact
//
// (1) For x >= -1/2; further down the error is at most 2^-23 |x|. Over all numbers of float32 it was found to be 1.80
//     units and 0.97 * 2^-23 |x|.
//
// Parts of complex results are within 4 units of the last place of the result's magnitude (2^-22 and 2^-51 of
// it) where neither intermediate values nor the standard library's own functions overflow.
#pragma once

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

// ---- Outputs given by the caller: of the dtype that the member of Tensor gives; may be an operand ----

ORNIK_API void exp(Tensor* input, Tensor* out);
ORNIK_API void exp2(Tensor* input, Tensor* out);
ORNIK_API void expm1(Tensor* input, Tensor* out);
ORNIK_API void log(Tensor* input, Tensor* out);
ORNIK_API void log2(Tensor* input, Tensor* out);
ORNIK_API void log10(Tensor* input, Tensor* out);
ORNIK_API void log1p(Tensor* input, Tensor* out);
ORNIK_API void sqrt(Tensor* input, Tensor* out);
ORNIK_API void rsqrt(Tensor* input, Tensor* out);
ORNIK_API void reciprocal(Tensor* input, Tensor* out);
ORNIK_API void sin(Tensor* input, Tensor* out);
ORNIK_API void cos(Tensor* input, Tensor* out);
ORNIK_API void tan(Tensor* input, Tensor* out);
ORNIK_API void asin(Tensor* input, Tensor* out);
ORNIK_API void acos(Tensor* input, Tensor* out);
ORNIK_API void atan(Tensor* input, Tensor* out);
ORNIK_API void sinh(Tensor* input, Tensor* out);
ORNIK_API void cosh(Tensor* input, Tensor* out);
ORNIK_API void tanh(Tensor* input, Tensor* out);
ORNIK_API void asinh(Tensor* input, Tensor* out);
ORNIK_API void acosh(Tensor* input, Tensor* out);
ORNIK_API void atanh(Tensor* input, Tensor* out);
ORNIK_API void sigmoid(Tensor* input, Tensor* out);
ORNIK_API void logsigmoid(Tensor* input, Tensor* out);
ORNIK_API void softplus(Tensor* input, Tensor* out);
ORNIK_API void silu(Tensor* input, Tensor* out);
ORNIK_API void gelu(Tensor* input, Tensor* out);
ORNIK_API void erf(Tensor* input, Tensor* out);
ORNIK_API void neg(Tensor* input, Tensor* out);
ORNIK_API void sqr(Tensor* input, Tensor* out);
ORNIK_API void abs(Tensor* input, Tensor* out);
ORNIK_API void conj(Tensor* input, Tensor* out);
ORNIK_API void real(Tensor* input, Tensor* out);
ORNIK_API void imag(Tensor* input, Tensor* out);
ORNIK_API void angle(Tensor* input, Tensor* out);
ORNIK_API void sign(Tensor* input, Tensor* out);
ORNIK_API void floor(Tensor* input, Tensor* out);
ORNIK_API void ceil(Tensor* input, Tensor* out);
ORNIK_API void round(Tensor* input, Tensor* out);
ORNIK_API void trunc(Tensor* input, Tensor* out);
ORNIK_API void is_nan(Tensor* input, Tensor* out);
ORNIK_API void is_inf(Tensor* input, Tensor* out);
ORNIK_API void is_finite(Tensor* input, Tensor* out);
ORNIK_API void logical_not(Tensor* input, Tensor* out);
ORNIK_API void bitwise_not(Tensor* input, Tensor* out);

ORNIK_API void pow(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void fmod(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void remainder(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void maximum(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void minimum(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void atan2(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void equal(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void not_equal(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void logical_and(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void logical_or(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void logical_xor(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void greater(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void greater_equal(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void less(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void less_equal(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void bitwise_and(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void bitwise_or(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void bitwise_xor(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void left_shift(Tensor* a, Tensor* b, Tensor* out);
ORNIK_API void right_shift(Tensor* a, Tensor* b, Tensor* out);

/// condition ? a : b, in a new tensor of the operands' promoted dtype; condition is bool.
[[nodiscard]] ORNIK_API Tensor* where(Tensor* condition, Tensor* a, Tensor* b);

// ---- Gradients ----
//
// name_grad(input, output, grad): the gradient of the operation's input, a new tensor. `output` is what the
// operation gave for the input (a null one is computed here), `grad` the gradient of the output; both have
// its dtype. Floating and complex dtypes. For complex numbers this is grad times the conjugate of the
// derivative; the gradients of parts (abs, real, imag, angle, conj) hold d/d real + i d/d imag. abs is flat
// at 0.

[[nodiscard]] ORNIK_API Tensor* exp_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* exp2_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* expm1_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* log_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* log2_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* log10_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* log1p_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* sqrt_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* rsqrt_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* reciprocal_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* sin_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* cos_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* tan_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* asin_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* acos_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* atan_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* sinh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* cosh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* tanh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* asinh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* acosh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* atanh_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* sigmoid_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* logsigmoid_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* softplus_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* silu_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* gelu_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* erf_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* neg_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* sqr_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* abs_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* conj_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* real_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* imag_grad(Tensor* input, Tensor* output, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* angle_grad(Tensor* input, Tensor* output, Tensor* grad);

// name_dx_grad(a, b, grad) for the first operand, name_dy_grad for the second; grad and the result have the
// operands' promoted dtype. maximum and minimum: equal operands get half each. fmod and remainder: between
// the jumps.

[[nodiscard]] ORNIK_API Tensor* pow_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* pow_dy_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* fmod_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* fmod_dy_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* remainder_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* remainder_dy_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* maximum_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* maximum_dy_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* minimum_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* minimum_dy_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* atan2_dx_grad(Tensor* a, Tensor* b, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* atan2_dy_grad(Tensor* a, Tensor* b, Tensor* grad);

/// grad where the condition is true (dx) or false (dy), zeros elsewhere.
[[nodiscard]] ORNIK_API Tensor* where_dx_grad(Tensor* condition, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* where_dy_grad(Tensor* condition, Tensor* grad);
[[nodiscard]] ORNIK_API Tensor* masked_fill_grad(Tensor* mask, Tensor* grad);
/// grad where min <= input <= max, zeros elsewhere.
[[nodiscard]] ORNIK_API Tensor* clamp_grad(Tensor* input, const Scalar& min, const Scalar& max, Tensor* grad);

}  // namespace ornik
