// Images in blocks: the bits of the operations on planes.
#include <cmath>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using nn::BlockedImage;
using nn::LayerEnd;

constexpr LayerEnd all_ends[] = {LayerEnd::none,    LayerEnd::relu,        LayerEnd::relu6,
                                 LayerEnd::sigmoid, LayerEnd::tanh,        LayerEnd::silu,
                                 LayerEnd::gelu,    LayerEnd::hardsigmoid, LayerEnd::hardswish};

struct Case {
    Dims input, weight;
    nn::ConvParameters parameters;
};

nn::ConvParameters square(std::int64_t stride, std::int64_t padding, std::int64_t groups = 1,
                          std::int64_t dilation = 1) {
    return {.stride = {stride, stride},
            .padding = {{{padding, padding}, {padding, padding}}},
            .dilation = {dilation, dilation},
            .groups = groups};
}

// From blocks and from planes, with and without bias and residual, with every end.
void expect_bits_of_planes(const Case& c, std::int64_t type, Layout layout) {
    const TensorPtr x = random_tensor(c.input, type, 1, layout);
    const TensorPtr w = random_tensor(c.weight, type, 2), b = random_tensor({c.weight[0]}, type, 3);
    const BlockedImage image(x.get());
    for (Tensor* const bias : {b.get(), static_cast<Tensor*>(nullptr)}) {
        const nn::PreparedConvolution layer(w.get(), bias, c.parameters);
        ASSERT_TRUE(layer.takes_blocks());
        const TensorPtr added = random_tensor(layer(x.get())->Shape(), type, 9, Layout::every_other);
        const BlockedImage added_blocks(added.get());
        for (const bool adds : {true, false}) {
            for (const LayerEnd end : all_ends) {
                const auto expected = bytes_of(layer(x.get(), end, adds ? added.get() : nullptr));
                const BlockedImage* const residual = adds ? &added_blocks : nullptr;
                EXPECT_EQ(bytes_of(layer.blocked(image, end, residual).planes()), expected)
                    << static_cast<int>(end) << adds << (bias != nullptr);
                EXPECT_EQ(bytes_of(layer.blocked(x.get(), end, residual).planes()), expected)
                    << static_cast<int>(end) << adds << (bias != nullptr);
            }
        }
    }
}

constexpr std::int64_t dtypes[] = {dtype::float32, dtype::float64};

TEST(BlockedImages, ConvolutionsHaveTheBitsOfPlanes) {
    const Case cases[] = {
        {{2, 40, 11, 9}, {48, 40, 3, 3}, square(1, 1)},
        {{1, 3, 23, 70}, {32, 3, 7, 7}, square(2, 3)},
        {{3, 300, 7, 7}, {64, 300, 1, 1}, {}},
        {{9, 20, 7, 7}, {93, 20, 3, 3}, square(1, 1)},
        {{2, 24, 15, 17}, {16, 24, 1, 1}, square(2, 0)},
        {{1, 33, 24, 37}, {29, 33, 1, 1}, {}},
        {{1, 17, 9, 50}, {32, 17, 2, 5}, {.stride = {1, 3}, .padding = {{{1, 0}, {4, 2}}}, .dilation = {3, 2}}},
        {{1, 70, 14, 13}, {16, 70, 5, 1}, {.padding = {{{3, 9}, {0, 0}}}}},
        {{2, 5, 40, 1}, {16, 5, 4, 1}, {.stride = {3, 1}}},
        {{1, 1, 3, 2}, {16, 1, 3, 3}, square(1, 2)},
        {{2, 48, 19, 17}, {48, 1, 3, 3}, square(1, 1, 48)},
        {{2, 30, 18, 20}, {30, 1, 3, 3}, square(2, 1, 30)},
        {{1, 40, 37, 31}, {40, 1, 3, 3}, square(1, 1, 40)},
        {{1, 29, 9, 6}, {29, 1, 5, 2}, {.padding = {{{3, 2}, {1, 0}}}, .dilation = {2, 1}, .groups = 29}},
        {{1, 16, 2, 1}, {16, 1, 7, 7}, square(3, 5, 16)},
        {{3, 32, 4, 30}, {32, 1, 1, 1}, square(1, 1, 32)},
    };
    for (const std::int64_t type : dtypes) {
        std::size_t index = 0;
        for (const Case& c : cases) {
            SCOPED_TRACE(std::to_string(type) + " case " + std::to_string(index));
            expect_bits_of_planes(c, type, all_layouts[index++ % std::size(all_layouts)]);
        }
    }
}

