// reference.h: reductions by plain loops over values in row-major order.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "hardware/thread_config.h"
#include "support/expect_error.h"
#include "support/tensors.h"

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

/// Elements of any real tensor as doubles.
inline std::vector<double> doubles_of(const Tensor* t) {
    const TensorPtr wide(t->Size() > 0 ? t->astype(dtype::float64) : nullptr);
    return wide ? values_of<double>(wide) : std::vector<double>{};
}

inline std::vector<double> random_doubles(std::int64_t n, unsigned seed, double low = -2, double high = 2) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> distribution(low, high);
    std::vector<double> values(static_cast<std::size_t>(n));
    std::generate(values.begin(), values.end(), [&] { return distribution(random); });
    return values;
}

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

/// The gradient of x by central differences of sum(g f(x)) against `gradient`; float64.
template <typename Function>
void expect_central_differences(const Function& f, const TensorPtr& x, const TensorPtr& g, const TensorPtr& gradient,
                                const std::string& name) {
    const std::vector<double> weights = values_of<double>(g);
    const auto loss = [&] {
        const std::vector<double> y = values_of<double>(TensorPtr(f(x.get())));
        EXPECT_EQ(y.size(), weights.size()) << name;
        double total = 0;
        for (std::size_t i = 0; i < y.size(); ++i) {
            total += y[i] * weights[i];
        }
        return total;
    };
    constexpr double h = 1e-5;
    std::vector<double> differences;
    double* data = static_cast<double*>(x->getRawData());
    for_each_offset(x->Shape(), x->Strides(), [&](std::int64_t at) {
        const double value = data[at];
        data[at] = value + h;
        const double above = loss();
        data[at] = value - h;
        differences.push_back((above - loss()) / (2 * h));
        data[at] = value;
    });
    EXPECT_EQ(gradient->Shape(), x->Shape()) << name;
    expect_close(values_of<double>(gradient), differences, 1e-7, name);
    EXPECT_TRUE(std::any_of(differences.begin(), differences.end(), [](double d) { return d != 0; })) << name;
}

/// compute() gives the same bytes under teams of 1, 2, 4 and 7.
template <typename Compute>
void expect_same_bits(const Compute& compute, const std::string& name) {
    std::string first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        const TensorPtr result(compute());
        const std::string bytes(static_cast<const char*>(result->getRawData()),
                                static_cast<std::size_t>(result->Size() * result->itemsize()));
        EXPECT_TRUE(first.empty() || first == bytes) << name << ", team of " << team;
        first = bytes;
    }
    ConfigSetNumThreads(4);
}

}  // namespace ornik::test
