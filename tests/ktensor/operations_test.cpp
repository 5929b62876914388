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
using test::message_of;

// ---- einsum against loops over all axes ----

struct Case {
    std::string text;
    std::vector<std::string> axes;  // of each operand; Y and Z are those of the ellipsis
    std::string output;
    std::vector<KTensor> operands;
};

std::map<Integers, std::int64_t> by_loops(const Case& c, std::map<char, std::int64_t> extents, bool boolean) {
    std::vector<Integers> values;
    for (const KTensor& t : c.operands) {
        values.push_back(t.to_vector<std::int64_t>());
    }
    std::map<Integers, std::int64_t> sums;
    std::map<char, std::int64_t> at;
    const std::function<void(std::map<char, std::int64_t>::const_iterator)> walk = [&](auto axis) {
        if (axis != extents.cend()) {
            for (at[axis->first] = 0; at[axis->first] < axis->second; ++at[axis->first]) {
                walk(std::next(axis));
            }
            return;
        }
        std::int64_t product = 1;
        for (std::size_t i = 0; i < values.size(); ++i) {
            std::int64_t place = 0;
            for (std::size_t d = 0; d < c.axes[i].size(); ++d) {
                const std::int64_t extent = c.operands[i].shape()[d];
                place = place * extent + (extent == 1 ? 0 : at[c.axes[i][d]]);
            }
            product *= values[i][static_cast<std::size_t>(place)];
        }
        Integers place;
        for (const char name : c.output) {
            place.push_back(at[name]);
        }
        std::int64_t& sum = sums[place];
        sum = boolean ? static_cast<std::int64_t>(sum != 0 || product != 0) : sum + product;
    };
    walk(extents.cbegin());
    return sums;
}

