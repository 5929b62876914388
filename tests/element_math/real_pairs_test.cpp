// Functions of two real numbers: values by long double and by their definitions, special values, refusals.
#include "tensor/tensor_math/real_pairs.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using LD = long double;

template <typename T>
std::string bits(T x) {
    return x != x ? "NaN" : std::string(reinterpret_cast<const char*>(&x), sizeof(T));
}

template <typename T>
std::vector<T> specials() {
    using Limits = std::numeric_limits<T>;
    std::vector<T> values{Limits::denorm_min(), Limits::min(), Limits::max(), Limits::infinity(), Limits::quiet_NaN()};
    for (const double x : {0.0, 1.0, 2.5, 7.0, 0.1, 1e9}) {
        values.push_back(static_cast<T>(x));
    }
    for (std::size_t i = 0, n = values.size(); i < n; ++i) {
        values.push_back(-values[i]);
    }
    return values;
}

// Every pair of the values in a matrix, in every layout: visit(a, b, result).
template <typename T, typename Result = T>
void for_pairs(const std::vector<T>& values, Tensor* (*function)(Tensor*, Tensor*), const auto& visit) {
    const auto n = static_cast<std::int64_t>(values.size());
    std::vector<T> left;
    std::vector<T> right;
    for (const T a : values) {
        left.insert(left.end(), values.size(), a);
        right.insert(right.end(), values.begin(), values.end());
    }
    for (const Layout layout : all_layouts) {
        SCOPED_TRACE(name_of(layout));
        const TensorPtr a = make<T>({n, n}, left, layout), b = make<T>({n, n}, right);
        const auto results = values_of<Result>(TensorPtr(function(a.get(), b.get())));
        for (std::size_t i = 0; i < results.size(); ++i) {
            SCOPED_TRACE(std::to_string(left[i]) + ", " + std::to_string(right[i]));
            visit(left[i], right[i], results[i]);
        }
    }
}

template <typename T>
void expect_near(T result, LD exact, double units) {
    if (std::isfinite(static_cast<T>(exact))) {
        const T reach = std::max(std::numeric_limits<T>::min(), std::fabs(static_cast<T>(exact)));
        EXPECT_LE(std::fabs(LD{result} - exact), units * std::numeric_limits<T>::epsilon() * LD{reach});
    } else {
        EXPECT_EQ(bits(result), bits(static_cast<T>(exact)));
    }
}

template <typename T>
void check_signs(const std::vector<T>& values, const auto& is_negative) {
    const TensorPtr row = make<T>({static_cast<std::int64_t>(values.size())}, values, Layout::reversed);
    const auto signs = values_of<bool>(TensorPtr(signbit(row.get())));
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(signs[i], is_negative(values[i]));
    }
}

template <typename T>
void check_floating() {
    const std::vector<T> values = specials<T>();
    for_pairs(values, copysign, [](T a, T b, T y) {
        EXPECT_EQ(bits(y), bits(std::signbit(a) == std::signbit(b) ? a : -a));
        EXPECT_EQ(std::signbit(y), std::signbit(b));
    });
    for_pairs(values, hypot, [](T a, T b, T y) { expect_near(y, std::hypot(LD{a}, LD{b}), 1); });
    for_pairs(values, logaddexp, [](T a, T b, T y) {
        const LD larger = std::max(LD{a}, LD{b});
        const LD exact = a != a || b != b     ? std::nanl("")
                         : std::isinf(larger) ? larger
                                              : larger + std::log1p(std::exp(std::min(LD{a}, LD{b}) - larger));
        if (std::isfinite(exact)) {
            const LD reach = std::max({LD{1}, std::fabs(LD{a}), std::fabs(exact)});
            EXPECT_LE(std::fabs(LD{y} - exact), 2 * std::numeric_limits<T>::epsilon() * reach);
        } else {
            EXPECT_EQ(bits(y), bits(static_cast<T>(exact)));
        }
    });
    for_pairs(values, nextafter, [](T a, T b, T y) {
        if (a != a || b != b) {
            EXPECT_NE(y, y);
        } else if (a == b) {
            EXPECT_EQ(bits(y), bits(b));
        } else {
            EXPECT_TRUE(a < b ? y > a && y <= b : y < a && y >= b);
            EXPECT_TRUE(LD{y} - LD{a} == 0 || T((LD{y} + LD{a}) / 2) == y || T((LD{y} + LD{a}) / 2) == a);
        }
    });
    for_pairs(values, floor_divide, [](T a, T b, T y) {
        const LD exact = std::floor(LD{a} / LD{b});
        if (std::fabs(exact) < 1 / std::numeric_limits<T>::epsilon() && std::isfinite(b)) {
            EXPECT_EQ(bits(y), bits(static_cast<T>(exact)));
        } else {
            expect_near(y, exact, 2);
        }
    });
    check_signs(values, [](T x) { return std::signbit(x); });
}

template <typename T>
void check_integers() {
    using Limits = std::numeric_limits<T>;
    std::vector<T> values{Limits::max(), Limits::min(), static_cast<T>(Limits::max() - 1)};
    for (const int x : {0, 1, 2, 3, 7, 100, -1, -3}) {
        values.push_back(static_cast<T>(x));
    }
    for_pairs(values, floor_divide, [](T a, T b, T y) {
        // The quotient of the least number by -1 wraps.
        const LD exact = b == 0 ? 0 : std::floor(static_cast<LD>(a) / static_cast<LD>(b));
        EXPECT_EQ(y, exact > static_cast<LD>(Limits::max()) ? Limits::min() : static_cast<T>(exact));
    });
    check_signs(values, [](T x) { return x < 0; });
}

TEST(RealPairs, FloatingNumbers) {
    for_types(TypeList<float, double>{}, []<typename T>() { check_floating<T>(); });
}

TEST(RealPairs, Integers) {
    using Types = TypeList<std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t>;
    for_types(Types{}, []<typename T>() { check_integers<T>(); });
}

TEST(RealPairs, ResultDtypes) {
    const TensorPtr small = make<std::int8_t>({2}, {3, 4});
    const TensorPtr large = make<std::int64_t>({2}, {4, 3});
    EXPECT_EQ(values_of<float>(TensorPtr(hypot(small.get(), small.get())))[0], std::hypot(3.0F, 3.0F));
    EXPECT_EQ(values_of<double>(TensorPtr(hypot(small.get(), large.get()))), (std::vector<double>{5, 5}));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(floor_divide(large.get(), small.get()))),
              (std::vector<std::int64_t>{1, 0}));
    const TensorPtr none = make_empty({0, 3}, dtype::float64);
    EXPECT_EQ(TensorPtr(nextafter(none.get(), none.get()))->Shape(), dims(0, 3));
}

TEST(RealPairs, Refusals) {
    const TensorPtr truth = make<bool>({2}, {true, false});
    const TensorPtr real = make<float>({2}, {1, 2}), longer = make<float>({3}, {1, 2, 3});
    const TensorPtr complex = make<Complex<float>>({2}, {{1, 2}, {3, 4}});
    EXPECT_REFUSAL(floor_divide(truth.get(), truth.get()), "floor_divide() is not supported for bool tensor.");
    EXPECT_REFUSAL(hypot(complex.get(), real.get()), "hypot() is not supported for complex64 tensor.");
    EXPECT_REFUSAL(signbit(complex.get()), "signbit() is not supported for complex64 tensor.");
    EXPECT_NE(message_of([&] { (void)copysign(real.get(), longer.get()); }), "(no error)");
}

}  // namespace
}  // namespace ornik::test
