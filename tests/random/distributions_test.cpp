// Distributions: exact values where the engine's words decide, statistics with fixed seeds elsewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <random>

#include "hardware/thread_config.h"
#include "random/generator.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using Values = std::vector<double>;

// The values of a new tensor, each part of a complex number by itself.
Values drawn(Tensor* made) {
    const TensorPtr t(made), wide(t->astype(t->isComplexType() ? dtype::complex128 : dtype::float64));
    const auto* data = static_cast<const double*>(wide->getRawData());
    return {data, data + wide->Size() * (t->isComplexType() ? 2 : 1)};
}

// Of values with mean 0: mean, deviation and correlations of neighbours (values and squares) within 4 standard
// errors, and the distance of Kolmogorov and Smirnov below its 99.9 % point.
void expect_distribution(Values x, double deviation, double fourth_moment, const std::function<double(double)>& cdf,
                         const std::string& name) {
    const auto n = static_cast<double>(x.size());
    double sum = 0, squares = 0, neighbours[3] = {}, neighbour_squares = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        x[i] /= deviation;
        sum += x[i];
        squares += x[i] * x[i] - 1;
        for (std::size_t lag = 1; lag <= 3 && lag <= i; ++lag) {
            neighbours[lag - 1] += x[i] * x[i - lag];
        }
        neighbour_squares += i > 0 ? (x[i] * x[i] - 1) * (x[i - 1] * x[i - 1] - 1) : 0;
    }
    for (const double total : {sum, squares / std::sqrt(fourth_moment - 1), neighbours[0], neighbours[1], neighbours[2],
                               neighbour_squares / (fourth_moment - 1)}) {
        EXPECT_LT(std::fabs(total), 4 * std::sqrt(n)) << name;
    }
    std::sort(x.begin(), x.end());
    double distance = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double at = cdf(x[i]) * n - static_cast<double>(i);
        distance = std::max({distance, at, 1 - at});
    }
    EXPECT_LT(distance, 1.95 * std::sqrt(n)) << name;
}

// Chi-square within 4 deviations of its mean; cells that expect fewer than 10 are joined to the next.
void expect_frequencies(const std::map<std::int64_t, double>& probabilities, const Values& x, const std::string& name) {
    std::map<std::int64_t, double> seen;
    for (const double value : x) {
        ASSERT_TRUE(probabilities.contains(static_cast<std::int64_t>(value))) << name << ": " << value;
        seen[static_cast<std::int64_t>(value)] += 1;
    }
    double chi_square = 0, expected = 0, found = 0, cells = 0;
    for (const auto& [value, probability] : probabilities) {
        expected += probability * static_cast<double>(x.size());
        found += seen[value];
        if (expected >= 10) {
            chi_square += (found - expected) * (found - expected) / expected;
            cells += 1;
            expected = found = 0;
        }
    }
    EXPECT_GE(cells, 2) << name;
    EXPECT_LT(std::fabs(chi_square - (cells - 1)), 4 * std::sqrt(2 * (cells - 1)) + 4) << name;
}

double normal_cdf(double x) { return std::erfc(-x / std::numbers::sqrt2) / 2; }

TEST(Distributions, NormalAndUniform) {
    set_random_seed(2024);
    for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
        const bool complex = dtype >= dtype::complex64;
        Values x = drawn(Tensor::randn({400000}, -2, 3, 0, dtype));
        for (std::size_t i = 0; i < x.size(); ++i) {
            x[i] += complex && i % 2 == 1 ? 0 : 2;  // The mean is real.
        }
        EXPECT_EQ(x.size(), complex ? 800000U : 400000U);
        expect_distribution(x, complex ? 3 / std::numbers::sqrt2 : 3, 3, normal_cdf, "normal " + dtype_name(dtype));
        x = drawn(Tensor::randu({400000}, -1, 1, 0, dtype));
        EXPECT_TRUE(std::all_of(x.begin(), x.end(), [](double v) { return v >= -1 && v < 1; }));
        const auto cdf = [](double v) { return (v / std::sqrt(3.0) + 1) / 2; };
        expect_distribution(x, 1 / std::sqrt(3.0), 1.8, cdf, "uniform " + dtype_name(dtype));
    }
}

