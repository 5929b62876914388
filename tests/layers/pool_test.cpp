// Pooling and pixel shuffles against loops; gradients against differences.
#include <cmath>
#include <limits>
#include <random>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;
using Ints = std::vector<int>;

LayerPtr make_pool(bool maximum, const Ints& kernel, const Ints& strides, const Ints& padding) {
    if (kernel.size() == 1) {
        return LayerPtr(maximum ? _MaxPool1D(kernel, strides, padding, "p")
                                : _AvgPool1D(kernel, strides, padding, "p"));
    }
    return LayerPtr(maximum ? _MaxPool2D(kernel, strides, padding, "p") : _AvgPool2D(kernel, strides, padding, "p"));
}

struct Axis {
    std::int64_t in, kernel, stride, padding;
    std::int64_t out() const { return (in + 2 * padding - kernel) / stride + 1; }
};

// All windows of one plane, by the definition.
void pool_plane(const double* x, const Axis& rows, const Axis& cols, bool maximum, std::vector<double>& y) {
    for (std::int64_t r = 0; r < rows.out(); ++r) {
        for (std::int64_t c = 0; c < cols.out(); ++c) {
            double result = maximum ? -std::numeric_limits<double>::infinity() : 0;
            for (std::int64_t i = 0; i < rows.kernel * cols.kernel; ++i) {
                const std::int64_t row = r * rows.stride - rows.padding + i / cols.kernel;
                const std::int64_t col = c * cols.stride - cols.padding + i % cols.kernel;
                if (row >= 0 && row < rows.in && col >= 0 && col < cols.in) {
                    const double value = x[row * cols.in + col];
                    result = maximum ? std::max(result, value) : result + value;
                }
            }
            y.push_back(maximum ? result : result / static_cast<double>(rows.kernel * cols.kernel));
        }
    }
}

TEST(Pool, RandomSizesAgainstTheDefinition) {
    std::mt19937 random(11);
    const auto draw = [&](int low, int high) {
        return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
    };
    for (unsigned i = 0; i < 300; ++i) {
        const int kernel[] = {draw(1, 4), draw(1, 4)};
        const Axis rows{draw(4, 9), kernel[0], draw(1, 3), draw(0, kernel[0] - 1)};
        const Axis cols{draw(4, 40), kernel[1], draw(1, 3), draw(0, kernel[1] - 1)};
        const bool flat = i % 3 == 0;
        const Axis used = flat ? Axis{1, 1, 1, 0} : rows;
        const auto entries = [&](std::int64_t row, std::int64_t col) {
            return flat ? Ints{static_cast<int>(col)} : Ints{static_cast<int>(row), static_cast<int>(col)};
        };
        for (const bool maximum : {true, false}) {
            SCOPED_TRACE(testing::Message() << "case " << i << (maximum ? " max" : " average"));
            const LayerPtr layer = make_pool(maximum, entries(rows.kernel, cols.kernel),
                                             entries(rows.stride, cols.stride), entries(rows.padding, cols.padding));
            const Dims shape = flat ? Dims{2, 3, cols.in} : Dims{2, 3, rows.in, cols.in};
            const TensorPtr x = random_tensor(shape, dtype::float64, i, all_layouts[i % 5]);
            const std::vector<double> in = values_of<double>(x);
            std::vector<double> expected;
            for (std::int64_t plane = 0; plane < 6; ++plane) {
                pool_plane(in.data() + plane * used.in * cols.in, used, cols, maximum, expected);
            }
            const TensorPtr y(layer->forward_dyn(x.get()));
            EXPECT_EQ(y->Shape(), flat ? (Dims{2, 3, cols.out()}) : (Dims{2, 3, rows.out(), cols.out()}));
            const std::vector<double> out = values_of<double>(y);
            ASSERT_EQ(out.size(), expected.size());
            for (std::size_t k = 0; k < out.size(); ++k) {
                EXPECT_NEAR(out[k], expected[k], maximum ? 0 : 1e-15);
            }
            if (i % 10 == 0) {
                const TensorPtr g = random_tensor(y->Shape(), dtype::float64, i + 1, all_layouts[i % 5]);
                std::vector<Tensor*> saved = layer->get_fwd_cache();
                EXPECT_EQ(saved.size(), maximum ? 1U : 0U);
                expect_gradient([&](Tensor* t) { return layer->forward_dyn(t); }, x, g,
                                layer->backward_dyn(x.get(), g.get(), saved));
            }
        }
    }
}

