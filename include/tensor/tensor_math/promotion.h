// promotion.h: result dtypes of arithmetic.
//
// All tables are indexed by dtype codes. Scalars and tensors follow different rules on purpose: an integer
// scalar never widens an integer tensor, and a float64 tensor with a complex64 scalar gives complex64. Sums,
// differences and products of a float32 tensor and a double are float64; all else keeps the tensor's dtype there.
#pragma once

#include <cstdint>

#include "../dtype.h"

namespace ornik::promotion {

namespace detail {

enum Code : std::int8_t { bl, u8, i8, i16, i32, i64, f32, f64, c64, c128 };
using Table = Code[dtype_count][dtype_count];

// clang-format off
/// Row: first tensor, column: second tensor.
inline constexpr Table sum_table = {
    //          bl    u8    i8    i16   i32   i64   f32   f64   c64   c128
    /* bl   */ {bl,   u8,   i8,   i16,  i32,  i64,  f32,  f64,  c64,  c128},
    /* u8   */ {u8,   u8,   i16,  i16,  i32,  i64,  f32,  f64,  c64,  c128},
    /* i8   */ {i8,   i16,  i8,   i16,  i32,  i64,  f32,  f64,  c64,  c128},
    /* i16  */ {i16,  i16,  i16,  i16,  i32,  i64,  f32,  f64,  c64,  c128},
    /* i32  */ {i32,  i32,  i32,  i32,  i32,  i64,  f32,  f64,  c64,  c128},
    /* i64  */ {i64,  i64,  i64,  i64,  i64,  i64,  f32,  f64,  c64,  c128},
    /* f32  */ {f32,  f32,  f32,  f32,  f32,  f32,  f32,  f64,  c64,  c128},
    /* f64  */ {f64,  f64,  f64,  f64,  f64,  f64,  f64,  f64,  c128, c128},
    /* c64  */ {c64,  c64,  c64,  c64,  c64,  c64,  c64,  c128, c64,  c128},
    /* c128 */ {c128, c128, c128, c128, c128, c128, c128, c128, c128, c128},
};

/// Row: tensor, column: type of the scalar.
inline constexpr Table scalar_table = {
    //          bl    u8    i8    i16   i32   i64   f32   f64   c64   c128
    /* bl   */ {bl,   u8,   i64,  i64,  i64,  i64,  f32,  f64,  c64,  c128},
    /* u8   */ {u8,   u8,   u8,   u8,   u8,   u8,   f32,  f64,  c64,  c128},
    /* i8   */ {i8,   i8,   i8,   i8,   i8,   i8,   f32,  f64,  c64,  c128},
    /* i16  */ {i16,  i16,  i16,  i16,  i16,  i16,  f32,  f64,  c64,  c128},
    /* i32  */ {i32,  i32,  i32,  i32,  i32,  i32,  f32,  f64,  c64,  c128},
    /* i64  */ {i64,  i64,  i64,  i64,  i64,  i64,  f32,  f64,  c64,  c128},
    /* f32  */ {f32,  f32,  f32,  f32,  f32,  f32,  f32,  f64,  c64,  c128},
    /* f64  */ {f64,  f64,  f64,  f64,  f64,  f64,  f64,  f64,  c64,  c128},
    /* c64  */ {c64,  c64,  c64,  c64,  c64,  c64,  c64,  c64,  c64,  c128},
    /* c128 */ {c128, c128, c128, c128, c128, c128, c128, c128, c128, c128},
};
// clang-format on

}  // namespace detail

/// Sum, difference and product of two tensors.
constexpr std::int64_t of_tensors(std::int64_t a, std::int64_t b) { return detail::sum_table[a][b]; }

/// Quotient of two tensors: never an integer.
constexpr std::int64_t of_quotient(std::int64_t a, std::int64_t b) {
    const std::int64_t sum = of_tensors(a, b);
    return sum < dtype::float32 ? dtype::float32 : sum;
}

/// Sum, difference and product of a tensor and a scalar.
constexpr std::int64_t with_scalar(std::int64_t tensor, std::int64_t scalar) {
    return detail::scalar_table[tensor][scalar];
}

/// Every other operation on a tensor and a scalar, comparisons aside: as with_scalar, but a scalar of the tensor's
/// kind never widens it: float32 with a double stays float32, complex64 with a complex128 stays complex64.
constexpr std::int64_t of_kind_with_scalar(std::int64_t tensor, std::int64_t scalar) {
    const bool one_kind =
        (is_dtype_class(tensor, DtypeClass::floating) && is_dtype_class(scalar, DtypeClass::floating)) ||
        (is_dtype_class(tensor, DtypeClass::complex) && is_dtype_class(scalar, DtypeClass::complex));
    return one_kind ? tensor : with_scalar(tensor, scalar);
}

/// Quotient of a tensor and a scalar: the tensor alone decides.
constexpr std::int64_t quotient_with_scalar(std::int64_t tensor) {
    return tensor < dtype::float32 ? dtype::float32 : tensor;
}

}  // namespace ornik::promotion