TEST(Einsum, AgreesWithLoopsOverAllAxes) {
    std::mt19937 random(11);
    const auto below = [&](std::size_t n) { return random() % n; };
    for (int round = 0; round < 400; ++round) {
        const bool boolean = below(5) == 0;
        std::map<char, std::int64_t> extents{{'Y', 2}, {'Z', 3}};
        for (const char letter : std::string("abCd")) {
            extents[letter] = below(12) == 0 ? 0 : static_cast<std::int64_t>(1 + below(3));
        }
        Case c;
        std::string used;
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
                shape.push_back(below(6) == 0 ? 1 : extents[name]);
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
        // What nobody has, or all have once, does not count.
        for (auto entry = extents.begin(); entry != extents.end();) {
            std::int64_t extent = -1;
            for (std::size_t i = 0; i < c.axes.size(); ++i) {
                for (std::size_t d = 0; d < c.axes[i].size(); ++d) {
                    if (c.axes[i][d] == entry->first && (extent == -1 || extent == 1)) {
                        extent = c.operands[i].shape()[d];
                    }
                }
            }
            entry->second = extent;
            entry = extent == -1 ? extents.erase(entry) : std::next(entry);
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
        Dims shape;
        for (const char name : c.output) {
            shape.push_back(extents[name]);
        }
        ASSERT_EQ(y.shape(), shape);
        ASSERT_EQ(y.dtype(), boolean ? dtype::boolean : dtype::int64);
        const auto sums = by_loops(c, extents, boolean);
        const Integers values = y.to_vector<std::int64_t>();
        Integers expected(values.size(), 0);  // Of no products.
        for (const auto& [place, sum] : sums) {
            std::int64_t flat = 0;
            for (std::size_t d = 0; d < place.size(); ++d) {
                flat = flat * shape[d] + place[d];
            }
            expected[static_cast<std::size_t>(flat)] = sum;
        }
        ASSERT_EQ(values, expected);
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
    EXPECT_EQ(message_of([&] { (void)sparse_dot(m, dense); }),
              "sparse_dot(): there is no product of a sparse [2, 3] int64 and [2, 3] int64.");
    EXPECT_EQ(message_of([&] {
                  (void)SparseMatrix(right, right, right, {2, 3});
              }),
              "SparseMatrix(): positions are one axis of integers, not [3, 2] float64.");
    EXPECT_EQ(message_of([] { (void)SparseMatrix::from_dense(KTensor({1})); }),
              "SparseMatrix(): [1] int64 is no matrix.");
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
    const std::vector<std::pair<Plain, InPlace>> pairs{
        {[](const KTensor& t) { return leaky_relu(t, 0.2F); },
         [](KTensor& t) -> KTensor& { return leaky_relu_(t, 0.2F); }},
        {[](const KTensor& t) { return leaky_relu(t, -1); }, [](KTensor& t) -> KTensor& { return leaky_relu_(t, -1); }},
        {[](const KTensor& t) { return elu(t, 0.5F); }, [](KTensor& t) -> KTensor& { return elu_(t, 0.5F); }},
        {[](const KTensor& t) { return elu(t, -1); }, [](KTensor& t) -> KTensor& { return elu_(t, -1); }},
        {selu, selu_},
        {[](const KTensor& t) { return hardtanh(t, -0.5, 1); },
         [](KTensor& t) -> KTensor& { return hardtanh_(t, -0.5, 1); }},
        {relu6, relu6_},
        {hardsigmoid, hardsigmoid_},
        {hardswish, hardswish_},
        {mish, mish_},
        {relu, relu_},
        {[](const KTensor& t) { return clamp_min(t, 0.3F); },
         [](KTensor& t) -> KTensor& { return clamp_min_(t, 0.3F); }},
        {[](const KTensor& t) { return clamp_max(t, 0.3F); },
         [](KTensor& t) -> KTensor& { return clamp_max_(t, 0.3F); }},
    };
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
    const std::vector<std::pair<std::function<void()>, std::string>> rows{
        {[&] { (void)concat({}, 0); }, "concat(): there is no tensor in the list."},
        {[&] {
             (void)concat({a, KTensor()});
         },
         "concat(): operand 1 is an undefined KTensor."},
        {[&] {
             (void)concat({a, b}, 1);
         },
         "concat(): operands 0 and 1, [2, 3] float32 and [4, 5] float64, differ in more than axis 1."},
        {[&] {
             (void)concat({a, a}, 2);
         },
         "concat(): [2, 3] float32 has no axis 2."},
        {[&] {
             (void)stack({a, b});
         },
         "stack(): operands 0 and 1, [2, 3] float32 and [4, 5] float64, differ in shape."},
        {[&] { (void)stack({a}, 3); }, "stack(): [2, 3] float32 takes no new axis at 3."},
        {[&] {
             (void)split(a, {1, 1}, 1);
         },
         "split(): parts of [1, 1] do not make up axis 1 of [2, 3] float32."},
        {[&] { (void)split(a, 0); }, "split(): [2, 3] float32 has no parts of 0 elements."},
        {[&] { (void)chunk(a, 0); }, "chunk(): [2, 3] float32 can not be cut into 0 parts."},
        {[&] {
             (void)moveaxis(a, {0, 1}, std::vector<int>{1});
         },
         "moveaxis(): 2 axes of [2, 3] float32 can not go to 1 positions."},
        {[&] { (void)meshgrid({a}); }, "meshgrid(): operand 0, [2, 3] float32, has more than one axis."},
        {[&] { (void)windows(a, 1, 4); },
         "windows(): windows of 4 elements, 1 apart, do not fit axis 1 of [2, 3] float32."},
        {[&] {
             (void)add_windows(a, {3, 3}, 0, 2);
         },
         "add_windows(): [2, 3] float32 are no windows of [3, 3] float32, which would be [2, 3, 2] float32."},
        {[&] { (void)tile(a, {-1}); }, "tile(): [2, 3] float32 can not be repeated [-1] times."},
        {[&] { (void)repeat_interleave(a, -2, 1); },
         "repeat_interleave(): axis 1 of [2, 3] float32 can not be repeated -2 times."},
        {[&] {
             (void)roll(a, {1, 2}, {0});
         },
         "roll(): [2, 3] float32 can not be shifted by 2 numbers of places along 1 axes."},
        {[&] {
             (void)pad(a, {{1, 1}});
         },
         "pad(): [2, 3] float32 takes 2 pairs of widths, not 1."},
        {[&] { (void)diff(KTensor::zeros({0})); }, "diff(): axis 0 of [0] float32 has no elements."},
        {[&] {
             (void)einsum("ij", {a, b});
         },
         "einsum(): \"ij\": it is about 1 operands, and 2 are given."},
        {[&] {
             (void)einsum("i1,jk", {a, b});
         },
         "einsum(): \"i1,jk\": '1' does not name an axis here."},
        {[&] { (void)einsum("i..j", {a}); }, "einsum(): \"i..j\": '.' does not name an axis here."},
        {[&] {
             (void)einsum("ijk,jk", {a, b});
         },
         "einsum(): \"ijk,jk\": operand 0, [2, 3] float32, has 2 axes, not 3."},
        {[&] { (void)einsum("ijk...", {a}); },
         "einsum(): \"ijk...\": operand 0, [2, 3] float32, has 2 axes, not 3 and more."},
        {[&] {
             (void)einsum("ij,jk", {a, b});
         },
         "einsum(): \"ij,jk\": axis 'j' has 3 elements in operand 0, [2, 3] float32, and 4 in operand 1, [4, 5] "
         "float64."},
        {[&] {
             (void)einsum("i...,...", {a, b});
         },
         "einsum(): \"i...,...\": axis -1 of the ellipsis has 3 elements in operand 0, [2, 3] float32, and 5 in "
         "operand 1, [4, 5] float64."},
        {[&] { (void)einsum("ij->ik", {a}); }, "einsum(): \"ij->ik\": axis 'k' of the result is in no operand."},
        {[&] { (void)einsum("ij->jj", {a}); }, "einsum(): \"ij->jj\": axis 'j' is named twice in the result."},
        {[&] { (void)einsum("i...->i", {a}); }, "einsum(): \"i...->i\": the result lacks the ellipsis."},
        {[&] { (void)tensordot(a, b, {1}, {0}); },
         "tensordot(): axes [1] of [2, 3] float32 do not match axes [0] of [4, 5] float64."},
        {[&] { (void)tensordot(a, b, 3); }, "tensordot(): [2, 3] float32 and [4, 5] float64 do not have 3 axes each."},
        {[&] { (void)outer(a, a); }, "outer(): takes tensors of one axis, not [2, 3] float32 and [2, 3] float32."},
        {[&] { (void)vdot(a, b); }, "vdot(): [2, 3] float32 and [4, 5] float64 differ in shape."},
        {[&] { (void)cross(a, a, 0); },
         "cross(): axis 0 of [2, 3] float32 and [2, 3] float32 does not have 3 elements."},
        {[&] { (void)bincount(a); }, "bincount(): [2, 3] float32 does not hold integers."},
        {[&] {
             (void)bincount(KTensor({1, -2}));
         },
         "bincount(): [2] int64 holds -2."},
        {[&] { (void)bincount(whole, a); }, "bincount(): weights [2, 3] float32 do not have the shape of [2] int64."},
        {[&] { (void)histogram(a, 2, 1, 0); }, "histogram(): there are no 2 intervals from 1.000000 to 0.000000."},
        {[&] {
             (void)one_hot(KTensor({0, 4}), 4);
         },
         "one_hot(): 4 is none of 4 classes."},
        {[&] { (void)one_hot(a, 4); }, "one_hot(): [2, 3] float32 does not hold integers."},
        {[&] {
             (void)interpolate(a, {4, 4});
         },
         "interpolate(): [2, 3] float32 can not be resized to [4, 4]."},
        {[&] {
             (void)pixel_shuffle(KTensor::zeros({6, 1, 1}), 2);
         },
         "pixel_shuffle(): the channels of [6, 1, 1] float32 can not be divided by 2 twice."},
        {[&] {
             (void)pixel_unshuffle(KTensor::zeros({6, 2, 1}), 2);
         },
         "pixel_unshuffle(): the rows and columns of [6, 2, 1] float32 can not be divided by 2."},
        {[&] {
             (void)adaptive_max_pool(a, {1, 1});
         },
         "adaptive_max_pool(): [2, 3] float32 does not hold channels of elements."},
        {[&] {
             (void)adaptive_max_pool(KTensor::zeros({1, 1, 3, 3}), {0, 1});
         },
         "adaptive_max_pool(): axis 2 of [1, 1, 3, 3] float32 does not have 0 windows."},
        {[&] { normal_(leaf); },
         "normal_(): a leaf that asks for gradients, [2] float32, can be changed in place only inside NoGrad."},
    };
    for (const auto& [call, message] : rows) {
        EXPECT_EQ(message_of(call), message);
    }
}

}  // namespace
}  // namespace ornik
