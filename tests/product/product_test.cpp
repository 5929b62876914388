// The product kernel: every dtype against a naive loop, and the bits of the promised order on every path.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "hardware/cpu/product/cpu_product_fixed.h"
#include "support/exact.h"
#include "support/gradients.h"
#include "support/products.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

using device::cpu::product;

// Small whole numbers, so that sums are exact in every dtype wide enough, and wrap the same way elsewhere.
template <typename T>
std::vector<T> small_numbers(std::int64_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<T> values;
    for (std::int64_t i = 0; i < n; ++i) {
        const int x = static_cast<int>(random() % 7) - 3;
        if constexpr (requires(T z) { z.imag; }) {
            values.push_back({static_cast<decltype(T::real)>(x), static_cast<decltype(T::real)>(random() % 5)});
        } else {
            values.push_back(static_cast<T>(std::is_same_v<T, bool> ? x > 1 : x));
        }
    }
    return values;
}

// Runs the kernel on a C with guard elements around it.
template <typename T>
std::vector<T> run(const ProductPlan& p, const std::vector<T>& a, const std::vector<T>& b, const std::vector<T>& c) {
    const T guard = small_numbers<T>(1, 99)[0];
    constexpr std::size_t width = 8;
    const std::unique_ptr<T[]> out(new T[c.size() + 2 * width]);
    const std::unique_ptr<T[]> left(new T[a.size() + 1]);  // Vectors of bool have no address.
    const std::unique_ptr<T[]> right(new T[b.size() + 1]);
    std::fill_n(out.get(), c.size() + 2 * width, guard);
    std::copy(c.begin(), c.end(), out.get() + width);
    std::copy(a.begin(), a.end(), left.get());
    std::copy(b.begin(), b.end(), right.get());
    product(dtype_code<T>, p, left.get(), right.get(), out.get() + width);
    for (std::size_t i = 0; i < width; ++i) {
        EXPECT_EQ(out[i], guard);
        EXPECT_EQ(out[width + c.size() + i], guard);
    }
    return std::vector<T>(out.get() + width, out.get() + width + c.size());
}

