// Fourier transforms against sums of n^2 products.
#include "tensor/tensor_math/fourier.h"

#include <cmath>
#include <limits>

#include "dense.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

// sum over j < n of x[j] e^(sign 2 pi i j k / n), with zeros behind x.
std::vector<Number> direct(const std::vector<Number>& x, std::int64_t n, int sign) {
    std::vector<Number> roots;
    for (std::int64_t j = 0; j < n; ++j) {
        const long double angle =
            2 * 3.14159265358979323846L * static_cast<long double>(j) / static_cast<long double>(n);
        roots.emplace_back(static_cast<double>(std::cos(angle)), static_cast<double>(sign * std::sin(angle)));
    }
    std::vector<Number> y(roots.size());
    for (std::int64_t k = 0; k < n; ++k) {
        for (std::int64_t j = 0; j < std::min(n, std::ssize(x)); ++j) {
            y[at(0, k, 0)] += x[at(0, j, 0)] * roots[at(0, j * k % n, 0)];
        }
    }
    return y;
}

// The n numbers of which half are given, conjugates behind them; imaginary parts that do not count are left out.
std::vector<Number> mirrored(std::vector<Number> half, std::int64_t n) {
    half.resize(static_cast<std::size_t>(n / 2 + 1));
    half[0] = half[0].real();
    if (n % 2 == 0) {
        half.back() = half.back().real();
    }
    for (std::int64_t k = n / 2 + 1; k < n; ++k) {
        half.push_back(std::conj(half[at(0, n - k, 0)]));
    }
    return half;
}

void expect_near(const TensorPtr& found, std::vector<Number> expected, double scale, double epsilon) {
    expected.resize(static_cast<std::size_t>(found->Size()));
    double size = 0;
    for (Number& z : expected) {
        z *= scale;
        size += std::norm(z);
    }
    const std::vector<Number> values = numbers(found);
    double error = 0;
    for (std::size_t k = 0; k < expected.size(); ++k) {
        error += std::norm(values[k] - expected[k]);
    }
    EXPECT_LE(std::sqrt(error), 10 * epsilon * std::sqrt(size));
}

TEST(Fourier, TransformsAreTheirSums) {
    std::vector<std::int64_t> lengths{97, 121, 169, 210, 243, 256, 257, 1000, 1001, 1009, 2048, 4099};
    for (std::int64_t n = 64; n > 0; --n) {
        lengths.push_back(n);
    }
    const auto check = []<typename Real>(std::int64_t n) {
        SCOPED_TRACE(dtype_name(dtype_code<Real>) + " " + std::to_string(n));
        const double epsilon = std::numeric_limits<Real>::epsilon();
        const TensorPtr x = random_tensor({n}, dtype_code<Complex<Real>>, 1);
        expect_near(TensorPtr(fourier(x.get(), 0, n, n, false)), direct(numbers(x), n, -1), 1, epsilon);
        expect_near(TensorPtr(fourier(x.get(), 0, n, n, true, 0.25)), direct(numbers(x), n, 1), 0.25, epsilon);
        const TensorPtr r = random_tensor({n}, dtype_code<Real>, 2);
        std::vector<Number> half = direct(numbers(r), n, -1);
        half.resize(static_cast<std::size_t>(n / 2 + 1));
        expect_near(TensorPtr(fourier_of_real(r.get(), -1, n, n / 2 + 1, 3)), half, 3, epsilon);
        const TensorPtr h = random_tensor({n / 2 + 1}, dtype_code<Complex<Real>>, 3);
        const TensorPtr back(fourier_to_real(h.get(), 0, n, n));
        EXPECT_EQ(back->Dtype(), dtype_code<Real>);
        expect_near(back, direct(mirrored(numbers(h), n), n, 1), 1, epsilon);
    };
    for (const std::int64_t n : lengths) {
        check.operator()<float>(n);
        check.operator()<double>(n);
    }
}

