// Distributions: exact values where the engine's words decide, statistics with fixed seeds elsewhere.
#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <random>

#include "hardware/thread_config.h"
#include "random/generator.h"
#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using Values = std::vector<double>;

// The values of a new tensor, each part of a complex number by itself.
Values drawn(Tensor* made) {
    const TensorPtr t(made);
    const TensorPtr wide(t->astype(t->isComplexType() ? dtype::complex128 : dtype::float64));
    const auto* data = static_cast<const double*>(wide->getRawData());
    return {data, data + wide->Size() * (t->isComplexType() ? 2 : 1)};
}

// Mean, deviation and correlations of neighbours (of values and of squares) within 4 standard errors, and the
// distance of Kolmogorov and Smirnov below its 99.9 % point.
void expect_distribution(Values x, double mean, double deviation, double fourth_moment,
                         const std::function<double(double)>& cdf, const std::string& name) {
    const auto n = static_cast<double>(x.size());
    double sum = 0, squares = 0, neighbours[3] = {}, square_neighbours = 0;
    for (double& value : x) {
        value = (value - mean) / deviation;
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
        sum += x[i];
        squares += x[i] * x[i];
        for (std::size_t lag = 1; lag <= 3 && lag <= i; ++lag) {
            neighbours[lag - 1] += x[i] * x[i - lag];
        }
        square_neighbours += i > 0 ? (x[i] * x[i] - 1) * (x[i - 1] * x[i - 1] - 1) : 0;
    }
    EXPECT_LT(std::fabs(sum), 4 * std::sqrt(n)) << name;
    EXPECT_LT(std::fabs(squares - n), 4 * std::sqrt(n * (fourth_moment - 1))) << name;
    for (const double product : neighbours) {
        EXPECT_LT(std::fabs(product), 4 * std::sqrt(n)) << name;
    }
    EXPECT_LT(std::fabs(square_neighbours), 4 * std::sqrt(n) * (fourth_moment - 1)) << name;
    std::sort(x.begin(), x.end());
    double distance = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double at = cdf(x[i]);
        distance = std::max({distance, at - static_cast<double>(i) / n, static_cast<double>(i + 1) / n - at});
    }
    EXPECT_LT(distance * std::sqrt(n), 1.95) << name;
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
        const std::int64_t n = 400000;
        const bool complex = dtype >= dtype::complex64;
        const double part = complex ? 3 / std::numbers::sqrt2 : 3;
        Values x = drawn(Tensor::randn({n}, complex ? 0 : -2, 3, 0, dtype));
        EXPECT_EQ(x.size(), static_cast<std::size_t>(complex ? 2 * n : n));
        expect_distribution(x, complex ? 0 : -2, part, 3, normal_cdf, "normal " + dtype_name(dtype));
        x = drawn(Tensor::randu({n}, -1, 5, 0, dtype));
        EXPECT_TRUE(std::all_of(x.begin(), x.end(), [](double v) { return v >= -1 && v < 5; }));
        const double root3 = std::sqrt(3.0);
        expect_distribution(
            x, 2, root3, 1.8, [=](double v) { return (v / root3 + 1) / 2; }, "uniform " + dtype_name(dtype));
    }
    const Values z = drawn(Tensor::randn({200000}, 7, 1, 0, dtype::complex64));
    double sums[2] = {};
    for (std::size_t i = 0; i < z.size(); ++i) {
        sums[i % 2] += z[i] / 200000;
    }
    EXPECT_NEAR(sums[0], 7, 0.01);
    EXPECT_NEAR(sums[1], 0, 0.01);
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
    const std::int64_t third = std::int64_t{3} << 61;  // Words beyond a multiple of the range are drawn again.
    expect_frequencies(
        {{0, 1.0 / 3}, {1, 1.0 / 3}, {2, 1.0 / 3}},
        [&] {
            Values x = drawn(Tensor::randint({90000}, 0, third, 0, dtype::int64));
            for (double& v : x) {
                v = std::floor(v * 0x1p-61);
            }
            return x;
        }(),
        "wide randint");
    EXPECT_EQ(drawn(Tensor::randint({2}, -128, -127, 0, dtype::int8)), (Values{-128, -128}));
    std::map<std::int64_t, double> orders;
    Values found;
    std::array<int, 4> order{0, 1, 2, 3};
    do {
        orders[order[0] * 64 + order[1] * 16 + order[2] * 4 + order[3]] = 1.0 / 24;
    } while (std::next_permutation(order.begin(), order.end()));
    for (int i = 0; i < 5000; ++i) {
        const Values x = drawn(Tensor::permutation(4, 0, dtype::uint8));
        found.push_back(x[0] * 64 + x[1] * 16 + x[2] * 4 + x[3]);
    }
    expect_frequencies(orders, found, "permutation");
    EXPECT_EQ(drawn(Tensor::permutation(1, 0, dtype::int64)), Values{0});
}

