// reference.h: reductions by plain loops over values in row-major order.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {

inline constexpr double inf = std::numeric_limits<double>::infinity();
inline constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

/// For each position of the kept axes, in row-major order, the flat places of the elements reduced there.
inline std::vector<std::vector<std::size_t>> groups(const Dims& shape, const std::vector<int>& axes) {
    std::vector<bool> reduced(shape.size(), axes.empty());
    for (const int axis : axes) {
        reduced[static_cast<std::size_t>(axis < 0 ? axis + static_cast<int>(shape.size()) : axis)] = true;
    }
    Dims strides(shape.size());
    std::int64_t outputs = 1;
    for (std::size_t i = shape.size(); i-- > 0;) {
        strides[i] = reduced[i] ? 0 : outputs;
        outputs *= reduced[i] ? 1 : shape[i];
    }
    std::vector<std::vector<std::size_t>> result(static_cast<std::size_t>(outputs));
    std::size_t flat = 0;
    for_each_offset(shape, strides, [&](std::int64_t at) { result[static_cast<std::size_t>(at)].push_back(flat++); });
    return result;
}

inline std::vector<double> random_doubles(std::int64_t n, unsigned seed, double low = -2, double high = 2) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> distribution(low, high);
    std::vector<double> values(static_cast<std::size_t>(n));
    std::generate(values.begin(), values.end(), [&] { return distribution(random); });
    return values;
}

using Values = std::vector<double>;
using Index = std::vector<std::int64_t>;

inline TensorPtr index_of(const Dims& shape, const Index& values, Layout layout = Layout::contiguous) {
    return make<std::int64_t>(shape, values, layout);
}
using RealTypes = TypeList<bool, std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t, float, double>;

/// Whole numbers around 0 (from 0 for unsigned types), many of them equal.
template <typename T>
std::vector<T> small_numbers(std::int64_t n, unsigned seed) {
    std::vector<T> values;
    for (const double value : random_doubles(n, seed, -2.4, 2.4)) {
        values.push_back(static_cast<T>(std::is_unsigned_v<T> ? std::round(std::abs(value)) : std::round(value)));
    }
    return values;
}

inline void expect_close(const std::vector<double>& got, const std::vector<double>& expected, double tolerance,
                         const std::string& name) {
    ASSERT_EQ(got.size(), expected.size()) << name;
    for (std::size_t i = 0; i < got.size(); ++i) {
        const bool alike = got[i] == expected[i] || (std::isnan(got[i]) && std::isnan(expected[i]));
        ASSERT_TRUE(alike || std::abs(got[i] - expected[i]) <= tolerance * (1 + std::abs(expected[i])))
            << name << ", element " << i << ": " << got[i] << " instead of " << expected[i];
    }
}

/// The gradient of x against central differences of sum(g f(x)); float64, and not all zero.
template <typename Function>
void expect_central_differences(const Function& f, const TensorPtr& x, const TensorPtr& g, const TensorPtr& gradient,
                                const std::string& name) {
    SCOPED_TRACE(name);
    expect_gradient([&](Tensor* t) { return TensorPtr(f(t)); }, x.get(), g.get(), gradient.get(), 1e-5, 1);
    const std::vector<double> values = values_of<double>(gradient);
    EXPECT_TRUE(std::any_of(values.begin(), values.end(), [](double d) { return d != 0; }));
}

}  // namespace ornik::test