TEST(Distributions, NormalTails) {
    set_random_seed(5);
    for_types(TypeList<float, double>{}, []<typename T>() {
        const TensorPtr t(Tensor::randn({17, 1000000}, 0, 1, 0, dtype_code<T>));
        const T* const x = static_cast<const T*>(t->getRawData());
        double beyond[2][11] = {};  // [side][half deviations]
        for (std::int64_t i = 0; i < t->Size(); ++i) {
            for (int k = 6; k <= 10 && std::abs(x[i]) > T(k) / 2; ++k) {
                ++beyond[x[i] > 0][k];
            }
        }
        for (int k = 6; k <= 10; ++k) {
            const double expected = static_cast<double>(t->Size()) * normal_cdf(-0.5 * k);
            for (const auto& side : beyond) {
                EXPECT_LT(std::fabs(side[k] - expected), 4 * std::sqrt(expected)) << sizeof(T) << " bytes, " << k;
            }
        }
    });
}

TEST(Distributions, AreFunctionsOfTheEnginesWords) {
    std::seed_seq sequence{7U};
    std::mt19937_64 engine(sequence);
    const std::uint64_t words[] = {engine(), engine()};
    const auto low = [&](int i) { return static_cast<double>(words[i] & 0xffffffffU); };
    const auto high = [&](int i) { return static_cast<double>(words[i] >> 32); };
    const auto again = [](const auto& make) {
        set_random_seed(7);
        return drawn(make());
    };
    EXPECT_EQ(again([] { return Tensor::randu({3}, 0, 1, 0, dtype::float32); }),
              (Values{std::floor(low(0) / 256) * 0x1p-24, std::floor(high(0) / 256) * 0x1p-24,
                      std::floor(low(1) / 256) * 0x1p-24}));
    EXPECT_EQ(again([] { return Tensor::randu({2}, 0, 1, 0, dtype::float64); }),
              (Values{static_cast<double>(words[0] >> 11) * 0x1p-53, static_cast<double>(words[1] >> 11) * 0x1p-53}));
    const auto expect_pair = [](const Values& x, std::size_t at, double u, double turn, double tolerance) {
        const double angle = 2 * std::numbers::pi * (turn - 0.125);
        EXPECT_NEAR(x[at], std::sqrt(-2 * std::log(u)) * std::cos(angle), tolerance);
        EXPECT_NEAR(x[at + 1], std::sqrt(-2 * std::log(u)) * std::sin(angle), tolerance);
    };
    const Values narrow = again([] { return Tensor::randn({4}, 0, 1, 0, dtype::float32); });
    expect_pair(narrow, 0, (low(0) + 0.5) * 0x1p-32, high(0) * 0x1p-32, 1e-6);
    expect_pair(narrow, 2, (low(1) + 0.5) * 0x1p-32, high(1) * 0x1p-32, 1e-6);
    const Values wide = again([] { return Tensor::randn({2}, 0, 1, 0, dtype::float64); });
    expect_pair(wide, 0, static_cast<double>(words[0]) * 0x1p-64, static_cast<double>(words[1]) * 0x1p-64, 2e-15);
}

TEST(Distributions, HalfAPairIsKeptUntilReseeding) {
    const auto normals = [](std::int64_t n) { return drawn(Tensor::randn({n}, 1, 2, 0, dtype::float32)); };
    const auto common = generator::default_generator();
    set_random_seed(3);
    const Values six = normals(6);
    set_random_seed(3);
    Values x = normals(3);
    EXPECT_TRUE(common->has_cached_value());
    const TensorPtr t = make_empty({1}, dtype::float32);
    t->fill_rand_normal_inplace(1, 2, false);
    EXPECT_EQ(common->counter(), 3U);
    EXPECT_EQ(x, (Values{six[0], six[1], six[2]}));
    x = normals(2);
    EXPECT_EQ(x[0], six[3]);
    EXPECT_TRUE(common->has_cached_value());
    set_random_seed(3);
    EXPECT_FALSE(common->has_cached_value());
    EXPECT_EQ(normals(6), six);
    // With a cached part in front, real and imaginary parts still get their own means.
    normals(1);
    x = drawn(Tensor::randn({1}, 1000, 1, 0, dtype::complex64));
    EXPECT_TRUE(x[0] > 900 && std::fabs(x[1]) < 100);
}