TEST(Distributions, Categories) {
    set_random_seed(41);
    const double weights[2][4] = {{1, 0, 3, 6}, {2, 2, 4, 0}};
    const TensorPtr probs = make<double>({2, 4}, {1, 0, 3, 6, 2, 2, 4, 0}, Layout::transposed);
    const Values x = drawn(Tensor::multinomial(probs.get(), 50000));
    std::map<std::int64_t, double> pairs[2];
    Values found[2];
    for (int i = 0; i < 40000; ++i) {
        const Values two = drawn(Tensor::multinomial(probs.get(), 2, false));
        found[0].push_back(two[0] * 4 + two[1]);
        found[1].push_back(two[2] * 4 + two[3]);
    }
    for (int row = 0; row < 2; ++row) {
        const double sum = row == 0 ? 10 : 8;
        std::map<std::int64_t, double> single;
        for (int i = 0; i < 4; ++i) {
            const double share = weights[row][i] / sum;
            if (share > 0) {
                single[i] = share;
            }
            for (int j = 0; j < 4; ++j) {
                if (i != j && share * weights[row][j] > 0) {
                    pairs[row][i * 4 + j] = share * weights[row][j] / (sum - weights[row][i]);
                }
            }
        }
        expect_frequencies(single, Values(x.begin() + row * 50000, x.begin() + (row + 1) * 50000), "multinomial");
        expect_frequencies(pairs[row], found[row], "multinomial without replacement");
    }
    const TensorPtr all(Tensor::multinomial(make<float>({4}, {0, 1e-30F, 5, 1}).get(), 3, false));
    EXPECT_EQ(all->Shape(), Dims{3});
    EXPECT_EQ(all->Dtype(), dtype::int64);
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
        std::function<Tensor*()> draw;
    };
    const auto fill = [&](std::int64_t dtype, Layout layout, auto method, auto... arguments) {
        TensorPtr t = make_empty(shape, dtype, layout);
        (t.get()->*method)(arguments...);
        return t.release();
    };
    std::vector<Row> rows;
    for (const Layout layout : all_layouts) {
        rows.push_back({9781402851091983238U,
                        [=] { return fill(dtype::float32, layout, &Tensor::fill_rand_normal_inplace, 1, 2, true); }});
        rows.push_back({10644574715426081975U, [=] {
                            return fill(dtype::complex128, layout, &Tensor::fill_rand_normal_inplace, 1, 2, true);
                        }});
        rows.push_back({8238520479198680391U,
                        [=] { return fill(dtype::complex64, layout, &Tensor::fill_rand_uniform_inplace, 3); }});
        rows.push_back({7119305439873755707U, [=] {
                            return fill(dtype::float64, layout, &Tensor::fill_rand_uniform_withbound_inplace, 2, 3);
                        }});
        rows.push_back({17040154225714522149U,
                        [=] { return fill(dtype::float32, layout, &Tensor::fill_rand_signed_uniform_inplace, 3); }});
        rows.push_back({986914658300762424U,
                        [=] { return fill(dtype::float32, layout, &Tensor::fill_rand_binary_inplace, 0.3); }});
    }
    rows.push_back({14995394034803666483U, [&] { return Tensor::randint(shape, -9, 1000, 0, dtype::int32); }});
    rows.push_back({8228266830735295361U, [] { return Tensor::permutation(100003, 0, dtype::int64); }});
    rows.push_back({6737789492700014401U, [&] { return Tensor::binomial(counts.get(), half.get()); }});
    rows.push_back({3918385741387746111U, [&] { return Tensor::multinomial(half.get(), 100); }});
    rows.push_back({6238034032844424082U, [&] { return Tensor::multinomial(half.get(), 100, false); }});
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            set_random_seed(static_cast<std::uint32_t>(1234));
            EXPECT_EQ(digest(TensorPtr(rows[i].draw()).get()), rows[i].digest) << "row " << i << " team " << team;
        }
    }
    ConfigSetNumThreads(4);
}

