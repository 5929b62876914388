// references.h: every unary and binary operation computed another way, in 80-bit numbers, and what the tests
// of both share. All element types fit std::complex<long double>.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <map>
#include <random>

#if defined(_WIN32)
#include <quadmath.h>
#endif

#include "descriptors/element_operations.h"
#include "hardware/cpu/dispatch.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/tensor_math/tensor_element_math.h"

namespace ornik::test {

using LD = long double;
using CLD = std::complex<LD>;
using operations::Binary;
using operations::Row;
using operations::Unary;

inline constexpr const char* front_file = "src/tensor/tensor_math/tensor_element_math.cpp";

inline std::string name_of_dtype(std::int64_t dtype) {
    return std::string(ornik::detail::dtype_table[static_cast<std::size_t>(dtype)].name);
}

template <typename T>
CLD widened(T value) {
    if constexpr (requires { value.imag; }) {
        return {value.real, value.imag};
    } else {
        return static_cast<LD>(value);
    }
}

/// Whole numbers wrap.
template <typename T>
T narrowed(CLD value) {
    if constexpr (requires(T z) { z.imag; }) {
        using Part = decltype(T::real);
        return {static_cast<Part>(value.real()), static_cast<Part>(value.imag())};
    } else if constexpr (std::is_same_v<T, bool>) {
        return value != CLD(0);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(static_cast<std::int64_t>(value.real()));
    } else {
        return static_cast<T>(value.real());
    }
}

inline std::vector<CLD> wide_values(const Tensor* t) {
    std::vector<CLD> wide;
    dispatch(AllTypes{}, t->Dtype(), [&]<typename T>() {
        for (const T value : values_of<T>(t)) {
            wide.push_back(widened(value));
        }
    });
    return wide;
}

/// The values, converted to the dtype, in a tensor of the layout.
inline TensorPtr make_wide(std::int64_t dtype, const Dims& shape, const std::vector<CLD>& values,
                           Layout layout = Layout::contiguous) {
    TensorPtr t;
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        std::vector<T> narrow;
        for (const CLD value : values) {
            narrow.push_back(narrowed<T>(value));
        }
        t = make<T>(shape, narrow, layout);
    });
    return t;
}

/// The values, rounded to the dtype.
inline std::vector<CLD> converted(std::int64_t dtype, const std::vector<CLD>& values) {
    return wide_values(make_wide(dtype, {static_cast<std::int64_t>(values.size())}, values).get());
}

/// The exact result as an integer dtype holds it; others hold it within their bounds.
inline CLD held(CLD exact, std::int64_t dtype) { return dtype < dtype::float32 ? converted(dtype, {exact})[0] : exact; }

/// How far `got` lies from the exact value, in units of the last place of T; huge where one is no number,
/// infinite or a zero of the other sign and the other is not.
template <typename T>
LD ulps(T got, LD exact) {
    using Limits = std::numeric_limits<T>;
    if (std::isnan(exact) || std::isnan(got)) {
        return std::isnan(exact) && std::isnan(got) ? 0 : 1e30L;
    }
    if (exact == 0 && got == 0) {
        return std::signbit(exact) == std::signbit(got) ? 0 : 1e30L;
    }
    const LD top = std::ldexp(1.0L, Limits::max_exponent);
    const auto bounded = [&](LD x) { return std::min(std::max(x, -top), top); };
    int exponent = 0;
    std::frexp(bounded(exact), &exponent);
    const int last = std::min(std::max(exponent, Limits::min_exponent), Limits::max_exponent) - Limits::digits;
    return std::ldexp(std::fabs(bounded(got) - bounded(exact)), -last);
}