TEST(Distributions, Counts) {
    set_random_seed(99);
    const auto filled = [](const Dims& shape, double value, std::int64_t dtype) {
        TensorPtr t = make_empty(shape, dtype, Layout::transposed);
        t->fill_(value);
        return t;
    };
    for (const auto& [n, p] :
         {std::pair{1, 0.25}, {7, 0.4}, {40, 0.1}, {40, 0.85}, {30, 0.5}, {1000, 0.013}, {5000, 0.7}}) {
        for (const std::int64_t dtype : {dtype::float32, dtype::float64}) {
            const double q = dtype == dtype::float32 ? static_cast<double>(static_cast<float>(p)) : p;
            std::map<std::int64_t, double> probabilities;
            for (int k = 0; k <= n; ++k) {
                probabilities[k] = std::exp(std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1) +
                                            k * std::log(q) + (n - k) * std::log1p(-q));
            }
            const Dims shape{100, 2000};
            const Values x = drawn(Tensor::binomial(filled(shape, n, dtype).get(), filled(shape, p, dtype).get()));
            expect_frequencies(probabilities, x, "binomial " + std::to_string(n) + " " + std::to_string(p));
        }
    }
    EXPECT_EQ(drawn(Tensor::binomial(make<double>({3}, {9, 9, 0}).get(), make<double>({3}, {0, 1, 0.5}).get())),
              (Values{0, 9, 0}));
    EXPECT_EQ(drawn(Tensor::bernoulli(make<float>({2}, {0, 1}).get())), (Values{0, 1}));
    const std::map<std::int64_t, double> coin = {{0, 0.7}, {1, 0.3}};
    for (const std::int64_t dtype : {dtype::float32, dtype::float64}) {
        const TensorPtr t = filled({500, 300}, 0.3, dtype);
        expect_frequencies(coin, drawn(Tensor::bernoulli(t.get())), "bernoulli");
        t->fill_rand_binary_inplace(0.3);
        expect_frequencies(coin, drawn(t->clone()), "binary");
        expect_frequencies({{0, 0.75}, {4, 0.25}}, drawn(Tensor::dropout_mask({100000}, 0.75, 0, dtype)), "dropout");
        EXPECT_EQ(drawn(Tensor::dropout_mask({2}, 0, 0, dtype)), (Values{1, 1}));
        EXPECT_EQ(drawn(Tensor::dropout_mask({2}, 1, 0, dtype)), (Values{0, 0}));
    }
    std::map<std::int64_t, double> faces;
    for (int i = -50; i < 50; ++i) {
        faces[i] = 0.01;
    }
    for (const std::int64_t dtype : {dtype::int8, dtype::int64, dtype::float32}) {
        expect_frequencies(faces, drawn(Tensor::randint({100000}, -50, 50, 0, dtype)), "randint");
    }
    // Words beyond a multiple of a wide range are drawn again.
    Values x = drawn(Tensor::randint({90000}, 0, std::int64_t{3} << 61, 0, dtype::int64));
    std::transform(x.begin(), x.end(), x.begin(), [](double v) { return std::floor(v * 0x1p-61); });
    expect_frequencies({{0, 1.0 / 3}, {1, 1.0 / 3}, {2, 1.0 / 3}}, x, "wide randint");
    EXPECT_EQ(drawn(Tensor::randint({2}, -128, -127, 0, dtype::int8)), (Values{-128, -128}));
    std::map<std::int64_t, double> pairs;
    x.clear();
    for (int i = 0; i < 5000; ++i) {
        Values p = drawn(Tensor::permutation(4, 0, dtype::uint8));
        pairs[i % 4 * 4 + (i % 4 + 1 + i / 4 % 3) % 4] = 1.0 / 12;
        x.push_back(p[0] * 4 + p[1]);
        std::sort(p.begin(), p.end());
        ASSERT_EQ(p, (Values{0, 1, 2, 3}));
    }
    expect_frequencies(pairs, x, "permutation");
    EXPECT_EQ(drawn(Tensor::permutation(1, 0, dtype::int64)), Values{0});
}

TEST(Distributions, Categories) {
    set_random_seed(41);
    const double weights[2][4] = {{0.1, 0, 0.3, 0.6}, {0.25, 0.25, 0.5, 0}};
    const TensorPtr probs = make<double>({2, 4}, {1, 0, 3, 6, 2, 2, 4, 0}, Layout::transposed);
    const Values single = drawn(Tensor::multinomial(probs.get(), 50000));
    for (int row = 0; row < 2; ++row) {
        std::map<std::int64_t, double> singles, pairs;
        for (int i = 0; i < 16; ++i) {
            const double first = weights[row][i / 4], second = weights[row][i % 4];
            if (first > 0) {
                singles[i / 4] = first;
            }
            if (i / 4 != i % 4 && first * second > 0) {
                pairs[i] = first * second / (1 - first);
            }
        }
        expect_frequencies(singles, Values(single.begin() + row * 50000, single.begin() + (row + 1) * 50000), "one");
        Values two;
        for (int i = 0; i < 20000; ++i) {
            const Values x = drawn(Tensor::multinomial(probs.get(), 2, false));
            two.push_back(x[2 * row] * 4 + x[2 * row + 1]);
        }
        expect_frequencies(pairs, two, "two without replacement");
    }
    const TensorPtr all(Tensor::multinomial(make<float>({4}, {0, 1e-30F, 5, 1}).get(), 3, false));
    EXPECT_EQ(all->Shape(), Dims{3});
    EXPECT_EQ(values_of<std::int64_t>(all)[2], 1);
}