TEST(Fourier, LengthsAxesAndLayouts) {
    // Elements given, the transform's length, results wanted.
    constexpr std::int64_t rows[][3] = {{5, 5, 5}, {5, 8, 8}, {5, 3, 3}, {5, 8, 6}, {5, 3, 7}, {4, 6, 4}, {5, 40, 40}};
    for (const auto& [given, n, extent] : rows) {
        for (const Layout layout : all_layouts) {
            for (const int axis : {0, 1, 2}) {
                SCOPED_TRACE(std::to_string(n) + " " + std::to_string(axis) + " " + name_of(layout));
                Dims shape{2, 3, 4};
                shape[static_cast<std::size_t>(axis)] = given;
                const TensorPtr complex_x = random_tensor(shape, dtype::complex128, 1, layout);
                const TensorPtr real_x = random_tensor(shape, dtype::float64, 2, layout);
                const std::int64_t first = std::min(extent, n / 2 + 1);
                const TensorPtr whole(fourier(complex_x.get(), axis - 3, n, extent, true));
                const TensorPtr half(fourier_of_real(real_x.get(), axis, n, extent));
                const TensorPtr back(fourier_to_real(complex_x.get(), axis, n, extent));
                // Line by line, the other two axes walked by hand.
                const std::int64_t inner = axis == 0 ? 12 : axis == 1 ? 4 : 1;
                const std::int64_t lines = numel_of(shape) / given;
                for (std::int64_t line = 0; line < lines; ++line) {
                    const auto pick = [&](const TensorPtr& t, std::int64_t extent_of) {
                        std::vector<Number> values;
                        for (std::int64_t j = 0; j < extent_of; ++j) {
                            values.push_back(numbers(t)[at(line / inner * extent_of + j, line % inner, inner)]);
                        }
                        return values;
                    };
                    const auto compare = [&, results = extent](const TensorPtr& found, std::vector<Number> expected,
                                                               std::int64_t count) {
                        const std::vector<Number> values = pick(found, results);
                        expected.resize(static_cast<std::size_t>(std::min<std::int64_t>(count, std::ssize(expected))));
                        expected.resize(values.size());
                        for (std::size_t k = 0; k < values.size(); ++k) {
                            EXPECT_NEAR(std::abs(values[k] - expected[k]), 0, 1e-13);
                        }
                    };
                    compare(whole, direct(pick(complex_x, given), n, 1), extent);
                    compare(half, direct(pick(real_x, given), n, -1), first);
                    compare(back, direct(mirrored(pick(complex_x, given), n), n, 1), extent);
                }
            }
        }
    }
}

TEST(Fourier, NoElements) {
    const TensorPtr none = make_empty({2, 0}, dtype::complex64);
    const TensorPtr filled(fourier(none.get(), 1, 4, 3, false));
    EXPECT_EQ(filled->Shape(), Dims({2, 3}));
    EXPECT_EQ(numbers(filled), std::vector<Number>(6));
    EXPECT_EQ(TensorPtr(fourier(none.get(), 0, 4, 4, false))->Shape(), Dims({4, 0}));
    const TensorPtr real = make_empty({0, 3}, dtype::float32);
    EXPECT_EQ(TensorPtr(fourier_of_real(real.get(), 1, 3, 2))->Shape(), Dims({0, 2}));
}

TEST(Fourier, SameBitsForEveryTeamSize) {
    for (const std::int64_t n : {96, 101}) {
        const TensorPtr x = random_tensor({50, n, 3}, dtype::float32, 1);
        const TensorPtr z = random_tensor({50, n, 3}, dtype::complex64, 1);
        expect_same_bits([&] {
            std::vector<TensorPtr> results;
            results.emplace_back(fourier(z.get(), 1, n, n, false));
            results.emplace_back(fourier_of_real(x.get(), 1, n, n / 2 + 1));
            results.emplace_back(fourier_to_real(z.get(), 1, n, n));
            return results;
        });
    }
}

}  // namespace
}  // namespace ornik::test
