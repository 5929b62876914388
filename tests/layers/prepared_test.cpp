// Prepared layers: the bits of the operations that they stand for, one after the other.
#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using nn::LayerEnd;

TensorPtr ended(TensorPtr sum, LayerEnd end, Tensor* residual) {
    if (residual != nullptr) {
        add(1.0F, sum.get(), 1.0F, residual, sum.get(), 0);
    }
    switch (end) {
        case LayerEnd::relu:
            return nn::relu(sum.get());
        case LayerEnd::relu6:
            return nn::hardtanh(sum.get(), 0, 6);
        case LayerEnd::sigmoid:
            return TensorPtr(sum->sigmoid());
        case LayerEnd::tanh:
            return TensorPtr(sum->tanh());
        case LayerEnd::silu:
            return TensorPtr(sum->silu());
        case LayerEnd::gelu:
            return TensorPtr(sum->gelu());
        case LayerEnd::hardsigmoid:
            return nn::hardsigmoid(sum.get());
        case LayerEnd::hardswish:
            return nn::hardswish(sum.get());
        default:
            return sum;
    }
}

constexpr LayerEnd all_ends[] = {LayerEnd::none,    LayerEnd::relu,        LayerEnd::relu6,
                                 LayerEnd::sigmoid, LayerEnd::tanh,        LayerEnd::silu,
                                 LayerEnd::gelu,    LayerEnd::hardsigmoid, LayerEnd::hardswish};

// With and without bias and residual, with every end that the dtype has.
template <typename Prepare, typename Plain>
void expect_same_bits(const TensorPtr& x, const TensorPtr& b, const Prepare& prepare, const Plain& plain) {
    for (Tensor* const bias : {b.get(), static_cast<Tensor*>(nullptr)}) {
        const auto layer = prepare(bias);
        EXPECT_GT(layer.bytes(), 0);
        const TensorPtr like = plain(bias);
        const TensorPtr added = random_tensor(like->Shape(), x->Dtype(), 9, Layout::every_other);
        for (Tensor* const residual : {added.get(), static_cast<Tensor*>(nullptr)}) {
            for (const LayerEnd end : all_ends) {
                if (end == LayerEnd::none || !x->isComplexType()) {
                    EXPECT_EQ(bytes_of(layer(x.get(), end, residual)), bytes_of(ended(plain(bias), end, residual)))
                        << static_cast<int>(end) << (residual != nullptr) << (bias != nullptr);
                }
            }
        }
    }
}

constexpr std::int64_t dtypes[] = {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128};

TEST(PreparedLayers, ConvolutionsHaveTheBitsOfTheSequence) {
    const struct {
        Dims input, weight;
        nn::ConvParameters parameters;
    } cases[] = {
        {{2, 40, 11, 9}, {35, 40, 3, 3}, {.padding = {{{1, 1}, {1, 1}}}}},
        {{1, 3, 23, 70}, {33, 3, 7, 7}, {.stride = {2, 2}, .padding = {{{3, 3}, {3, 3}}}}},
        {{3, 70, 7, 7}, {64, 70, 1, 1}, {}},
        {{2, 24, 9, 17}, {24, 1, 3, 3}, {.stride = {2, 1}, .padding = {{{1, 1}, {2, 0}}}, .groups = 24}},
        {{1, 32, 15, 6}, {64, 16, 2, 3}, {.dilation = {3, 2}, .groups = 2}},
        {{2, 5, 40}, {7, 5, 4}, {.stride = {3, 1}, .padding = {{{2, 1}, {0, 0}}}}},
        {{2, 33, 19}, {32, 33, 5}, {}},
        {{2, 300, 24, 25}, {18, 300, 1, 1}, {}},
        {{1, 24, 23, 23}, {8, 12, 1, 1}, {.groups = 2}},
        {{2, 8, 9, 6}, {16, 1, 5, 2}, {.padding = {{{3, 2}, {1, 0}}}, .dilation = {2, 1}, .groups = 8}},
        {{2, 16, 5, 6}, {16, 9, 4, 3}, {.stride = {2, 2}, .padding = {{{1, 1}, {1, 0}}}, .transposed = true}},
    };
    for (const std::int64_t type : dtypes) {
        std::int64_t seed = 0;
        for (const auto& c : cases) {
            const Layout layout = all_layouts[static_cast<std::size_t>(++seed) % std::size(all_layouts)];
            const TensorPtr x = random_tensor(c.input, type, 1, layout);
            const TensorPtr w = random_tensor(c.weight, type, 2, layout);
            const TensorPtr b = random_tensor({c.weight[c.parameters.transposed ? 1 : 0]}, type, 3, layout);
            SCOPED_TRACE(std::to_string(type) + " case " + std::to_string(seed));
            expect_same_bits(
                x, b, [&](Tensor* bias) { return nn::PreparedConvolution(w.get(), bias, c.parameters); },
                [&](Tensor* bias) { return nn::convolution(x.get(), w.get(), bias, c.parameters); });
        }
    }
}

