// element_operations.h: the table of unary and binary element-wise operations. Internal.
//
// Everything else derives from it: the enumerations, the members of Tensor and the free functions
// (tensor/tensor_math/), the kernels (hardware/cpu/), the result dtypes, and the tests, which loop over it.
// A new operation is one row here, its functions in hardware/cpu/elements/*_functions.h, and its declarations.
//
//   accepts   classes of dtypes that the operation is defined for
//   result    same            the operand's dtype (binary: the promoted one)
//             floating        float32 for bool and integers, float64 for int64; else the operand's
//             part            the dtype of a complex operand's parts; else the operand's
//             floating_part   both
//             boolean         bool
//   error     bounds of the error in units in the last place, for float32 and float64 (gelu in float32: for x >= -1/2,
//             and 2^-23 |x| below)
#pragma once

#include <cstdint>

#include "../tensor/dtype.h"

// clang-format off

// Floating functions of real and complex numbers, with a derivative.
//      name        accepts      result         error: f32, f64
#define ORNIK_FLOATING_OPERATIONS(ROW) \
    ROW(exp,        any,         floating,      1,   1)   \
    ROW(exp2,       any,         floating,      0.51, 1)  \
    ROW(expm1,      any,         floating,      0.51, 1)  \
    ROW(log,        any,         floating,      1,   1)   \
    ROW(log2,       any,         floating,      0.51, 1)  \
    ROW(log10,      any,         floating,      0.51, 2)  \
    ROW(log1p,      any,         floating,      0.51, 1)  \
    ROW(sqrt,       any,         floating,      0.5, 0.5) \
    ROW(rsqrt,      any,         floating,      0.51, 1.5) \
    ROW(reciprocal, any,         floating,      0.5, 0.5) \
    ROW(sin,        any,         floating,      1.6, 1)   \
    ROW(cos,        any,         floating,      1.6, 1)   \
    ROW(tan,        any,         floating,      0.51, 1)  \
    ROW(asin,       any,         floating,      0.51, 1)  \
    ROW(acos,       any,         floating,      0.51, 1)  \
    ROW(atan,       any,         floating,      0.51, 1)  \
    ROW(sinh,       any,         floating,      0.51, 2)  \
    ROW(cosh,       any,         floating,      0.51, 2)  \
    ROW(tanh,       any,         floating,      2.5, 2.5)   \
    ROW(asinh,      any,         floating,      0.51, 2)  \
    ROW(acosh,      any,         floating,      0.51, 2)  \
    ROW(atanh,      any,         floating,      0.51, 2)  \
    ROW(sigmoid,    any,         floating,      2.5, 2.5)

// The same of real numbers only.
#define ORNIK_NETWORK_OPERATIONS(ROW) \
    ROW(logsigmoid, real_values, floating,      0.51, 2)  \
    ROW(softplus,   real_values, floating,      0.51, 2)  \
    ROW(silu,       real_values, floating,      0.51, 6)  \
    ROW(gelu,       real_values, floating,      2,   24)  \
    ROW(erf,        real_values, floating,      1,   1)

// Exact arithmetic of every dtype, with a derivative.
#define ORNIK_SIGN_OPERATIONS(ROW) \
    ROW(neg,        number,      same,          0,   0)   \
    ROW(sqr,        any,         same,          0.5, 0.5)

// Parts of complex numbers. A derivative, but none in the complex sense.
#define ORNIK_PART_OPERATIONS(ROW) \
    ROW(abs,        any,         part,          0,   0)   \
    ROW(conj,       any,         same,          0,   0)   \
    ROW(real,       any,         part,          0,   0)   \
    ROW(imag,       any,         part,          0,   0)

#define ORNIK_ANGLE_OPERATIONS(ROW) \
    ROW(angle,      any,         floating_part, 0.5, 0.5)

// Steps: no derivative.
#define ORNIK_STEP_OPERATIONS(ROW) \
    ROW(sign,       any,         same,          0,   0)

#define ORNIK_ROUNDING_OPERATIONS(ROW) \
    ROW(floor,      real_values, same,          0,   0)   \
    ROW(ceil,       real_values, same,          0,   0)   \
    ROW(round,      real_values, same,          0,   0)   \
    ROW(trunc,      real_values, same,          0,   0)

#define ORNIK_TEST_OPERATIONS(ROW) \
    ROW(is_nan,      any,        boolean,       0,   0)   \
    ROW(is_inf,      any,        boolean,       0,   0)   \
    ROW(is_finite,   any,        boolean,       0,   0)   \
    ROW(logical_not, any,        boolean,       0,   0)

#define ORNIK_BIT_OPERATIONS(ROW) \
    ROW(bitwise_not, bits,       same,          0,   0)

#define ORNIK_UNARY_OPERATIONS(ROW) \
    ORNIK_FLOATING_OPERATIONS(ROW) \
    ORNIK_NETWORK_OPERATIONS(ROW)  \
    ORNIK_SIGN_OPERATIONS(ROW)     \
    ORNIK_PART_OPERATIONS(ROW)     \
    ORNIK_ANGLE_OPERATIONS(ROW)    \
    ORNIK_STEP_OPERATIONS(ROW)     \
    ORNIK_ROUNDING_OPERATIONS(ROW) \
    ORNIK_TEST_OPERATIONS(ROW)     \
    ORNIK_BIT_OPERATIONS(ROW)

// Every operation whose name_grad exists.
#define ORNIK_DIFFERENTIABLE_OPERATIONS(ROW) \
    ORNIK_FLOATING_OPERATIONS(ROW) \
    ORNIK_NETWORK_OPERATIONS(ROW)  \
    ORNIK_SIGN_OPERATIONS(ROW)     \
    ORNIK_PART_OPERATIONS(ROW)     \
    ORNIK_ANGLE_OPERATIONS(ROW)