TEST(Pool, PaddingTypesAndTies) {
    const TensorPtr x = make<float>({1, 1, 5, 5}, counted<float>(25));
    const auto shape = [&](const Ints& kernel, const Ints& strides, const std::string& padding) {
        return TensorPtr(LayerPtr(_MaxPool2D(kernel, strides, padding, ""))->forward_dyn(x.get()))->Shape();
    };
    EXPECT_EQ(shape({2, 2}, {2, 2}, "same"), (Dims{1, 1, 3, 3}));
    EXPECT_EQ(shape({2, 2}, {2, 2}, "valid"), (Dims{1, 1, 2, 2}));
    EXPECT_EQ(shape({3, 3}, {1, 2}, "zeros"), (Dims{1, 1, 5, 3}));
    EXPECT_EQ(shape({3, 3}, {1, 1}, "same,none"), (Dims{1, 1, 5, 3}));
    EXPECT_EQ(shape({3, 3}, {1, 1}, "none,same"), (Dims{1, 1, 3, 5}));
    // The larger half of the padding is in front: the first window of "same" holds one element.
    const TensorPtr row = make<float>({1, 1, 5}, {9, -2, 7, 7, 5});
    EXPECT_EQ(values_of<float>(TensorPtr(LayerPtr(_MaxPool1D({2}, {2}, "same", ""))->forward_dyn(row.get()))),
              (std::vector<float>{9, 7, 7}));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float low = -std::numeric_limits<float>::infinity();
    const LayerPtr pairs(_MaxPool1D({2}, {2}, "none", ""));
    for (const std::int64_t n : {6, 40}) {  // Narrow outputs take another way than wide ones.
        std::vector<float> values(static_cast<std::size_t>(n), 3.0F);
        values[1] = nan;
        values[2] = values[3] = low;
        const TensorPtr special = make<float>({1, 1, n}, values);
        const std::vector<float> out = values_of<float>(TensorPtr(pairs->forward_dyn(special.get())));
        EXPECT_TRUE(std::isnan(out[0]));
        EXPECT_EQ(out[1], low);
        const std::vector<std::int32_t> at = values_of<std::int32_t>(pairs->get_fwd_cache()[0]);
        EXPECT_EQ((std::vector<std::int32_t>(at.begin(), at.begin() + 3)), (std::vector<std::int32_t>{1, 2, 4}));
    }
}

TEST(Pool, RefusesWhatNoForwardPassSaved) {
    const LayerPtr pool(_MaxPool2D({2, 2}, {2, 2}, "valid", ""));
    const TensorPtr x(Tensor::ones({1, 1, 4, 4}, 0, dtype::float32)), g(Tensor::ones({1, 1, 2, 2}, 0, dtype::float32));
    const auto refused = [&](std::vector<Tensor*> saved, const std::string& message) {
        expect_error([&] { pool->backward_dyn(x.get(), g.get(), saved); }, message, "ornik::LMaxPool2D::float_backward",
                     "src/layers/pool/layer_pool.cpp");
    };
    refused({}, "The backward pass of pooling needs a forward pass before.");
    for (const int outside : {-1, 16}) {
        const TensorPtr positions = make<std::int32_t>({1, 1, 2, 2}, {0, 15, outside, 3});
        refused({positions.get()}, "The saved positions of pooling are out of range.");
    }
    EXPECT_EQ(pool->backward_dyn(x.get(), g.get()), nullptr);
}

TEST(Determinism, EmbeddingAndPoolsAtEveryTeamSize) {
    const TensorPtr indices(Tensor::zeros({5000}, 0, dtype::int64)), weight(Tensor::zeros({3, 100}, 0, dtype::float32));
    const TensorPtr g = random_tensor({5000, 100}, dtype::float32, 1);
    const TensorPtr x = random_tensor({4, 8, 50, 50}, dtype::float32, 2);
    const LayerPtr layer(_Embedding(3, 100, "")), pool(_AvgPool2D({3, 3}, {2, 2}, "same", ""));
    expect_same_bits([&] { return layer->backward_dyn(weight.get(), nullptr, indices.get(), g.get(), 1); },
                     "embedding");
    expect_same_bits([&] { return pool->forward_dyn(x.get()); }, "pool");
}

TEST(PixelShuffle, PlacesEveryElementAndBack) {
    const LayerPtr shuffle(_PixelShuffle(3, "")), unshuffle(_PixelUnshuffle(3, ""));
    EXPECT_EQ(shuffle->get_name(), "pixel_shuffle");
    EXPECT_EQ(unshuffle->get_name(), "pixel_unshuffle");
    for (const Layout layout : all_layouts) {
        const TensorPtr x = make<std::int32_t>({2, 18, 2, 4}, counted<std::int32_t>(288), layout);
        const TensorPtr y(shuffle->forward_dyn(x.get()));
        EXPECT_EQ(y->Shape(), (Dims{2, 2, 6, 12}));
        const std::vector<std::int32_t> values = values_of<std::int32_t>(y);
        for (std::int32_t i = 0; i < 288; ++i) {
            const std::int32_t w = i % 12, h = i / 12 % 6, c = i / 72;
            EXPECT_EQ(values[static_cast<std::size_t>(i)], ((c * 3 + h % 3) * 3 + w % 3) * 8 + h / 3 * 4 + w / 3);
        }
        EXPECT_EQ(values_of<std::int32_t>(TensorPtr(shuffle->backward_dyn(y.get()))), values_of<std::int32_t>(x));
        EXPECT_EQ(values_of<std::int32_t>(TensorPtr(unshuffle->forward_dyn(y.get()))), values_of<std::int32_t>(x));
        EXPECT_EQ(values_of<std::int32_t>(TensorPtr(unshuffle->backward_dyn(x.get()))), values);
        expect_error([&] { shuffle->forward_dyn(y.get()); },
                     "A pixel shuffle by 3 can not divide the channels of ( 2, 2, 6, 12 ) ",
                     "ornik::LPixelShuffle::forward_dyn", "src/layers/layer_pixel_shuffle.cpp");
    }
}

}  // namespace
}  // namespace ornik::test
