// Pooling, embedding and pixel shuffles against loops; gradients against differences.
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

TEST(Pool, PaddingTypesTiesAndDtypes) {
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
    const TensorPtr z = random_tensor({2, 1, 6, 5}, dtype::complex128, 3);
    const LayerPtr average(_AvgPool2D({3, 2}, {2, 1}, "valid", "a"));
    const TensorPtr g = random_tensor({2, 1, 2, 4}, dtype::complex128, 4);
    std::vector<Tensor*> none;
    expect_gradient([&](Tensor* t) { return average->forward_dyn(t); }, z, g,
                    average->backward_dyn(z.get(), g.get(), none));
}

TEST(Pool, Refusals) {
    const Ints two{2, 2}, one_two{1, 2}, two_zero{2, 0};
    const Refusal built[] = {
        {"2D", [=] { _MaxPool2D({2}, two, "same", ""); }, "kernel_size for MaxPool2d should contain two elements."},
        {"1D", [=] { _AvgPool1D({2}, two, "same", ""); }, "strides for AvgPool1d should be integer."},
        {"2D", [=] { _MaxPool2D(two, two, Ints{1}, ""); }, "padding for MaxPool2d should contain two elements."},
        {"2D", [=] { _MaxPool2D(two, two, one_two, ""); },
         "padding for MaxPool2d should be at least 0 and less than kernel_size."},
        {"2D", [=] { _MaxPool2D(two, two_zero, "same", ""); },
         "kernel_size and strides for MaxPool2d should be at least 1."},
        {"1D", [=] { _MaxPool1D({2}, {2}, "same,none", ""); }, "Incorrect padding type (same,none)"},
    };
    for (const Refusal& row : built) {
        expect_error(row.call, row.message, "ornik::LPool" + row.function + "::LPool" + row.function,
                     "src/layers/pool/layer_pool.cpp");
    }

    const LayerPtr pool(_MaxPool2D({2, 2}, {2, 2}, "valid", ""));
    const TensorPtr x(Tensor::ones({1, 1, 4, 4}, 0, dtype::float32));
    const TensorPtr g(Tensor::ones({1, 1, 2, 2}, 0, dtype::float32));
    const auto forward = [&](const TensorPtr& in, const std::string& message) {
        expect_error([&] { pool->forward_dyn(in.get()); }, message, "ornik::LMaxPool2D::_forward_dyn",
                     "src/layers/pool/layer_pool.cpp");
    };
    const auto backward = [&](const TensorPtr& gradient, std::vector<Tensor*> saved, const std::string& message) {
        expect_error([&] { pool->backward_dyn(x.get(), gradient.get(), saved); }, message,
                     "ornik::LMaxPool2D::float_backward", "src/layers/pool/layer_pool.cpp");
    };
    forward(TensorPtr(Tensor::ones({1, 4, 4}, 0, dtype::float32)),
            "MaxPool2d only accepts 4D input, however it is ( 1, 4, 4 ) ");
    forward(TensorPtr(Tensor::ones({1, 1, 4, 1}, 0, dtype::float32)),
            "Invalid output shape: a window of 2 does not fit into 1 positions of MaxPool2d's input");
    forward(TensorPtr(Tensor::ones({1, 1, 4, 4}, 0, dtype::complex64)), "Not valid dtype for this function.");
    backward(g, {}, "The backward pass of pooling needs a forward pass before.");
    backward(x, {}, "Pooling needs a gradient of its output's shape.");
    backward(g, {g.get()}, "The saved positions of pooling should be one int32 tensor of its output's shape.");
    for (const int outside : {-1, 16}) {
        const TensorPtr positions = make<std::int32_t>({1, 1, 2, 2}, {0, 15, outside, 3});
        backward(g, {positions.get()}, "The saved positions of pooling are out of range.");
    }
    std::vector<Tensor*> none;
    EXPECT_EQ(pool->backward_dyn(x.get(), g.get()), nullptr);
}