TEST(Product, EveryDtypeAndFlagAgainstLoops) {
    for_types(AllTypes{}, []<typename T>() {
        for (const Dims& size : {Dims{1, 3, 4, 5}, Dims{2, 33, 7, 130}, Dims{1, 1, 300, 9}, Dims{1, 70, 1, 70},
                                 Dims{3, 65, 129, 40}, Dims{1, 5, 400, 40}, Dims{1, 2, 3, 0}, Dims{1, 0, 3, 4}}) {
            for (int flags = 0; flags < 8; ++flags) {
                const ProductPlan plan{size[0],          size[1],          size[2],         size[3],
                                       (flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0};
                const auto a = small_numbers<T>(plan.batch * plan.rows * plan.depth, 1);
                const auto b = small_numbers<T>(plan.batch * plan.depth * plan.cols, 2);
                const auto c = small_numbers<T>(plan.batch * plan.rows * plan.cols, 3);
                EXPECT_EQ(run(plan, a, b, c), naive(plan, a, b, c))
                    << dtype_name(dtype_code<T>) << shape_text(size) << flags;
            }
        }
    });
}

TEST(Product, IntegersWrapAndBoolBytesAreNormalised) {
    const ProductPlan plan{1, 1, 1, 2, false, false, false};
    EXPECT_EQ(run<std::int16_t>(plan, {-32768, 300}, {-32768, 300}, {0})[0], static_cast<std::int16_t>(90000));
    EXPECT_EQ(run<std::int64_t>(plan, {INT64_MAX, 1}, {2, 5}, {0})[0], 3);
    const unsigned char a[] = {200, 0};
    const unsigned char b[] = {2, 7};
    unsigned char c = 9;
    product(dtype::boolean, plan, a, b, &c);
    EXPECT_EQ(c, 1);
}

std::vector<float> random_floats(std::int64_t n, unsigned seed) {
    return values_of<float>(random_tensor({n}, dtype::float32, seed));
}

TEST(Product, ErrorStaysBelowTheBoundOfItsLength) {
    const ProductPlan plan{1, 61, 83, 1000, false, true, false};
    const auto a = random_floats(61 * 1000, 5);
    const auto b = random_floats(83 * 1000, 6);
    const auto c = run<float>(plan, a, b, std::vector<float>(61 * 83));
    const auto exact = naive<double>(plan, {a.begin(), a.end()}, {b.begin(), b.end()}, std::vector<double>(61 * 83));
    for (std::size_t i = 0; i < c.size(); ++i) {
        EXPECT_NEAR(c[i], exact[i], 1000 * 1000 * 0x1p-24);
    }
}

// The promise itself: chains of fused multiply-adds over the depth, in blocks of 256 steps that begin at 0, whose sums
// are added in order; the old C is added to the whole.
template <typename T>
T in_order(const T* a, std::int64_t a_step, const T* b, std::int64_t b_step, std::int64_t depth, const T* old) {
    T sum{};
    for (std::int64_t first = 0; first < depth; first += 256) {
        T block{};
        for (std::int64_t k = first; k < std::min(depth, first + 256); ++k) {
            const T x = a[k * a_step];
            const T y = b[k * b_step];
            if constexpr (requires { x.imag; }) {
                block = {fused_once(-x.imag, y.imag, fused_once(x.real, y.real, block.real)),
                         fused_once(x.imag, y.real, fused_once(x.real, y.imag, block.imag))};
            } else {
                block = fused_once(x, y, block);
            }
        }
        sum = first == 0 ? block : sum + block;
    }
    return old != nullptr ? *old + sum : sum;
}

// Every element of a product whose operands begin anywhere in memory and have gaps between their rows.
template <typename T>
void expect_promised_bits(const ProductPlan& sizes, std::int64_t place, const std::vector<int>& teams) {
    ProductPlan p = sizes;
    const std::int64_t gap = place % 4;
    const std::int64_t stored_a[] = {p.transpose_a ? p.depth : p.rows, p.transpose_a ? p.rows : p.depth};
    const std::int64_t stored_b[] = {p.transpose_b ? p.cols : p.depth, p.transpose_b ? p.depth : p.cols};
    p.place_a.row_step = stored_a[1] + gap;
    p.place_b.row_step = stored_b[1] + gap;
    p.place_c.row_step = p.cols + gap;
    const auto numbers = [place](std::int64_t rows, std::int64_t step, std::int64_t batch, unsigned seed) {
        return values_of<T>(random_tensor({batch * rows * step + place + 1}, dtype_code<T>, seed));
    };
    std::vector<std::int64_t> starts[3];
    for (std::int64_t n = 0; n < p.batch; ++n) {
        starts[0].push_back(place + n * stored_a[0] * p.place_a.row_step);
        starts[1].push_back(place / 2 + n % 2 * stored_b[0] * p.place_b.row_step);
        starts[2].push_back(place / 3 + n * p.rows * p.place_c.row_step);
    }
    p.place_a.starts = starts[0].data();
    p.place_b.starts = starts[1].data();
    p.place_c.starts = starts[2].data();
    const std::vector<T> a = numbers(stored_a[0], p.place_a.row_step, p.batch, 1);
    const std::vector<T> b = numbers(stored_b[0], p.place_b.row_step, 2, 2);
    const std::vector<T> old = numbers(p.rows, p.place_c.row_step, p.batch, 3);
    std::vector<T> expected = old;
    for (std::int64_t n = 0; n < p.batch; ++n) {
        for (std::int64_t i = 0; i < p.rows; ++i) {
            for (std::int64_t j = 0; j < p.cols; ++j) {
                const auto at = static_cast<std::size_t>(starts[2][n] + i * p.place_c.row_step + j);
                expected[at] =
                    in_order(a.data() + starts[0][n] + i * (p.transpose_a ? 1 : p.place_a.row_step),
                             p.transpose_a ? p.place_a.row_step : 1,
                             b.data() + starts[1][n] + j * (p.transpose_b ? p.place_b.row_step : 1),
                             p.transpose_b ? 1 : p.place_b.row_step, p.depth, p.accumulate ? &old[at] : nullptr);
            }
        }
    }
    // What may follow the sums, and the right factor laid out ahead.
    std::vector<T> ended = expected;
    for (std::int64_t n = 0; n < p.batch; ++n) {
        for (std::int64_t i = 0; i < p.rows * p.cols; ++i) {
            const std::int64_t at = i / p.cols * p.place_c.row_step + i % p.cols;
            T& x = ended[static_cast<std::size_t>(starts[2][n] + at)];
            x = x + b[static_cast<std::size_t>(i % p.cols)];
            x = x + a[static_cast<std::size_t>(i) % std::min<std::size_t>(7, a.size())];
            x = x * x;
        }
    }
    std::vector<T> residual;
    for (std::int64_t i = 0; i < p.rows * p.cols; ++i) {
        residual.push_back(a[static_cast<std::size_t>(i) % std::min<std::size_t>(7, a.size())]);
    }
    const auto square = [](void* elements, std::int64_t count) {
        std::transform(static_cast<T*>(elements), static_cast<T*>(elements) + count, static_cast<T*>(elements),
                       [](T x) { return x * x; });
    };
    const device::cpu::ProductEnds ends{b.data(), residual.data(), p.cols, square};
    const auto expect_ended = [&](const std::vector<T>& found) {
        EXPECT_EQ(std::memcmp(found.data(), ended.data(), found.size() * sizeof(T)), 0)
            << dtype_name(dtype_code<T>) << shape_text({p.batch, p.rows, p.depth, p.cols}) << p.accumulate;
    };
    for (const int team : teams) {
        ConfigSetNumThreads(team);
        std::vector<T> found = old;
        if (team == teams[0]) {
            product(dtype_code<T>, p, a.data(), b.data(), found.data(), &ends);
            expect_ended(found);
        }
        if (team == teams[0] && gap == 0 && p.batch == 1 && !p.transpose_a) {
            found = old;
            const device::cpu::FixedFactor factor(dtype_code<T>, b.data() + starts[1][0], p.transpose_b, p.depth,
                                                  p.cols);
            factor.multiply(a.data() + starts[0][0], p.rows, p.accumulate, found.data() + starts[2][0], &ends);
            expect_ended(found);
        }
        found = old;
        product(dtype_code<T>, p, a.data(), b.data(), found.data());
        ASSERT_EQ(std::memcmp(found.data(), expected.data(), found.size() * sizeof(T)), 0)
            << dtype_name(dtype_code<T>) << shape_text({p.batch, p.rows, p.depth, p.cols}) << " transposed "
            << p.transpose_a << p.transpose_b << " added " << p.accumulate << " place " << place << " team " << team;
    }
    ConfigSetNumThreads(4);
}

TEST(Bits, AreThoseOfThePromisedOrder) {
    constexpr std::int64_t awkward[] = {1,  2,  3,  4,  5,  6,  7,  8,  11,  13,  14,  15,
                                        16, 17, 24, 25, 31, 33, 64, 97, 255, 256, 257, 300};
    for_types(TypeList<float, double, Complex<float>, Complex<double>>{}, [&]<typename T>() {
        std::mt19937 random(17);
        const auto pick = [&](std::size_t among) { return awkward[random() % among]; };
        for (int round = 0; round < 120; ++round) {
            const std::size_t among = round % 6 == 0 ? 20 : 14;
            const std::uint32_t flags = random();
            const ProductPlan plan{
                flags / 8 % 8 == 0 ? 5 : 1, pick(among),      pick(among),     pick(std::size(awkward)),
                (flags & 1) != 0,           (flags & 2) != 0, (flags & 4) != 0};
            expect_promised_bits<T>(plan, flags / 64 % 16, {2});
        }
        // Few rows, few columns, several blocks, many small ones and more tiles than workers.
        for (const Dims& size :
             {Dims{1, 1, 700, 300}, Dims{1, 2, 600, 1100}, Dims{1, 2, 300, 270}, Dims{1, 3, 600, 270},
              Dims{1, 600, 1, 300}, Dims{1, 530, 5, 270}, Dims{1, 150, 40, 270}, Dims{40, 9, 40, 30}}) {
            for (const int flags : {0, 3, 5, 6}) {
                const ProductPlan plan{size[0],          size[1],          size[2],         size[3],
                                       (flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0};
                expect_promised_bits<T>(plan, flags * 4, {1, 7});
            }
        }
        // Long rows of B, which the first tiles lay out for the others.
        expect_promised_bits<T>({1, 43, 1024, 528, false, false, false}, 0, {1, 7});
    });
}

}  // namespace
}  // namespace ornik::test
