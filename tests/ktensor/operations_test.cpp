// operations_test.cpp: operations that are made of others: their values, and what they refuse.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/convolutions.h"
#include "ktensor/elements.h"
#include "ktensor/images.h"
#include "ktensor/joins.h"
#include "ktensor/networks.h"
#include "ktensor/normalizations.h"
#include "ktensor/products.h"
#include "ktensor/random.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "ktensor/sparse.h"
#include "random/generator.h"
#include "support/expect_error.h"

namespace ornik {
namespace {

using Integers = std::vector<std::int64_t>;

// ---- einsum against loops over all axes ----

struct Case {
    std::string text;
    std::vector<std::string> axes;  // of each operand; Y and Z are those of the ellipsis
    std::vector<KTensor> operands;
    std::string output;
    Dims shape;  // of the output
};

// The result in row-major order: for every position along all axes, a product goes to its place.
Integers by_loops(const Case& c, const std::map<char, std::int64_t>& extents, bool boolean) {
    std::vector<Integers> values;
    for (const KTensor& t : c.operands) {
        values.push_back(t.to_vector<std::int64_t>());
    }
    std::int64_t positions = 1;
    std::int64_t size = 1;
    for (const auto& [name, extent] : extents) {
        positions *= extent;
        size *= c.output.find(name) == std::string::npos ? 1 : extent;
    }
    Integers sums(static_cast<std::size_t>(size));
    for (std::int64_t position = 0; position < positions; ++position) {
        std::map<char, std::int64_t> at;
        std::int64_t rest = position;
        for (const auto& [name, extent] : extents) {
            at[name] = rest % extent;
            rest /= extent;
        }
        const auto place_in = [&](const std::string& axes, const Dims& shape) {
            std::int64_t place = 0;
            for (std::size_t d = 0; d < axes.size(); ++d) {
                place = place * shape[d] + (shape[d] == 1 ? 0 : at[axes[d]]);
            }
            return static_cast<std::size_t>(place);
        };
        std::int64_t product = 1;
        for (std::size_t i = 0; i < values.size(); ++i) {
            product *= values[i][place_in(c.axes[i], c.operands[i].shape())];
        }
        std::int64_t& sum = sums[place_in(c.output, c.shape)];
        sum = boolean ? static_cast<std::int64_t>(sum != 0 || product != 0) : sum + product;
    }
    return sums;
}

TEST(Einsum, AgreesWithLoopsOverAllAxes) {
    std::mt19937 random(11);
    const auto below = [&](std::size_t n) { return random() % n; };
    for (int round = 0; round < 400; ++round) {
        const bool boolean = below(5) == 0;
        std::map<char, std::int64_t> wanted{{'Y', 2}, {'Z', 3}};
        for (const char letter : std::string("abCd")) {
            wanted[letter] = below(12) == 0 ? 0 : static_cast<std::int64_t>(1 + below(3));
        }
        Case c;
        std::string used;
        std::map<char, std::int64_t> extents;  // 1 where all operands have that
        for (std::size_t i = 0, count = 1 + below(3); i < count; ++i) {
            std::string letters;
            for (std::size_t k = below(4); k > 0; --k) {
                letters += "abCd"[below(4)];
            }
            const std::string ellipsis = std::string("YZ").substr(below(3));
            const std::size_t place = below(3) == 0 ? below(letters.size() + 1) : std::string::npos;
            std::string names = letters;
            std::string term = letters;
            if (place != std::string::npos) {
                names.insert(place, ellipsis);
                term.insert(place, "...");
            }
            Dims shape;
            for (const char name : names) {
                shape.push_back(below(6) == 0 ? 1 : wanted[name]);
                std::int64_t& extent = extents.emplace(name, 1).first->second;
                extent = extent == 1 ? shape.back() : extent;
            }
            // Read from memory in another order.
            Dims reversed(shape.rbegin(), shape.rend());
            std::vector<int> back(shape.size());
            std::iota(back.rbegin(), back.rend(), 0);
            const KTensor numbers = KTensor::randint(boolean ? 0 : -3, boolean ? 2 : 4, reversed);
            c.operands.push_back(permute(boolean ? numbers.astype(dtype::boolean) : numbers, back));
            c.axes.push_back(names);
            c.text += (i == 0 ? "" : below(2) == 0 ? "," : " , ") + term;
            used += names;
        }
        std::string ellipsis;
        for (const char name : std::string("YZ")) {
            ellipsis += extents.contains(name) ? std::string(1, name) : "";
        }
        if (below(3) == 0) {
            c.output = ellipsis;
            for (const auto& [name, extent] : extents) {
                if (name != 'Y' && name != 'Z' && std::count(used.begin(), used.end(), name) == 1) {
                    c.output += name;
                }
            }
        } else {
            std::string letters;
            for (const auto& [name, extent] : extents) {
                letters += name != 'Y' && name != 'Z' && below(2) == 0 ? std::string(1, name) : "";
            }
            std::shuffle(letters.begin(), letters.end(), random);
            const std::size_t place = below(letters.size() + 1);
            c.output = letters;
            c.output.insert(place, ellipsis);
            letters.insert(place, "...");
            c.text += "->" + letters;
        }
        SCOPED_TRACE(c.text);
        const KTensor y = einsum(c.text, c.operands);
        for (const char name : c.output) {
            c.shape.push_back(extents[name]);
        }
        ASSERT_EQ(y.shape(), c.shape);
        ASSERT_EQ(y.dtype(), boolean ? dtype::boolean : dtype::int64);
        ASSERT_EQ(y.to_vector<std::int64_t>(), by_loops(c, extents, boolean));
    }
}

// ---- Values ----

void expect_values(const KTensor& found, const KTensor& expected) {
    EXPECT_EQ(found.shape(), expected.shape());
    EXPECT_EQ(found.dtype(), expected.dtype());
    EXPECT_EQ(found.to_string(), expected.to_string());
}

TEST(Operations, JoinsPromoteAndTakeNoElements) {
    const KTensor a({{1, 2}, {3, 4}});
    expect_values(concat({a, KTensor({{0.5F}, {1.5F}})}, 1), KTensor({{1.0F, 2.0F, 0.5F}, {3.0F, 4.0F, 1.5F}}));
    expect_values(concat({KTensor::zeros({0, 2}, dtype::int64), a}), a);
    expect_values(stack({KTensor::scalar(1), KTensor::scalar(2.5)}), KTensor({1.0, 2.5}));
    EXPECT_EQ(stack({KTensor::zeros({2, 0}), KTensor::zeros({2, 0})}, -1).shape(), Dims({2, 0, 2}));
    EXPECT_EQ(split(KTensor::zeros({0, 2}), 3).size(), 1U);
    EXPECT_EQ(chunk(KTensor::arange(7), 4).back().to_vector<int>(), std::vector<int>({6}));
    EXPECT_TRUE(unbind(KTensor::zeros({0, 2})).empty());
    KTensor x = KTensor::arange(4);
    split(x, 2)[1].fill_(9);  // A view.
    expect_values(x, KTensor({0, 1, 9, 9}));
    expect_values(tile(KTensor({1, 2}), {2, 2}), KTensor({{1, 2, 1, 2}, {1, 2, 1, 2}}));
    expect_values(repeat_interleave(KTensor({1, 2}), 2, 0), KTensor({1, 1, 2, 2}));
    expect_values(repeat_interleave(KTensor({5, 6}), KTensor({0, 3}), 0), KTensor({6, 6, 6}));
    expect_values(roll(KTensor::arange(5), 7, 0), KTensor({3, 4, 0, 1, 2}));
    expect_values(pad(KTensor({1, 2, 3}), {{2, 1}}, PadMode::reflect), KTensor({3, 2, 1, 2, 3, 2}));
    expect_values(diff(KTensor({1, 4, 9})), KTensor({3, 5}));
    EXPECT_EQ(at_least(KTensor::zeros({3}), 3).shape(), Dims({1, 1, 3}));
    EXPECT_EQ(moveaxis(KTensor::zeros({2, 3, 4}), 0, -1).shape(), Dims({3, 4, 2}));
    expect_values(add_all({KTensor({1, 2}), KTensor({{10}, {20}}), KTensor::scalar(100)}),
                  KTensor({{111, 112}, {121, 122}}));
    const std::vector<KTensor> grid = meshgrid({KTensor({1, 2}), KTensor({3, 4, 5})});
    expect_values(grid[0] * Scalar(10) + grid[1], KTensor({{13, 14, 15}, {23, 24, 25}}));
    expect_values(cross(KTensor({1, 0, 0}), KTensor({0, 1, 0})), KTensor({0, 0, 1}));
    expect_values(inner(KTensor({{1, 2}, {3, 4}}), KTensor({10, 1})), KTensor({12, 34}));
    expect_values(outer(KTensor({1, 2}), KTensor({3, 4})), KTensor({{3, 4}, {6, 8}}));
    expect_values(vdot(KTensor({std::complex<double>(1, 2)}), KTensor({std::complex<double>(0, 1)})),
                  KTensor::scalar(std::complex<double>(2, 1)));
    EXPECT_EQ(KTensor::logspace(0, 2, 3, 2).to_vector<float>(), std::vector<float>({1, 2, 4}));
}

TEST(Operations, CountsAndClasses) {
    expect_values(count_nonzero(KTensor({{0.0, std::nan("")}, {-0.0, 2.0}}), {0}), KTensor({0, 2}));
    expect_values(bincount(KTensor({1, 3, 1})), KTensor({0, 2, 0, 1}));
    expect_values(bincount(KTensor::zeros({0}, dtype::int32), KTensor(), 2), KTensor({0, 0}));
    expect_values(histogram(KTensor({0.0, 0.5, 1.0, 2.0, 2.1, -0.1, std::nan("")}), 2, 0, 2), KTensor({2, 2}));
    expect_values(one_hot(KTensor({{2}, {0}}), 3, dtype::int64), KTensor({{{0, 0, 1}}, {{1, 0, 0}}}));
    expect_values(normalize(KTensor({3.0, 4.0})), KTensor({0.6, 0.8}));
    expect_values(normalize(KTensor({0.0, 0.0})), KTensor({0.0, 0.0}));
    // Windows of rows 0-1 | 1-2, columns 0-1 | 1-2.
    expect_values(adaptive_max_pool(reshape(KTensor::arange(0, 9, 1, dtype::float32), {1, 1, 3, 3}), {2, 2}),
                  KTensor({{{{4.0F, 5.0F}, {7.0F, 8.0F}}}}));
    expect_values(pixel_shuffle(reshape(KTensor::arange(8), {4, 1, 2}), 2), KTensor({{{0, 2, 1, 3}, {4, 6, 5, 7}}}));
}

TEST(Operations, SparseMatricesAreTheirDenseSelves) {
    const KTensor dense({{0, 5, 0}, {7, 0, -2}});
    const SparseMatrix m = SparseMatrix::from_dense(dense);
    expect_values(m.offsets(), KTensor({0, 1, 3}));
    expect_values(m.rows(), KTensor({0, 1, 1}));
    expect_values(m.columns(), KTensor({1, 0, 2}));
    expect_values(m.values(), KTensor({5, 7, -2}));
    expect_values(m.to_dense(), dense);
    expect_values(m.transpose().to_dense(), dense.t());
    expect_values(SparseMatrix::from_coordinates(m.rows(), m.columns(), m.values(), {2, 3}).to_dense(), dense);
    const KTensor right = reshape(KTensor::arange(0, 6, 1, dtype::float64), {3, 2});
    expect_values(sparse_dot(m, right), matmul(dense, right));
    const SparseMatrix none = SparseMatrix::from_dense(KTensor::zeros({2, 3}));
    expect_values(sparse_dot(none, KTensor::ones({3, 1})), KTensor::zeros({2, 1}));
    EXPECT_REFUSAL(sparse_dot(m, dense),
                   "sparse_dot(): there is no product of a sparse [2, 3] int64 and [2, 3] int64.");
    EXPECT_REFUSAL(SparseMatrix(right, right, right, {2, 3}),
                   "SparseMatrix(): positions are one axis of integers, not [3, 2] float64.");
    EXPECT_REFUSAL(SparseMatrix::from_dense(KTensor({1})), "SparseMatrix(): [1] int64 is no matrix.");
}

TEST(Operations, NoElements) {
    const KTensor none = KTensor::zeros({0, 3});
    EXPECT_EQ(bernoulli(none).shape(), none.shape());
    EXPECT_EQ(binomial(none, none).shape(), none.shape());
    EXPECT_EQ(normalize(none).shape(), none.shape());
    EXPECT_EQ(cosine_similarity(none, none).shape(), Dims({0}));
    EXPECT_EQ(interpolate(KTensor::zeros({0, 1, 2, 2}), {3, 4}).shape(), Dims({0, 1, 3, 4}));
    EXPECT_EQ(pixel_shuffle(KTensor::zeros({0, 4, 2, 2}), 2).shape(), Dims({0, 1, 4, 4}));
    EXPECT_EQ(adaptive_max_pool(KTensor::zeros({0, 1, 5, 5}), {2, 3}).shape(), Dims({0, 1, 2, 3}));
    EXPECT_EQ(view_as_complex(KTensor::zeros({0, 2})).shape(), Dims({0}));
    EXPECT_EQ(view_as_real(KTensor::zeros({0}, dtype::complex64)).shape(), Dims({0, 2}));
    EXPECT_EQ(roll(none, {1, 1}, {0, 1}).shape(), none.shape());
    EXPECT_EQ(pad(none, {{1, 0}, {0, 0}}).shape(), Dims({1, 3}));
    EXPECT_EQ(one_hot(KTensor::zeros({0}, dtype::int32), 3).shape(), Dims({0, 3}));
    EXPECT_EQ(outer(none.flatten(), none.flatten()).shape(), Dims({0, 0}));
    EXPECT_EQ(unpack_sequences(KTensor::zeros({6, 0}), Packing({1, 3, 2})).shape(), Dims({3, 3, 0}));
    EXPECT_EQ(pack_sequences(KTensor::zeros({3, 3, 0}), Packing({1, 3, 2})).shape(), Dims({6, 0}));
    KTensor target = none;
    EXPECT_EQ(uniform_(zero_(normal_(bernoulli_(target)))).size(), 0);
}

TEST(Operations, FillsDrawWhatCreationDraws) {
    const auto seeded = [](const std::function<KTensor()>& draw) {
        set_random_seed(3);
        return draw();
    };
    KTensor x = KTensor::empty({4, 5});
    expect_values(seeded([&] { return normal_(x, 1, 2); }), seeded([] {
                      return KTensor::randn({4, 5}, dtype::float32, 1, 2);
                  }));
    expect_values(seeded([&] { return uniform_(x, -1, 2); }), seeded([] {
                      return KTensor::rand({4, 5}, dtype::float32, -1, 2);
                  }));
    KTensor y = KTensor::ones({4, 5}).requires_grad() * 2.0F;
    expect_values(seeded([&] { return uniform_(y, -1, 2).detach(); }), x);
    EXPECT_FALSE(y.wants_grad());
    const KTensor even = KTensor::full({1000}, 0.5F);
    const auto ones = bernoulli(even).sum().item<double>();
    EXPECT_TRUE(ones > 400 && ones < 600) << ones;
    const auto mean = binomial(KTensor::full({1}, 10.0F), even).mean().item<double>();
    EXPECT_TRUE(mean > 4.7 && mean < 5.3) << mean;
    EXPECT_EQ(bernoulli_(x, 1).sum().item<float>(), 20);
    expect_values(std::get<0>(sort(multinomial(KTensor({{1.0F, 2.0F, 0.0F, 1.0F}}), 3, false))), KTensor({{0, 1, 3}}));
}

TEST(Operations, ActivationsInPlaceAreTheOthers) {
    using Plain = std::function<KTensor(const KTensor&)>;
    using InPlace = std::function<KTensor&(KTensor&)>;
#define FORMS(name, ...)                                                                 \
    {                                                                                    \
        [](const KTensor& t) { return name(t __VA_OPT__(, ) __VA_ARGS__); },             \
            [](KTensor& t) -> KTensor& { return name##_(t __VA_OPT__(, ) __VA_ARGS__); } \
    }
    const std::vector<std::pair<Plain, InPlace>> pairs{FORMS(leaky_relu, 0.2F),
                                                       FORMS(leaky_relu, -1),
                                                       FORMS(elu, 0.5F),
                                                       FORMS(elu, -1),
                                                       FORMS(selu),
                                                       FORMS(hardtanh, -0.5, 1),
                                                       FORMS(relu6),
                                                       FORMS(hardsigmoid),
                                                       FORMS(hardswish),
                                                       FORMS(mish),
                                                       FORMS(relu),
                                                       FORMS(clamp_min, 0.3F),
                                                       FORMS(clamp_max, 0.3F)};
#undef FORMS
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        SCOPED_TRACE(i);
        KTensor a = KTensor::linspace(-2.1, 2.2, 30).requires_grad();
        KTensor b = a.detach().clone().requires_grad();
        const KTensor expected = pairs[i].first(a * 1.5F);
        KTensor target = b * 1.5F;
        EXPECT_TRUE(pairs[i].second(target).is(target));
        EXPECT_EQ(target.to_vector<float>(), expected.to_vector<float>());
        expected.sum().backward();
        target.sum().backward();
        EXPECT_EQ(b.grad().to_vector<float>(), a.grad().to_vector<float>());
        const NoGrad plain;
        KTensor c = a * 1.5F;
        EXPECT_EQ(pairs[i].second(c).to_vector<float>(), expected.to_vector<float>());
    }
}

// ---- Refusals ----

TEST(Operations, RefusalsNameWhatWasGiven) {
    const KTensor a = KTensor::zeros({2, 3});
    const KTensor b = KTensor::zeros({4, 5}, dtype::float64);
    const KTensor whole = KTensor::zeros({2}, dtype::int64);
    KTensor leaf = KTensor::zeros({2}).requires_grad();
    EXPECT_REFUSAL(concat({}, 0), "concat(): there is no tensor in the list.");
    EXPECT_REFUSAL(concat({a, KTensor()}), "concat(): operand 1 is an undefined KTensor.");
    EXPECT_REFUSAL(concat({a, b}, 1),
                   "concat(): operands 0 and 1, [2, 3] float32 and [4, 5] float64, differ in more than axis 1.");
    EXPECT_REFUSAL(concat({a, a}, 2), "concat(): [2, 3] float32 has no axis 2.");
    EXPECT_REFUSAL(stack({a, b}), "stack(): operands 0 and 1, [2, 3] float32 and [4, 5] float64, differ in shape.");
    EXPECT_REFUSAL(stack({a}, 3), "stack(): [2, 3] float32 takes no new axis at 3.");
    EXPECT_REFUSAL(split(a, {1, 1}, 1), "split(): parts of [1, 1] do not make up axis 1 of [2, 3] float32.");
    EXPECT_REFUSAL(split(a, 0), "split(): [2, 3] float32 has no parts of 0 elements.");
    EXPECT_REFUSAL(chunk(a, 0), "chunk(): [2, 3] float32 can not be cut into 0 parts.");
    EXPECT_REFUSAL(moveaxis(a, {0, 1}, std::vector<int>{1}),
                   "moveaxis(): 2 axes of [2, 3] float32 can not go to 1 positions.");
    EXPECT_REFUSAL(meshgrid({a}), "meshgrid(): operand 0, [2, 3] float32, has more than one axis.");
    EXPECT_REFUSAL(windows(a, 1, 4), "windows(): windows of 4 elements, 1 apart, do not fit axis 1 of [2, 3] float32.");
    EXPECT_REFUSAL(add_windows(a, {3, 3}, 0, 2),
                   "add_windows(): [2, 3] float32 are no windows of [3, 3] float32, which would be [2, 3, 2] float32.");
    EXPECT_REFUSAL(tile(a, {-1}), "tile(): [2, 3] float32 can not be repeated [-1] times.");
    EXPECT_REFUSAL(repeat_interleave(a, -2, 1),
                   "repeat_interleave(): axis 1 of [2, 3] float32 can not be repeated -2 times.");
    EXPECT_REFUSAL(roll(a, {1, 2}, {0}),
                   "roll(): [2, 3] float32 can not be shifted by 2 numbers of places along 1 axes.");
    EXPECT_REFUSAL(pad(a, {{1, 1}}), "pad(): [2, 3] float32 takes 2 pairs of widths, not 1.");
    EXPECT_REFUSAL(diff(KTensor::zeros({0})), "diff(): axis 0 of [0] float32 has no elements.");
    EXPECT_REFUSAL(einsum("ij", {a, b}), "einsum(): \"ij\": it is about 1 operands, and 2 are given.");
    EXPECT_REFUSAL(einsum("i1,jk", {a, b}), "einsum(): \"i1,jk\": '1' does not name an axis here.");
    EXPECT_REFUSAL(einsum("i..j", {a}), "einsum(): \"i..j\": '.' does not name an axis here.");
    EXPECT_REFUSAL(einsum("ijk,jk", {a, b}), "einsum(): \"ijk,jk\": operand 0, [2, 3] float32, has 2 axes, not 3.");
    EXPECT_REFUSAL(einsum("ijk...", {a}),
                   "einsum(): \"ijk...\": operand 0, [2, 3] float32, has 2 axes, not 3 and more.");
    EXPECT_REFUSAL(einsum("ij,jk", {a, b}),
                   "einsum(): \"ij,jk\": axis 'j' has 3 elements in operand 0, [2, 3] float32, and 4 in operand 1, [4, "
                   "5] float64.");
    EXPECT_REFUSAL(einsum("i...,...", {a, b}),
                   "einsum(): \"i...,...\": axis -1 of the ellipsis has 3 elements in operand 0, [2, 3] float32, and 5 "
                   "in operand 1, [4, 5] float64.");
    EXPECT_REFUSAL(einsum("ij->ik", {a}), "einsum(): \"ij->ik\": axis 'k' of the result is in no operand.");
    EXPECT_REFUSAL(einsum("ij->jj", {a}), "einsum(): \"ij->jj\": axis 'j' is named twice in the result.");
    EXPECT_REFUSAL(einsum("i...->i", {a}), "einsum(): \"i...->i\": the result lacks the ellipsis.");
    EXPECT_REFUSAL(tensordot(a, b, {1}, {0}),
                   "tensordot(): axes [1] of [2, 3] float32 do not match axes [0] of [4, 5] float64.");
    EXPECT_REFUSAL(tensordot(a, b, 3), "tensordot(): [2, 3] float32 and [4, 5] float64 do not have 3 axes each.");
    EXPECT_REFUSAL(outer(a, a), "outer(): takes tensors of one axis, not [2, 3] float32 and [2, 3] float32.");
    EXPECT_REFUSAL(vdot(a, b), "vdot(): [2, 3] float32 and [4, 5] float64 differ in shape.");
    EXPECT_REFUSAL(cross(a, a, 0), "cross(): axis 0 of [2, 3] float32 and [2, 3] float32 does not have 3 elements.");
    EXPECT_REFUSAL(bincount(a), "bincount(): [2, 3] float32 does not hold integers.");
    EXPECT_REFUSAL(bincount(KTensor({1, -2})), "bincount(): [2] int64 holds -2.");
    EXPECT_REFUSAL(bincount(whole, a), "bincount(): weights [2, 3] float32 do not have the shape of [2] int64.");
    EXPECT_REFUSAL(histogram(a, 2, 1, 0), "histogram(): there are no 2 intervals from 1.000000 to 0.000000.");
    EXPECT_REFUSAL(one_hot(KTensor({0, 4}), 4), "one_hot(): 4 is none of 4 classes.");
    EXPECT_REFUSAL(one_hot(a, 4), "one_hot(): [2, 3] float32 does not hold integers.");
    EXPECT_REFUSAL(interpolate(a, {4, 4}), "interpolate(): [2, 3] float32 can not be resized to [4, 4].");
    EXPECT_REFUSAL(pixel_shuffle(KTensor::zeros({6, 1, 1}), 2),
                   "pixel_shuffle(): the channels of [6, 1, 1] float32 can not be divided by 2 twice.");
    EXPECT_REFUSAL(pixel_unshuffle(KTensor::zeros({6, 2, 1}), 2),
                   "pixel_unshuffle(): the rows and columns of [6, 2, 1] float32 can not be divided by 2.");
    EXPECT_REFUSAL(adaptive_max_pool(a, {1, 1}),
                   "adaptive_max_pool(): [2, 3] float32 does not hold channels of elements.");
    EXPECT_REFUSAL(adaptive_max_pool(KTensor::zeros({1, 1, 3, 3}), {0, 1}),
                   "adaptive_max_pool(): axis 2 of [1, 1, 3, 3] float32 does not have 0 windows.");
    EXPECT_REFUSAL(
        normal_(leaf),
        "normal_(): a leaf that asks for gradients, [2] float32, can be changed in place only inside NoGrad.");
}

}  // namespace
}  // namespace ornik