TEST(Embedding, RowsAndTheirGradient) {
    const LayerPtr layer(_Embedding(7, 40, ""));
    EXPECT_EQ(layer->get_name(), "embedding");
    const TensorPtr indices = make<std::int16_t>({2, 3}, {6, 0, 6, 2, 6, 0}, Layout::transposed);
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        const TensorPtr weight = random_tensor({7, 40}, dtype, 1, Layout::transposed);
        const TensorPtr g = random_tensor({2, 3, 40}, dtype, 2, Layout::reversed);
        expect_gradient([&](Tensor* w) { return layer->forward_dyn(w, nullptr, indices.get()); }, weight, g,
                        layer->backward_dyn(weight.get(), nullptr, indices.get(), g.get(), 1));
        EXPECT_EQ(layer->backward_dyn(weight.get(), nullptr, indices.get(), g.get(), 0), nullptr);
    }
    const TensorPtr weight = make<float>({7, 40}, counted<float>(280));
    const std::vector<float> rows =
        values_of<float>(TensorPtr(layer->forward_dyn(weight.get(), nullptr, indices.get())));
    EXPECT_EQ(rows[3 * 40 + 5], 2 * 40 + 5);
    EXPECT_EQ(rows[5 * 40 + 39], 39);
    const TensorPtr below = make<std::int8_t>({1}, {-1}), beyond = make<std::int8_t>({1}, {7});
    const TensorPtr real = make<float>({1}, {1}), small(Tensor::ones({2, 2}, 0, dtype::float32));
    Tensor* const n = nullptr;
    const auto look_up = [&](Tensor* table, const TensorPtr& input) {
        return [&layer, &input, table, n] { layer->forward_dyn(table, n, input.get()); };
    };
    const Refusal refusals[] = {
        {"forward_dyn", look_up(weight.get(), below), "Embedding index out of range, there are 7 rows."},
        {"forward_dyn", look_up(weight.get(), beyond), "Embedding index out of range, there are 7 rows."},
        {"forward_dyn", look_up(weight.get(), real), "Embedding needs integers as input."},
        {"forward_dyn", look_up(indices.get(), indices), "Embedding only supports float or complex."},
        {"forward_dyn", look_up(n, indices), "Embedding needs a weight and an input."},
        {"forward_dyn", look_up(small.get(), indices),
         "Embedding needs a weight of shape ( 7, 40 ) , however it is ( 2, 2 ) "},
        {"backward_dyn", [&] { layer->backward_dyn(n, n, n, n, 3); }, "NOT impl grad for this Node"},
    };
    expect_refusals(refusals, "ornik::LEmbedding::", "src/layers/layer_embedding.cpp");
    layer->_trainable = false;
    EXPECT_EQ(layer->backward_dyn(weight.get(), nullptr, indices.get(), weight.get(), 1), nullptr);
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
    const LayerPtr shuffle(_PixelShuffle(3, ""));
    const LayerPtr unshuffle(_PixelUnshuffle(3, ""));
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
        expect_error([&] { unshuffle->forward_dyn(x.get()); },
                     "A pixel unshuffle by 3 can not divide the rows and columns of ( 2, 18, 2, 4 ) ",
                     "ornik::LPixelUnshuffle::forward_dyn", "src/layers/layer_pixel_shuffle.cpp");
        expect_error([&] { shuffle->forward_dyn(y.get()); },
                     "A pixel shuffle by 3 can not divide the channels of ( 2, 2, 6, 12 ) ",
                     "ornik::LPixelShuffle::forward_dyn", "src/layers/layer_pixel_shuffle.cpp");
    }
    expect_error([] { _PixelShuffle(0, ""); },
                 "The factor of a pixel shuffle should be at least 1, however it equals 0",
                 "ornik::LPixelShuffle::LPixelShuffle", "src/layers/layer_pixel_shuffle.cpp");
}

}  // namespace
}  // namespace ornik::test