// Two operands, of the promoted dtype.
#define ORNIK_POWER_OPERATIONS(ROW) \
    ROW(pow,           number,      same,     1,   1)

#define ORNIK_EQUALITY_OPERATIONS(ROW) \
    ROW(equal,         any,         boolean,  0,   0)   \
    ROW(not_equal,     any,         boolean,  0,   0)   \
    ROW(logical_and,   any,         boolean,  0,   0)   \
    ROW(logical_or,    any,         boolean,  0,   0)   \
    ROW(logical_xor,   any,         boolean,  0,   0)

#define ORNIK_REAL_PAIR_OPERATIONS(ROW) \
    ROW(fmod,          real_number, same,     0,   0)   \
    ROW(remainder,     real_number, same,     0.5, 0.5) \
    ROW(maximum,       real_values, same,     0,   0)   \
    ROW(minimum,       real_values, same,     0,   0)

#define ORNIK_ORDER_OPERATIONS(ROW) \
    ROW(greater,       real_values, boolean,  0,   0)   \
    ROW(greater_equal, real_values, boolean,  0,   0)   \
    ROW(less,          real_values, boolean,  0,   0)   \
    ROW(less_equal,    real_values, boolean,  0,   0)

#define ORNIK_FLOATING_PAIR_OPERATIONS(ROW) \
    ROW(atan2,         real_values, floating, 1,   1)

#define ORNIK_BIT_PAIR_OPERATIONS(ROW) \
    ROW(bitwise_and,   bits,        same,     0,   0)   \
    ROW(bitwise_or,    bits,        same,     0,   0)   \
    ROW(bitwise_xor,   bits,        same,     0,   0)   \
    ROW(left_shift,    whole,       same,     0,   0)   \
    ROW(right_shift,   whole,       same,     0,   0)

// With gradients, name_dx_grad and name_dy_grad.
#define ORNIK_ARITHMETIC_PAIR_OPERATIONS(ROW) \
    ORNIK_POWER_OPERATIONS(ROW)     \
    ORNIK_REAL_PAIR_OPERATIONS(ROW) \
    ORNIK_FLOATING_PAIR_OPERATIONS(ROW)

#define ORNIK_BINARY_OPERATIONS(ROW) \
    ORNIK_ARITHMETIC_PAIR_OPERATIONS(ROW) \
    ORNIK_EQUALITY_OPERATIONS(ROW)        \
    ORNIK_ORDER_OPERATIONS(ROW)           \
    ORNIK_BIT_PAIR_OPERATIONS(ROW)

// clang-format on

namespace ornik::operations {

/// Sets of dtype classes, one bit each.
enum Accepts : unsigned {
    whole = 1U << static_cast<unsigned>(DtypeClass::integral),
    bits = whole | 1U << static_cast<unsigned>(DtypeClass::boolean),
    real_number = whole | 1U << static_cast<unsigned>(DtypeClass::floating),
    real_values = bits | real_number,
    number = real_number | 1U << static_cast<unsigned>(DtypeClass::complex),
    any = bits | number,
};

enum class Result { same, floating, part, floating_part, boolean };

#define ORNIK_ENUMERATOR(name, accepts, result, error32, error64) name,
enum class Unary { ORNIK_UNARY_OPERATIONS(ORNIK_ENUMERATOR) count };
enum class Binary { ORNIK_BINARY_OPERATIONS(ORNIK_ENUMERATOR) count };
#undef ORNIK_ENUMERATOR

struct Row {
    const char* name;
    Accepts accepts;
    Result result;
    double error32;
    double error64;
};

#define ORNIK_TABLE_ROW(name, accepts, result, error32, error64) {#name, accepts, Result::result, error32, error64},
inline constexpr Row unary_table[] = {ORNIK_UNARY_OPERATIONS(ORNIK_TABLE_ROW)};
inline constexpr Row binary_table[] = {ORNIK_BINARY_OPERATIONS(ORNIK_TABLE_ROW)};
#undef ORNIK_TABLE_ROW

constexpr const Row& row_of(Unary operation) { return unary_table[static_cast<std::size_t>(operation)]; }
constexpr const Row& row_of(Binary operation) { return binary_table[static_cast<std::size_t>(operation)]; }

constexpr bool accepts(const Row& row, std::int64_t dtype) {
    return is_valid_dtype(dtype) &&
           (row.accepts >>
                static_cast<unsigned>(ornik::detail::dtype_table[static_cast<std::size_t>(dtype)].dtype_class) &
            1U) != 0;
}

/// The floating dtype that bool and integers compute in; floating and complex dtypes stay.
constexpr std::int64_t floating_dtype(std::int64_t dtype) {
    return dtype == dtype::int64 ? dtype::float64 : (dtype < dtype::float32 ? dtype::float32 : dtype);
}

/// The dtype of a complex number's parts; others stay.
constexpr std::int64_t part_dtype(std::int64_t dtype) {
    return dtype == dtype::complex64 ? dtype::float32 : (dtype == dtype::complex128 ? dtype::float64 : dtype);
}

/// The dtype that the operation computes in, given its operands' (promoted) one.
constexpr std::int64_t computing_dtype(const Row& row, std::int64_t dtype) {
    return row.result == Result::floating || row.result == Result::floating_part ? floating_dtype(dtype) : dtype;
}

constexpr std::int64_t result_dtype(const Row& row, std::int64_t dtype) {
    const std::int64_t computed = computing_dtype(row, dtype);
    switch (row.result) {
        case Result::boolean:
            return dtype::boolean;
        case Result::part:
        case Result::floating_part:
            return part_dtype(computed);
        default:
            return computed;
    }
}

}  // namespace ornik::operations