TEST(BlockedImages, PoolsHaveTheBitsOfPlanes) {
    const nn::PoolParameters pools[] = {
        {{3, 3}, {2, 2}, {1, 1}}, {{2, 3}, {1, 3}, {0, 2}}, {{7, 7}, {1, 1}, {3, 3}}, {{1, 1}, {2, 3}, {0, 0}}};
    const double special[] = {NAN, -HUGE_VAL, 0.0, -0.0, 1.0};
    for (const std::int64_t type : dtypes) {
        for (const Dims& shape : {Dims{1, 35, 41, 29}, Dims{1, 16, 30, 41}, Dims{3, 1, 7, 70}, Dims{0, 5, 7, 7}}) {
            const TensorPtr x = random_tensor(shape, type, 4);
            for (std::int64_t i = 0; i < x->Size(); i += 3) {
                const double value = special[static_cast<std::size_t>(i % 5)];
                if (type == dtype::float64) {
                    static_cast<double*>(x->getRawData())[i] = value;
                } else {
                    static_cast<float*>(x->getRawData())[i] = static_cast<float>(value);
                }
            }
            const BlockedImage image(x.get());
            EXPECT_EQ(bytes_of(image.planes()), bytes_of(x));
            EXPECT_EQ(image.dtype(), type);
            EXPECT_EQ(bytes_of(nn::global_average(image)), bytes_of(nn::adaptive_average_pool(x.get(), {1, 1})));
            for (const nn::PoolParameters& pool : pools) {
                const BlockedImage highest = nn::max_pool(image, pool), mean = nn::average_pool(image, pool);
                const nn::MaxPool plain = nn::max_pool(x.get(), pool);
                EXPECT_EQ(highest.shape(), plain.output->Shape());
                EXPECT_EQ(bytes_of(highest.planes()), bytes_of(plain.output));
                EXPECT_EQ(bytes_of(mean.planes()), bytes_of(nn::average_pool(x.get(), pool)));
            }
        }
    }
}

TEST(BlockedImages, Refusals) {
    const TensorPtr w = random_tensor({32, 4, 3, 3}, dtype::float32, 1),
                    x = random_tensor({1, 4, 5, 5}, dtype::float32, 2),
                    wide = random_tensor({1, 4, 5, 5}, dtype::float64, 3),
                    few = random_tensor({1, 4, 3, 3}, dtype::float32, 4),
                    flat = random_tensor({4, 5, 5}, dtype::float32, 5),
                    complex = random_tensor({1, 4, 5, 5}, dtype::complex64, 6);
    const nn::PreparedConvolution layer(w.get()), narrow(few.get());
    const BlockedImage image(x.get()), other(wide.get()), none(make_empty({0, 4, 6, 5}, dtype::float32).get());
    EXPECT_EQ(layer.blocked(none).shape(), (Dims{0, 32, 4, 3}));
    EXPECT_EQ(layer.blocked(none).planes()->Shape(), (Dims{0, 32, 4, 3}));
    EXPECT_REFUSAL(BlockedImage(flat.get()), "BlockedImage needs planes (N, C, H, W), however they are ( 4, 5, 5 ) ");
    EXPECT_REFUSAL(BlockedImage(complex.get()), "Not valid dtype for this function.");
    EXPECT_REFUSAL(BlockedImage(static_cast<Tensor*>(nullptr)), "An operand is null, a tensor is needed.");
    EXPECT_REFUSAL(layer.blocked(other), "Not same data type");
    EXPECT_REFUSAL(layer.blocked(wide.get()), "Not same data type");
    EXPECT_REFUSAL(layer.blocked(static_cast<Tensor*>(nullptr)), "PreparedConvolution needs an input.");
    EXPECT_REFUSAL(layer.blocked(image, LayerEnd::none, &other),
                   "Not same data type for inputs of PreparedConvolution.");
    EXPECT_REFUSAL(layer.blocked(image, LayerEnd::none, &image),
                   "PreparedConvolution adds a residual of the shape ( 1, 32, 3, 3 ) , however it is ( 1, 4, 5, 5 ) ");
    EXPECT_REFUSAL(layer.blocked(layer.blocked(image)),
                   "A weight ( 32, 4, 3, 3 ) in 1 groups does not fit an input ( 1, 32, 3, 3 ) ");
    EXPECT_FALSE(narrow.takes_blocks());
    EXPECT_REFUSAL(narrow.blocked(image),
                   "PreparedConvolution of a weight ( 1, 4, 3, 3 ) in 1 groups takes no blocks.");
    EXPECT_FALSE(nn::PreparedConvolution(w.get(), nullptr, {.transposed = true}).takes_blocks());
    EXPECT_FALSE(nn::PreparedConvolution(w.get(), nullptr, {.groups = 2}).takes_blocks());
    EXPECT_REFUSAL(nn::max_pool(image, {{6, 6}, {1, 1}, {0, 0}}),
                   "Invalid output shape: a window of 6 does not fit into 5 positions of max_pool's input");
    EXPECT_REFUSAL(nn::average_pool(image, {{2, 2}, {0, 1}, {0, 0}}),
                   "Kernel and stride of average_pool should be at least 1, however they are 2 and 0");
}

}  // namespace
}  // namespace ornik::test