/// Within the bounds of the table; where the operation ran on complex numbers, within 4 units of the
/// magnitude.
inline bool matches(CLD got, CLD exact, std::int64_t dtype, const Row& row, bool from_complex = false) {
    const bool single = dtype == dtype::float32 || dtype == dtype::complex64;
    if (is_dtype_class(dtype, DtypeClass::floating) && !from_complex) {
        const LD error = single ? ulps(static_cast<float>(got.real()), exact.real())
                                : ulps(static_cast<double>(got.real()), exact.real());
        return error <= static_cast<LD>(single ? row.error32 : row.error64);
    }
    // A complex power is an exponential, whose argument has been rounded.
    const LD unit = (single ? 0x1p-24L : 0x1p-53L) * (row.name == std::string("pow") ? 64 : 4);
    const LD bound = dtype < dtype::float32 ? 0 : unit;
    return std::abs(got - exact) <= bound * std::abs(exact);
}

struct UnaryReference {
    LD (*real)(LD);
    CLD (*complex)(CLD) = nullptr;
    double low = -3;  // Where gradients are checked, for real numbers.
    double high = 3;
    double absolute_below = -HUGE_VAL;  // Arguments whose error is bounded by 2^-23 of them, in float32.
};

#if defined(_WIN32)
// The runtime of mingw-w64 has pi to 66 bits, and little of acosh near 1 and off the real line.
inline LD sin_of(LD x) { return static_cast<LD>(sinq(x)); }
inline LD cos_of(LD x) { return static_cast<LD>(cosq(x)); }
inline LD tan_of(LD x) { return static_cast<LD>(tanq(x)); }
inline LD acosh_of(LD x) { return static_cast<LD>(acoshq(x)); }
inline CLD acosh_of(CLD x) { return std::log(x + std::sqrt(x + 1.0L) * std::sqrt(x - 1.0L)); }
#else
inline LD sin_of(LD x) { return std::sin(x); }
inline LD cos_of(LD x) { return std::cos(x); }
inline LD tan_of(LD x) { return std::tan(x); }
inline LD acosh_of(LD x) { return std::acosh(x); }
inline CLD acosh_of(CLD x) { return std::acosh(x); }
#endif
inline CLD sin_of(CLD x) { return std::sin(x); }
inline CLD cos_of(CLD x) { return std::cos(x); }
inline CLD tan_of(CLD x) { return std::tan(x); }