// Bytes as one number (FNV-1a).
std::uint64_t digest(const Tensor* t) {
    const TensorPtr dense(t->clone());
    std::uint64_t hash = 14695981039346656037U;
    const auto* bytes = static_cast<const unsigned char*>(dense->getRawData());
    for (std::int64_t i = 0; i < dense->Size() * dense->itemsize(); ++i) {
        hash = (hash ^ bytes[i]) * 1099511628211U;
    }
    return hash;
}

TEST(Distributions, SameBitsForEveryTeamLayoutAndBuild) {
    const Dims shape{401, 251};
    const TensorPtr half = make_empty(shape, dtype::float64), counts = make_empty(shape, dtype::float64);
    half->fill_(0.375);
    counts->fill_(90);
    struct Row {
        std::uint64_t digest;
        std::int64_t dtype;
        std::function<void(Tensor*)> fill;
    };
    const Row rows[] = {
        {9781402851091983238U, dtype::float32, [](Tensor* t) { t->fill_rand_normal_inplace(1, 2, true); }},
        {10644574715426081975U, dtype::complex128, [](Tensor* t) { t->fill_rand_normal_inplace(1, 2, true); }},
        {8238520479198680391U, dtype::complex64, [](Tensor* t) { t->fill_rand_uniform_inplace(3); }},
        {7119305439873755707U, dtype::float64, [](Tensor* t) { t->fill_rand_uniform_withbound_inplace(2, 3); }},
        {17040154225714522149U, dtype::float32, [](Tensor* t) { t->fill_rand_signed_uniform_inplace(3); }},
        {986914658300762424U, dtype::float32, [](Tensor* t) { t->fill_rand_binary_inplace(0.3); }},
    };
    const std::pair<std::uint64_t, std::function<Tensor*()>> draws[] = {
        {14995394034803666483U, [&] { return Tensor::randint(shape, -9, 1000, 0, dtype::int32); }},
        {8228266830735295361U, [] { return Tensor::permutation(100003, 0, dtype::int64); }},
        {6737789492700014401U, [&] { return Tensor::binomial(counts.get(), half.get()); }},
        {3918385741387746111U, [&] { return Tensor::multinomial(half.get(), 100); }},
        {6238034032844424082U, [&] { return Tensor::multinomial(half.get(), 100, false); }},
    };
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        for (const Layout layout : all_layouts) {
            for (const Row& row : rows) {
                const TensorPtr t = make_empty(shape, row.dtype, layout);
                set_random_seed(1234);
                row.fill(t.get());
                EXPECT_EQ(digest(t.get()), row.digest) << &row - rows << " " << name_of(layout) << " " << team;
            }
        }
        for (const auto& [expected, draw] : draws) {
            set_random_seed(1234);
            EXPECT_EQ(digest(TensorPtr(draw()).get()), expected) << team;
        }
    }
    ConfigSetNumThreads(4);
}

TEST(Distributions, RefusedAndEmptyCallsDrawNothing) {
    using T = Tensor;
    set_random_seed(1);
    const TensorPtr p = make<float>({2}, {0.5, 0.5}), zero(T::zeros({2, 2}, 0, dtype::float32));
    EXPECT_THROW(T::binomial(p.get(), p.get()), Error);
    EXPECT_THROW(T::multinomial(zero.get(), 1), Error);
    EXPECT_THROW(T::multinomial(p.get(), 3, false), Error);
    EXPECT_THROW(T::randint({2}, 0, 129, 0, dtype::int8), Error);
    const TensorPtr none(share_storage_tensor(p->getStorage(), {0, 3}, {3, 1}, dtype::float32, 0));
    none->fill_rand_normal_inplace(0, 1, true);
    EXPECT_EQ(generator::default_generator()->counter(), 0U);
    EXPECT_EQ(values_of<float>(p), (std::vector<float>{0.5, 0.5}));
    EXPECT_EQ(drawn(T::randn({}, 0, 1, 0, dtype::float32)).size(), 1U);
}

}  // namespace
}  // namespace ornik::test
