// The product kernel: every dtype against a naive loop, and the same bits however the work is cut.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "../src/hardware/cpu/product/cpu_product_kernels.h"
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

TEST(Bits, DoNotDependOnTheTeam) {
    std::mt19937 random(17);
    constexpr std::int64_t awkward[] = {1, 2, 3, 4, 5, 23, 24, 25, 31, 33, 47, 48, 49, 64, 97, 193, 255, 257, 300, 700};
    const auto pick = [&] { return awkward[random() % std::size(awkward)]; };
    for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
        for (int round = 0; round < 60; ++round) {
            const std::uint32_t flags = random();
            const ProductPlan plan{1, pick(), pick(), pick(), (flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0};
            const TensorPtr a = random_tensor({plan.rows, plan.depth}, dtype, 1);
            const TensorPtr b = random_tensor({plan.depth, plan.cols}, dtype, 2);
            const TensorPtr old = random_tensor({plan.rows, plan.cols}, dtype, 3);
            const auto multiply = [&] {
                TensorPtr c(old->clone());
                product(dtype, plan, a->getRawData(), b->getRawData(), c->getRawData());
                return c.release();
            };
            expect_same_bits(multiply,
                             dtype_name(dtype) + shape_text({plan.rows, plan.depth, plan.cols}) + " flags " +
                                 std::to_string(flags & 7),
                             {1, 2, 4, 7, 64});
        }
    }
}

// As many workers as a product can have, whatever this machine offers: the smallest pieces that are ever cut.
TEST(Bits, DoNotDependOnTheCut) {
    const auto cuts = [](std::int64_t n, std::int64_t unit) {
        std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
        for (std::int64_t begin = 0; begin < std::max(n / unit, std::int64_t{1}) * unit; begin += unit) {
            ranges.emplace_back(begin, begin + 2 * unit > n ? n : begin + unit);
        }
        return ranges;
    };
    std::mt19937 random(23);
    for (int round = 0; round < 60; ++round) {
        const std::int64_t rows = random() % 200 + 64;
        const std::int64_t cols = random() % 500 + 1;
        const std::int64_t depth = random() % 600 + 1;
        const std::uint32_t flags = random();
        const ProductPlan plan{1, rows, cols, depth, (flags & 1) != 0, (flags & 2) != 0, false};
        const auto a = random_floats(rows * depth, 1);
        const auto b = random_floats(depth * cols, 2);
        std::vector<float> whole(static_cast<std::size_t>(rows * cols));
        std::vector<float> by_rows = whole;
        std::vector<float> by_cols = whole;
        device::cpu::product_piece(plan, {0, rows, 0, cols}, a.data(), b.data(), whole.data());
        for (const auto& [begin, end] : cuts(rows, 32)) {
            device::cpu::product_piece(plan, {begin, end, 0, cols}, a.data(), b.data(), by_rows.data());
        }
        for (const auto& [begin, end] : cuts(cols, 96)) {
            device::cpu::product_piece(plan, {0, rows, begin, end}, a.data(), b.data(), by_cols.data());
        }
        EXPECT_EQ(by_rows, whole) << rows << "x" << depth << "x" << cols << " flags " << (flags & 3);
        EXPECT_EQ(by_cols, whole) << rows << "x" << depth << "x" << cols << " flags " << (flags & 3);
    }
}

// Vectors may lie anywhere in memory: the operands and the result at every distance from a boundary.
TEST(Bits, DoNotDependOnThePlace) {
    constexpr std::int64_t awkward[] = {1, 2, 3, 4, 5, 6, 7, 9, 11, 16, 17, 40, 65};
    for_types(TypeList<float, double, Complex<float>, Complex<double>>{}, [&]<typename T>() {
        std::mt19937 random(29);
        const auto pick = [&] { return awkward[random() % std::size(awkward)]; };
        for (int round = 0; round < 200; ++round) {
            const std::uint32_t flags = random();
            const ProductPlan plan{1, pick(), pick(), pick(), (flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0};
            const std::int64_t sizes[] = {plan.rows * plan.depth, plan.depth * plan.cols, plan.rows * plan.cols};
            std::vector<T> first;
            for (const int place : {0, 1, 2, 3, 5, 8, 13}) {
                std::vector<T> memory[3];
                T* at[3];
                for (int i = 0; i < 3; ++i) {
                    memory[i].resize(static_cast<std::size_t>(sizes[i] + 64));
                    const auto address = reinterpret_cast<std::uintptr_t>(memory[i].data()) / sizeof(T);
                    at[i] = memory[i].data() + 16 - address % 16 + (place * (i + 1)) % 16;
                    const TensorPtr values = random_tensor({sizes[i]}, dtype_code<T>, static_cast<unsigned>(i + 1));
                    std::memcpy(at[i], values->getRawData(), static_cast<std::size_t>(sizes[i]) * sizeof(T));
                }
                product(dtype_code<T>, plan, at[0], at[1], at[2]);
                const std::vector<T> found(at[2], at[2] + sizes[2]);
                first = first.empty() ? found : first;
                ASSERT_EQ(std::memcmp(found.data(), first.data(), found.size() * sizeof(T)), 0)
                    << shape_text({plan.rows, plan.depth, plan.cols}) << " flags " << (flags & 7) << " place " << place;
            }
        }
    });
}

TEST(Bits, OfABatchAreThoseOfItsSlices) {
    const std::int64_t n = 70;
    const auto a = random_floats(9 * n * n, 1);
    const auto b = random_floats(9 * n * n, 2);
    std::vector<float> batch(a.size());
    std::vector<float> slices(a.size());
    product(dtype::float32, {9, n, n, n, false, false, false}, a.data(), b.data(), batch.data());
    for (std::int64_t i = 0; i < 9; ++i) {
        const std::int64_t at = i * n * n;
        product(dtype::float32, {1, n, n, n, false, false, false}, a.data() + at, b.data() + at, slices.data() + at);
    }
    EXPECT_EQ(std::memcmp(batch.data(), slices.data(), batch.size() * sizeof(float)), 0);
}

}  // namespace
}  // namespace ornik::test