/// One row per operation of the table.
inline const std::map<std::string, UnaryReference>& unary_references() {
    static constexpr LD ln2 = 0.693147180559945309417232121458L;
    static constexpr LD ln10 = 2.302585092994045684017991454684L;
    static constexpr LD root_half = 0.707106781186547524400844362105L;
    static constexpr LD pi = 3.141592653589793238462643383280L;
#define BOTH(expression) [](LD x) -> LD { return expression; }, [](CLD x) -> CLD { return expression; }
#define REAL(expression) [](LD x) -> LD { return expression; }, nullptr
    static const std::map<std::string, UnaryReference> rows = {
        {"exp", {BOTH(std::exp(x))}},
        {"exp2", {[](LD x) -> LD { return std::exp2(x); }, [](CLD x) { return std::exp(x * ln2); }}},
        {"expm1", {[](LD x) -> LD { return std::expm1(x); }, [](CLD x) { return std::exp(x) - 1.0L; }}},
        {"log", {BOTH(std::log(x)), 0.1, 5}},
        {"log2", {[](LD x) -> LD { return std::log2(x); }, [](CLD x) { return std::log(x) / ln2; }, 0.1, 5}},
        {"log10", {[](LD x) -> LD { return std::log10(x); }, [](CLD x) { return std::log(x) / ln10; }, 0.1, 5}},
        {"log1p", {[](LD x) -> LD { return std::log1p(x); }, [](CLD x) { return std::log(1.0L + x); }, -0.9, 5}},
        {"sqrt", {BOTH(std::sqrt(x)), 0.1, 5}},
        {"rsqrt", {BOTH(1.0L / std::sqrt(x)), 0.1, 5}},
        {"reciprocal", {BOTH(1.0L / x), 0.1, 5}},
        {"sin", {BOTH(sin_of(x))}},
        {"cos", {BOTH(cos_of(x))}},
        {"tan", {BOTH(tan_of(x)), -1.4, 1.4}},
        {"asin", {BOTH(std::asin(x)), -0.9, 0.9}},
        {"acos", {BOTH(std::acos(x)), -0.9, 0.9}},
        {"atan", {BOTH(std::atan(x))}},
        {"sinh", {BOTH(std::sinh(x))}},
        {"cosh", {BOTH(std::cosh(x))}},
        {"tanh", {BOTH(std::tanh(x))}},
        {"asinh", {BOTH(std::asinh(x))}},
        {"acosh", {BOTH(acosh_of(x)), 1.1, 5}},
        {"atanh", {BOTH(std::atanh(x)), -0.9, 0.9}},
        {"sigmoid", {BOTH(1.0L / (1.0L + std::exp(-x)))}},
        {"logsigmoid", {REAL(x < 0 ? x - std::log1p(std::exp(x)) : -std::log1p(std::exp(-x)))}},
        {"softplus", {REAL(x > 0 ? x + std::log1p(std::exp(-x)) : std::log1p(std::exp(x)))}},
        {"silu", {REAL(x < -11000 ? -0.0L : x / (1 + std::exp(-x)))}},
        {"gelu", {REAL(x < -150 ? -0.0L : x / 2 * std::erfc(-x * root_half)), -3, 3, -0.5}},
        {"erf", {REAL(std::erf(x))}},
        {"neg", {BOTH(-x)}},
        {"sqr", {BOTH(x * x)}},
        {"abs", {[](LD x) -> LD { return std::fabs(x); }, [](CLD x) -> CLD { return std::abs(x); }, 0.1, 5}},
        {"conj", {[](LD x) -> LD { return x; }, [](CLD x) { return std::conj(x); }}},
        {"real", {[](LD x) -> LD { return x; }, [](CLD x) -> CLD { return x.real(); }}},
        {"imag", {[](LD) -> LD { return 0; }, [](CLD x) -> CLD { return x.imag(); }}},
        {"angle",
         {[](LD x) -> LD { return std::isnan(x) ? x : (std::signbit(x) ? pi : 0); },
          [](CLD x) -> CLD { return std::arg(x); }, 0.1, 5}},
        {"sign",
         {[](LD x) -> LD { return x > 0 ? 1 : (x < 0 ? -1 : x); },
          [](CLD x) -> CLD { return x == CLD(0) ? x : x / std::abs(x); }}},
        {"floor", {REAL(std::floor(x))}},
        {"ceil", {REAL(std::ceil(x))}},
        {"round", {REAL(std::isinf(x) ? x : std::copysign(x - std::remainder(x, 1.0L), x))}},
        {"trunc", {REAL(std::trunc(x))}},
        {"is_nan", {REAL(std::isnan(x))}},
        {"is_inf", {REAL(std::isinf(x))}},
        {"is_finite", {REAL(std::isfinite(x))}},
        {"logical_not", {BOTH(x == decltype(x)(0) ? 1.0L : 0.0L)}},
        {"bitwise_not", {REAL(-x - 1)}},
    };
#undef BOTH
#undef REAL
    return rows;
}

struct BinaryReference {
    LD (*real)(LD, LD);
    std::int64_t (*whole)(std::int64_t, std::int64_t);
    CLD (*complex)(CLD, CLD) = nullptr;
};

