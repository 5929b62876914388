// elements.h: the promotion rules in words, and element arithmetic with nothing but built-in operators.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "support/tensors.h"

namespace ornik::test {

template <typename T>
inline constexpr bool is_complex = requires(T z) {
    z.imag;
};

template <typename... Ts>
std::tuple<Ts...> tuple_of(TypeList<Ts...>);
template <std::int64_t Code>
using TypeAt = std::tuple_element_t<static_cast<std::size_t>(Code), decltype(tuple_of(AllTypes{}))>;

/// bool < integer < floating < complex.
constexpr int kind_of(std::int64_t dtype) {
    return dtype == dtype::boolean ? 0 : dtype < dtype::float32 ? 1 : dtype < dtype::complex64 ? 2 : 3;
}

/// Two tensors: the smallest type that holds the values of both, a float holding every integer.
constexpr std::int64_t sum_rule(std::int64_t a, std::int64_t b) {
    const std::int64_t high = std::max(a, b);
    const std::int64_t low = std::min(a, b);
    if (low == dtype::uint8 && high == dtype::int8) {
        return dtype::int16;
    }
    return low == dtype::float64 && high == dtype::complex64 ? dtype::complex128 : high;
}
constexpr std::int64_t at_least_float(std::int64_t dtype) { return std::max(dtype, dtype::float32); }

/// A tensor and a scalar: the scalar counts where it is of a higher kind, or of more precision among
/// floating or complex types.
constexpr std::int64_t scalar_rule(std::int64_t tensor, std::int64_t scalar) {
    if (kind_of(scalar) > kind_of(tensor)) {
        return tensor == dtype::boolean && kind_of(scalar) == 1 && scalar != dtype::uint8 ? dtype::int64 : scalar;
    }
    return kind_of(tensor) >= 2 ? std::max(tensor, scalar) : tensor;
}

/// To another type: what the language does, a complex number giving its real part or, as a truth, whether
/// it is zero.
template <typename To, typename From>
To to(From value) {
    if constexpr (is_complex<To>) {
        using Part = decltype(To::real);
        if constexpr (is_complex<From>) {
            return {static_cast<Part>(value.real), static_cast<Part>(value.imag)};
        } else {
            return {static_cast<Part>(value), 0};
        }
    } else if constexpr (is_complex<From>) {
        return static_cast<To>(value.real);
    } else {
        return static_cast<To>(value);
    }
}

enum class Op { add, sub, mult, div };
inline constexpr Op all_ops[] = {Op::add, Op::sub, Op::mult, Op::div};
inline std::string name_of(Op op) {
    constexpr const char* names[] = {"add", "sub", "mult", "div"};
    return names[static_cast<int>(op)];
}

/// a (op) b in one type. Integers run in unsigned 64 bits and are cut to size.
template <typename T>
T combine(Op op, T a, T b) {
    if constexpr (is_complex<T>) {
        const auto norm = b.real * b.real + b.imag * b.imag;
        return op == Op::add   ? T(a.real + b.real, a.imag + b.imag)
               : op == Op::sub ? T(a.real - b.real, a.imag - b.imag)
               : op == Op::mult
                   ? T(a.real * b.real - a.imag * b.imag, a.real * b.imag + a.imag * b.real)
                   : T((a.real * b.real + a.imag * b.imag) / norm, (a.imag * b.real - a.real * b.imag) / norm);
    } else {
        using Wide = std::conditional_t<std::is_integral_v<T>, std::uint64_t, T>;
        const auto x = static_cast<Wide>(a);
        const auto y = static_cast<Wide>(b);
        const Wide quotient = std::is_integral_v<T> ? Wide(0) : x / (std::is_integral_v<T> ? Wide(1) : y);
        return static_cast<T>(op == Op::add ? x + y : op == Op::sub ? x - y : op == Op::mult ? x * y : quotient);
    }
}

/// Equal, or both not a number.
template <typename T>
bool same(T a, T b) {
    if constexpr (is_complex<T>) {
        return same(a.real, b.real) && same(a.imag, b.imag);
    } else {
        return a == b || (a != a && b != b);
    }
}
template <typename T>
testing::AssertionResult same(const std::vector<T>& got, const std::vector<T>& expected) {
    if (got.size() != expected.size()) {
        return testing::AssertionFailure() << got.size() << " elements instead of " << expected.size();
    }
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (!same<T>(got[i], expected[i])) {
            return testing::AssertionFailure() << "element " << i << " differs: " << testing::PrintToString(got[i])
                                               << " instead of " << testing::PrintToString(expected[i]);
        }
    }
    return testing::AssertionSuccess();
}

/// The tensor has the values' type, and the values.
template <typename T>
void expect_values(const TensorPtr& t, const std::vector<T>& expected) {
    ASSERT_EQ(t->Dtype(), dtype_code<T>);
    EXPECT_TRUE(same(values_of<T>(t), expected));
}

template <typename To, typename From>
std::vector<To> converted(const std::vector<From>& values) {
    std::vector<To> result;
    for (const From value : values) {
        result.push_back(to<To, From>(value));
    }
    return result;
}

template <typename T>
std::vector<T> combined(Op op, const std::vector<T>& a, const std::vector<T>& b) {
    std::vector<T> result;
    for (std::size_t i = 0; i < a.size(); ++i) {
        result.push_back(combine<T>(op, a[i], b[i]));
    }
    return result;
}

/// Integers over their whole range, fractions between -8 and 8.
template <typename T>
std::vector<T> random_values(std::int64_t n, unsigned seed) {
    std::mt19937_64 random(seed);
    std::vector<T> values;
    for (std::int64_t i = 0; i < n; ++i) {
        const auto bits = static_cast<std::int64_t>(random());
        const auto fraction = [&] { return static_cast<double>(static_cast<std::int64_t>(random()) >> 20) / 1e12; };
        if constexpr (is_complex<T>) {
            values.push_back(to<T>(Complex<double>(fraction(), fraction())));
        } else if constexpr (std::is_floating_point_v<T>) {
            values.push_back(static_cast<T>(fraction()));
        } else if constexpr (std::is_same_v<T, bool>) {
            values.push_back(bits % 2 != 0);
        } else {
            values.push_back(static_cast<T>(bits >> 3));
        }
    }
    return values;
}

}  // namespace ornik::test
