// layer_rows_test.cpp: gradients of activations, convolutions, pools and normalizations.
#include "ktensor/activations.h"
#include "ktensor/convolutions.h"
#include "ktensor/losses.h"
#include "ktensor/networks.h"
#include "ktensor/normalizations.h"
#include "random/generator.h"
#include "rows.h"

namespace ornik::gradcheck {

namespace {

nn::ConvParameters strided(bool transposed) {
    nn::ConvParameters p;
    p.stride = {2, 1};
    p.padding = {PaddingPair{1, 0}, PaddingPair{1, 1}};
    p.groups = 2;
    p.transposed = transposed;
    return p;
}

nn::PoolParameters window() { return {{2, 2}, {2, 1}, {1, 0}}; }

// The same elements are dropped at every call.
KTensor seeded(KTensor (*drop)(const KTensor&, double, bool), const KTensor& x) {
    set_random_seed(5);
    return drop(x, 0.4, true);
}

// LSTM and GRU with all operands; results joined so that every gradient is asked for.
RecurrentParameters parameters_of(const Tensors& x, std::size_t first) {
    return {x[first], x[first + 1], x[first + 2], x[first + 3]};
}

}  // namespace

std::vector<Row> network_rows() {
    const Dims packed{3, 2, 1};  // Batch sizes of sequences of 3, 2 and 1 steps.
    return {
        {Op::linear, {{2, 2, 3}, {4, 3}, {4}}, [](const Tensors& x) { return linear(x[0], x[1], x[2]); }, true},
        {Op::linear, {{2, 3}, {4, 3}}, [](const Tensors& x) { return linear(x[0], x[1]); }, true},
        {Op::embedding,
         {{4, 3}},
         [](const Tensors& x) {
             return embedding(KTensor({{1, 0}, {1, 3}}), x[0]);
         },
         true},
        {Op::scaled_dot_product_attention,
         {{2, 3, 4}, {2, 5, 4}, {2, 5, 2}},
         [](const Tensors& x) { return scaled_dot_product_attention(x[0], x[1], x[2]); }},
        {Op::scaled_dot_product_attention,
         {{2, 3, 4}, {2, 3, 4}, {2, 3, 4}, {3, 3}},
         [](const Tensors& x) {
             return scaled_dot_product_attention(x[0], x[1], x[2], {.mask = x[3], .causal = true, .scale = 0.7});
         }},
        {Op::lstm,
         {{3, 2, 3}, {2, 2}, {2, 2}, {8, 3}, {8, 2}, {8}, {8}},
         [](const Tensors& x) { return lstm(x[0], x[1], x[2], parameters_of(x, 3)).output; }},
        {Op::lstm,
         {{6, 3}, {3, 2}, {3, 2}, {8, 3}, {8, 2}, {8}, {8}},
         [packed](const Tensors& x) { return lstm(x[0], x[1], x[2], parameters_of(x, 3), true, packed).cell; }},
        {Op::gru,
         {{3, 2, 3}, {2, 2}, {6, 3}, {6, 2}, {6}, {6}},
         [](const Tensors& x) { return gru(x[0], x[1], parameters_of(x, 2)).output; }},
        {Op::gru,
         {{6, 3}, {3, 2}, {6, 3}, {6, 2}, {6}, {6}},
         [packed](const Tensors& x) { return gru(x[0], x[1], parameters_of(x, 2), true, packed).hidden; }},
    };
}

std::vector<Row> loss_rows() {
    const Dims s{2, 3};
    const KTensor labels({2, 0});
    const KTensor weights({0.5, 2.0, 1.5});
    std::vector<Row> rows{
        {Op::cross_entropy, {s}, [=](const Tensors& x) { return cross_entropy(x[0], labels); }},
        {Op::cross_entropy,
         {s},
         [=](const Tensors& x) {
             return cross_entropy(x[0], labels,
                                  {.reduction = Reduction::none, .weight = weights, .label_smoothing = 0.1});
         }},
        {Op::cross_entropy, {s, s}, [](const Tensors& x) { return cross_entropy(x[0], x[1]); }, false, 0.1, 1},
        {Op::nll_loss, {s}, [=](const Tensors& x) { return nll_loss(x[0], labels, {.weight = weights}); }},
        {Op::nll_loss, {s}, [=](const Tensors& x) { return nll_loss(x[0], labels, {.ignore_index = 0}); }},
        {Op::kl_div, {s, s}, [](const Tensors& x) { return kl_div(x[0], x[1], true, Reduction::sum); }},
        {Op::kl_div, {s, s}, [](const Tensors& x) { return kl_div(x[0], x[1]); }, false, 0.2, 1},
        {Op::binary_cross_entropy,
         {s, s},
         [=](const Tensors& x) { return binary_cross_entropy(x[0], x[1], weights); },
         false,
         0.1,
         0.9},
        {Op::binary_cross_entropy_with_logits,
         {s, s},
         [=](const Tensors& x) { return binary_cross_entropy_with_logits(x[0], x[1], {}, weights); }},
    };
    for (const Reduction how : {Reduction::none, Reduction::sum, Reduction::mean}) {
        rows.push_back({Op::mse_loss, {s, {3}}, [how](const Tensors& x) { return mse_loss(x[0], x[1], how); }});
        rows.push_back({Op::l1_loss, {s, s}, [how](const Tensors& x) { return l1_loss(x[0], x[1], how); }});
        rows.push_back(
            {Op::smooth_l1_loss, {s, s}, [how](const Tensors& x) { return smooth_l1_loss(x[0], x[1], 0.7, how); }});
        rows.push_back({Op::huber_loss, {s, s}, [how](const Tensors& x) { return huber_loss(x[0], x[1], 0.7, how); }});
    }
    return rows;
}

std::vector<Row> layer_rows() {
    const Dims s{2, 3};
    const Dims image{2, 4, 5, 4};
    std::vector<Row> rows{
        {Op::relu, {s}, [](const Tensors& x) { return relu(x[0]); }},
        {Op::leaky_relu, {s}, [](const Tensors& x) { return leaky_relu(x[0], 0.2F); }},
        {Op::leaky_relu, {s}, [](const Tensors& x) { return leaky_relu(x[0], -0.2F); }},
        {Op::elu, {s}, [](const Tensors& x) { return elu(x[0], 0.7F); }},
        {Op::elu, {s}, [](const Tensors& x) { return elu(x[0], -0.7F); }},
        {Op::selu, {s}, [](const Tensors& x) { return selu(x[0]); }},
        {Op::hardtanh, {s}, [](const Tensors& x) { return hardtanh(x[0], -0.8, 0.5); }},
        {Op::hardsigmoid, {s}, [](const Tensors& x) { return hardsigmoid(x[0] * 3.0); }},
        {Op::hardswish, {s}, [](const Tensors& x) { return hardswish(x[0] * 3.0); }},
        {Op::mish, {s}, [](const Tensors& x) { return mish(x[0]); }},
        {Op::dropout, {{4, 5}}, [](const Tensors& x) { return seeded(dropout, x[0]); }, true},
        {Op::dropout, {{2, 3, 2}}, [](const Tensors& x) { return seeded(dropout_channels, x[0]); }, true},
        {Op::convolution,
         {image, {6, 2, 3, 2}, {6}},
         [](const Tensors& x) { return convolution(x[0], x[1], x[2], strided(false)); },
         true},
        {Op::convolution,
         {image, {4, 3, 3, 2}},
         [](const Tensors& x) { return convolution(x[0], x[1], {}, strided(true)); },
         true},
        {Op::convolution,
         {{2, 3, 5}, {2, 3, 3}, {2}},
         [](const Tensors& x) { return convolution(x[0], x[1], x[2]); },
         true},
        {Op::max_pool, {image}, [](const Tensors& x) { return max_pool(x[0], window()); }},
        {Op::average_pool, {image}, [](const Tensors& x) { return average_pool(x[0], window()); }, true},
        {Op::adaptive_average_pool,
         {image},
         [](const Tensors& x) {
             return adaptive_average_pool(x[0], {2, 3});
         },
         true},
        {Op::batch_norm,
         {{3, 2, 4}, {2}, {2}},
         [](const Tensors& x) { return batch_norm(x[0], {}, {}, x[1], x[2], true); }},
        {Op::batch_norm,
         {{3, 2, 4}, {2}, {2}},
         [](const Tensors& x) {
             return batch_norm(x[0], KTensor({0.3, -0.2}), KTensor({1.5, 0.6}), x[1], x[2], false);
         }},
        {Op::layer_norm,
         {{3, 2, 4}, {2, 4}, {2, 4}},
         [](const Tensors& x) {
             return layer_norm(x[0], {2, 4}, x[1], x[2]);
         }},
        {Op::layer_norm, {{3, 4}}, [](const Tensors& x) { return layer_norm(x[0], {4}, {}, {}); }},
        {Op::group_norm, {{3, 4, 3}, {4}, {4}}, [](const Tensors& x) { return group_norm(x[0], 2, x[1], x[2]); }},
    };
    return rows;
}

TEST(Gradients, Networks) { std::ranges::for_each(network_rows(), check); }
TEST(Gradients, Losses) { std::ranges::for_each(loss_rows(), check); }
TEST(Gradients, Layers) { std::ranges::for_each(layer_rows(), check); }

}  // namespace ornik::gradcheck