TEST(PreparedLayers, LinearMapsHaveTheBitsOfTheSequence) {
    for (const std::int64_t type : dtypes) {
        for (const Dims& size :
             {Dims{1, 300, 37}, Dims{20, 40, 70}, Dims{130, 520, 20}, Dims{260, 1024, 100}, Dims{64, 8, 1}}) {
            const TensorPtr x = random_tensor({size[0], size[1]}, type, 1, Layout::transposed);
            const TensorPtr w = random_tensor({size[2], size[1]}, type, 2), b = random_tensor({size[2]}, type, 3);
            expect_same_bits(
                x, b, [&](Tensor* bias) { return nn::PreparedLinear(w.get(), bias); },
                [&](Tensor* bias) {
                    TensorPtr y = nn::linear(x.get(), w.get(), nullptr);
                    return bias == nullptr ? std::move(y)
                                           : ended(std::move(y), LayerEnd::none,
                                                   TensorPtr(Tensor::broadcast_to(bias, {size[0], size[2]})).get());
                });
            const TensorPtr sum = ended(nn::linear(x.get(), w.get(), nullptr), LayerEnd::none,
                                        TensorPtr(Tensor::broadcast_to(b.get(), {size[0], size[2]})).get());
            EXPECT_EQ(bytes_of(nn::linear(x.get(), w.get(), b.get())), bytes_of(sum));
        }
    }
}

TEST(PreparedLayers, Refusals) {
    const TensorPtr w = random_tensor({4, 3, 3, 3}, dtype::complex64, 1),
                    x = random_tensor({1, 3, 5, 5}, dtype::complex64, 2);
    const TensorPtr narrow = random_tensor({1, 4, 2, 3}, dtype::complex64, 3),
                    other = random_tensor({1, 3, 5, 5}, dtype::float32, 4);
    const nn::PreparedConvolution layer(w.get());
    const TensorPtr none = make_empty({0, 3, 6, 5}, dtype::complex64);
    EXPECT_EQ(layer(none.get())->Shape(), (Dims{0, 4, 4, 3}));
    EXPECT_REFUSAL(nn::PreparedConvolution(nullptr), "PreparedConvolution needs a weight.");
    EXPECT_REFUSAL(layer(nullptr), "PreparedConvolution needs an input.");
    EXPECT_REFUSAL(layer(other.get()), "Not same data type");
    EXPECT_REFUSAL(layer(x.get(), LayerEnd::relu), "Not valid dtype for this function.");
    EXPECT_REFUSAL(layer(x.get(), LayerEnd::none, narrow.get()),
                   "PreparedConvolution adds a residual of the shape ( 1, 4, 3, 3 ) , however it is ( 1, 4, 2, 3 ) ");
    EXPECT_REFUSAL(layer(narrow.get()), "A weight ( 4, 3, 3, 3 ) in 1 groups does not fit an input ( 1, 4, 2, 3 ) ");
    EXPECT_REFUSAL(nn::PreparedConvolution(w.get(), x.get()),
                   "The bias of a convolution with 4 output channels has the shape ( 1, 3, 5, 5 ) ");
    const TensorPtr flat = random_tensor({4, 3}, dtype::float32, 5);
    EXPECT_REFUSAL(nn::PreparedConvolution(flat.get()),
                   "PreparedConvolution needs a weight of 3 or 4 axes, however it is ( 4, 3 ) ");
}

}  // namespace
}  // namespace ornik::test