TEST(Distributions, Refusals) {
    set_random_seed(1);
    const std::int64_t f = dtype::float32, i = dtype::int32;
    const TensorPtr whole = make<std::int32_t>({2}, {1, 2}), p = make<float>({2}, {0.5, 0.5});
    const TensorPtr wide = make<double>({2}, {1, 1}), cube(Tensor::ones({1, 1, 1}, 0, f)),
                    bad = make<float>({2}, {-1, 2});
    const TensorPtr elsewhere = make<float>({2}, {1, 1}),
                    expanded(Tensor::broadcast_to(make<float>({1}, {1}).get(), {2}));
    elsewhere->updateDevice(1000);
    const double inf = INFINITY;
    const std::string range = "low should be <= high, both and their distance finite.";
    const std::string probability = "Probability should be in the range of [0, 1].";
    const std::string moments = "mean and std should be finite, std >= 0.";
    const std::string shared = "Output can not be an expanded view: shape ( 2 ) , strides ( 0 ) ";
    struct Row {
        const char* function;
        std::function<void()> call;
        std::string message;
    };
    const Row rows[] = {
        {"randu", [=] { Tensor::randu({2}, 0, 1, 0, i); }, "randu only support float or complex as dtype."},
        {"randu", [=] { Tensor::randu({2}, 2, 1, 0, f); }, range},
        {"randu", [=] { Tensor::randu({2}, -3e38, 3e38, 0, f); }, range},
        {"randn", [=] { Tensor::randn({2}, 0, 1, 0, i); }, "randn only support float or complex as dtype."},
        {"randn", [=] { Tensor::randn({2}, 0, -1, 0, f); }, moments},
        {"randint", [] { Tensor::randint({2}, 0, 1, 0, 0); }, "randint only support integer or float as dtype."},
        {"randint", [=] { Tensor::randint({2}, 3, 3, 0, i); }, "low should be < high, however low = 3, high = 3"},
        {"randint", [] { Tensor::randint({2}, 0, 129, 0, 2); }, "Numbers from 0 to 128 do not fit in numpy.int8"},
        {"permutation", [=] { Tensor::permutation(2, 0, f); }, "permutation only support integer as dtype."},
        {"permutation", [=] { Tensor::permutation(0, 0, i); }, "n should be >= 1, however it equals 0"},
        {"permutation", [] { Tensor::permutation(257, 0, 1); }, "Numbers from 0 to 256 do not fit in numpy.uint8"},
        {"dropout_mask", [=] { Tensor::dropout_mask({2}, 0.5, 0, i); },
         "dropout_mask only support float or complex as dtype."},
        {"dropout_mask", [=] { Tensor::dropout_mask({2}, 1.5, 0, f); }, probability},
        {"bernoulli", [&] { Tensor::bernoulli(whole.get()); }, "bernoulli's probs only support float as dtype."},
        {"bernoulli", [&] { Tensor::bernoulli(bad.get()); }, probability},
        {"binomial", [&] { Tensor::binomial(p.get(), elsewhere.get()); }, "binomial not compiled for gpu."},
        {"binomial", [&] { Tensor::binomial(p.get(), whole.get()); }, "binomial's probs only support float as dtype."},
        {"binomial", [&] { Tensor::binomial(elsewhere.get(), p.get()); },
         "total_count, probs not same device. convert total_count to probs device first."},
        {"binomial", [&] { Tensor::binomial(wide.get(), p.get()); },
         "total_count, probs not same dtype. convert total_count to probs dtype first."},
        {"binomial", [&] { Tensor::binomial(cube.get(), p.get()); },
         "total_count, probs not same shape. convert total_count to probs shape first."},
        {"binomial", [&] { Tensor::binomial(p.get(), p.get()); },
         "total_count should be whole numbers >= 0 that their dtype holds exactly."},
        {"multinomial", [&] { Tensor::multinomial(cube.get(), 1); }, "Multinomial input should be 1 dim or 2 dim."},
        {"multinomial", [&] { Tensor::multinomial(whole.get(), 1); },
         "multinomial() only supports floating-point dtypes for input"},
        {"multinomial", [&] { Tensor::multinomial(p.get(), 0); }, "num_samples should be >= 1, however it equals 0"},
        {"multinomial", [&] { Tensor::multinomial(bad.get(), 1); },
         "Weights of multinomial() should be finite and >= 0."},
        {"multinomial",
         [&] {
             Tensor::multinomial(TensorPtr(Tensor::zeros({2, 2}, 0, f)).get(), 1);
         },
         "Weights of multinomial() should have a finite sum > 0 in every row."},
        {"multinomial", [&] { Tensor::multinomial(p.get(), 3, false); },
         "multinomial() can not draw 3 samples without replacement from 2 categories of weight > 0."},
        {"fill_rand_normal_inplace", [&] { whole->fill_rand_normal_inplace(0, 1, true); },
         "cpu_normal_impl not support dtype\n"},
        {"fill_rand_normal_inplace", [&] { p->fill_rand_normal_inplace(inf, 1, true); }, moments},
        {"fill_rand_normal_inplace", [&] { expanded->fill_rand_normal_inplace(0, 1, true); }, shared},
        {"fill_rand_uniform_inplace", [&] { whole->fill_rand_uniform_inplace(1); },
         "cpu_uniform_impl not support dtype\n"},
        {"fill_rand_uniform_inplace", [&] { p->fill_rand_uniform_inplace(-1); }, range},
        {"fill_rand_signed_uniform_inplace", [&] { whole->fill_rand_signed_uniform_inplace(1); },
         "cpu_uniform_impl not support dtype\n"},
        {"fill_rand_uniform_withbound_inplace", [&] { p->fill_rand_uniform_withbound_inplace(0, NAN); }, range},
        {"fill_rand_binary_inplace", [&] { whole->fill_rand_binary_inplace(0.5); },
         "binary_dtype_cpu_impl only support Complex or float\n"},
        {"fill_rand_binary_inplace", [&] { expanded->fill_rand_binary_inplace(0.5); }, shared},
    };
    for (const Row& row : rows) {
        expect_error(row.call, row.message, "ornik::Tensor::" + std::string(row.function),
                     "src/tensor/tensor_random.cpp");
    }
    EXPECT_EQ(generator::default_generator()->counter(), 0U);
    EXPECT_EQ(values_of<float>(p), (std::vector<float>{0.5, 0.5}));
}

}  // namespace
}  // namespace ornik::test