inline const std::map<std::string, BinaryReference>& binary_references() {
#define SAME(expression)                         \
    [](LD a, LD b) -> LD { return expression; }, \
        [](std::int64_t a, std::int64_t b) -> std::int64_t { return expression; }
#define WHOLE(expression) nullptr, [](std::int64_t a, std::int64_t b) -> std::int64_t { return expression; }
#define ALL(expression) SAME(expression), [](CLD a, CLD b) -> CLD { return expression ? 1.0L : 0.0L; }
    static const std::map<std::string, BinaryReference> rows = {
        {"pow",
         {[](LD a, LD b) -> LD { return std::pow(a, b); },
          [](std::int64_t a, std::int64_t b) -> std::int64_t {
              std::int64_t power = b >= 0 || a == 1 ? 1 : (a == -1 ? (b % 2 == 0 ? 1 : -1) : 0);
              for (; b > 0; --b) {
                  power = static_cast<std::int64_t>(static_cast<std::uint64_t>(power) * static_cast<std::uint64_t>(a));
              }
              return power;
          },
          [](CLD a, CLD b) { return b == CLD(0)   ? CLD(1)
                                    : a == CLD(0) ? CLD(0)
                                                  : std::pow(a, b); }}},
        {"atan2", {[](LD a, LD b) -> LD { return std::atan2(a, b); }, nullptr}},
        {"fmod",
         {[](LD a, LD b) -> LD { return std::fmod(a, b); },
          [](std::int64_t a, std::int64_t b) { return b == 0 ? 0 : a % b; }}},
        {"remainder",
         {[](LD a, LD b) -> LD {
              const LD rest = std::fmod(a, b);
              return rest == 0 ? std::copysign(rest, b) : (rest < 0) != (b < 0) ? rest + b : rest;
          },
          [](std::int64_t a, std::int64_t b) { return b == 0 ? 0 : ((a % b) + b) % b; }}},
        {"maximum",
         {[](LD a, LD b) -> LD { return std::isnan(a) || std::isnan(b) ? NAN : std::max(a, b); },
          [](std::int64_t a, std::int64_t b) { return std::max(a, b); }}},
        {"minimum",
         {[](LD a, LD b) -> LD { return std::isnan(a) || std::isnan(b) ? NAN : std::min(a, b); },
          [](std::int64_t a, std::int64_t b) { return std::min(a, b); }}},
        {"equal", {ALL(a == b)}},
        {"not_equal", {ALL(a != b)}},
        {"logical_and", {ALL((a != decltype(a)(0) && b != decltype(b)(0)))}},
        {"logical_or", {ALL((a != decltype(a)(0) || b != decltype(b)(0)))}},
        {"logical_xor", {ALL(((a != decltype(a)(0)) != (b != decltype(b)(0))))}},
        {"greater", {SAME(a > b)}},
        {"greater_equal", {SAME(a >= b)}},
        {"less", {SAME(a < b)}},
        {"less_equal", {SAME(a <= b)}},
        {"bitwise_and", {WHOLE(a & b)}},
        {"bitwise_or", {WHOLE(a | b)}},
        {"bitwise_xor", {WHOLE(a ^ b)}},
        {"left_shift", {WHOLE(b < 0 || b > 63 ? 0 : a * (std::int64_t{1} << b))}},
        {"right_shift", {WHOLE(b < 0 || b > 62 ? (a < 0 ? -1 : 0) : a >> b)}},
    };
#undef SAME
#undef WHOLE
#undef ALL
    return rows;
}

/// Visits every row of the table; one without a reference is a failure.
template <typename Operation, typename References, typename Visit>
void for_each_row(const References& references, const Visit& visit) {
    ASSERT_EQ(references.size(), static_cast<std::size_t>(Operation::count));
    for (int i = 0; i < static_cast<int>(Operation::count); ++i) {
        const Row& row = operations::row_of(static_cast<Operation>(i));
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(references.contains(row.name));
        visit(static_cast<Operation>(i), row, references.at(row.name));
    }
}

/// Compares a gradient with central differences of function(i, step) along the real and imaginary axes.
template <typename Function>
void expect_gradient(const TensorPtr& result, const std::vector<CLD>& grad, const Function& function) {
    const bool complex = result->Dtype() >= dtype::complex64;
    const bool single = result->Dtype() == dtype::float32 || result->Dtype() == dtype::complex64;
    const std::vector<CLD> got = wide_values(result.get());
    for (std::size_t i = 0; i < got.size(); ++i) {
        const auto along = [&](CLD step) {
            return (std::conj(grad[i]) * (function(i, step) - function(i, -step))).real() / 2e-5L;
        };
        const CLD exact(along(1e-5L), complex ? along(CLD(0, 1e-5L)) : 0);
        ASSERT_LE(std::abs(got[i] - exact), (single ? 2e-6L : 1e-8L) * (1 + std::abs(exact))) << "element " << i;
    }
}

}  // namespace ornik::test
