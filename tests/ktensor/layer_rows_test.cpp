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

Rows network_rows() {
    const Dims packed{3, 2, 1};  // Batch sizes of sequences of 3, 2 and 1 steps.
    const KTensor places({{1, 0}, {1, 3}});
    Rows rows;
    rows.add(Op::linear, {{2, 2, 3}, {4, 3}, {4}}, [](const Tensors& x) { return linear(x[0], x[1], x[2]); });
    rows.add(Op::linear, {{2, 3}, {4, 3}}, [](const Tensors& x) { return linear(x[0], x[1]); });
    rows.add(Op::embedding, {{4, 3}}, [=](const Tensors& x) { return embedding(places, x[0]); });
    rows.add(Op::scaled_dot_product_attention, {{2, 3, 4}, {2, 5, 4}, {2, 5, 2}}, real_only,
             [](const Tensors& x) { return scaled_dot_product_attention(x[0], x[1], x[2]); });
    const auto masked = [](const Tensors& x) {
        return scaled_dot_product_attention(x[0], x[1], x[2], {.mask = x[3], .causal = true, .scale = 0.7});
    };
    rows.add(Op::scaled_dot_product_attention, {{2, 3, 4}, {2, 3, 4}, {2, 3, 4}, {3, 3}}, real_only, masked);
    rows.add(Op::lstm, {{3, 2, 3}, {2, 2}, {2, 2}, {8, 3}, {8, 2}, {8}, {8}}, real_only,
             [](const Tensors& x) { return lstm(x[0], x[1], x[2], parameters_of(x, 3)).output; });
    rows.add(Op::lstm, {{6, 3}, {3, 2}, {3, 2}, {8, 3}, {8, 2}, {8}, {8}}, real_only,
             [=](const Tensors& x) { return lstm(x[0], x[1], x[2], parameters_of(x, 3), true, packed).cell; });
    rows.add(Op::gru, {{3, 2, 3}, {2, 2}, {6, 3}, {6, 2}, {6}, {6}}, real_only,
             [](const Tensors& x) { return gru(x[0], x[1], parameters_of(x, 2)).output; });
    rows.add(Op::gru, {{6, 3}, {3, 2}, {6, 3}, {6, 2}, {6}, {6}}, real_only,
             [=](const Tensors& x) { return gru(x[0], x[1], parameters_of(x, 2), true, packed).hidden; });
    return rows;
}

Rows loss_rows() {
    const Dims s{2, 3};
    const KTensor labels({2, 0});
    const KTensor weights({0.5, 2.0, 1.5});
    Rows rows;
    // Of a prediction alone, or of a target too.
    const auto one = [&](Op op, const Function& function) { rows.add(op, {s}, real_only, function); };
    const auto two = [&](Op op, const Function& function) { rows.add(op, {s, s}, real_only, function); };
    const auto two_within = [&](double low, double high, Op op, const Function& function) {
        rows.add(op, {s, s}, {"", false, low, high}, function);
    };
    one(Op::cross_entropy, [=](const Tensors& x) { return cross_entropy(x[0], labels); });
    one(Op::cross_entropy, [=](const Tensors& x) {
        return cross_entropy(x[0], labels, {.reduction = Reduction::none, .weight = weights, .label_smoothing = 0.1});
    });
    two_within(0.1, 1, Op::cross_entropy, [](const Tensors& x) { return cross_entropy(x[0], x[1]); });
    one(Op::nll_loss, [=](const Tensors& x) { return nll_loss(x[0], labels, {.weight = weights}); });
    one(Op::nll_loss, [=](const Tensors& x) { return nll_loss(x[0], labels, {.ignore_index = 0}); });
    two(Op::kl_div, [](const Tensors& x) { return kl_div(x[0], x[1], true, Reduction::sum); });
    two_within(0.2, 1, Op::kl_div, [](const Tensors& x) { return kl_div(x[0], x[1]); });
    two_within(0.1, 0.9, Op::binary_cross_entropy,
               [=](const Tensors& x) { return binary_cross_entropy(x[0], x[1], weights); });
    two(Op::binary_cross_entropy_with_logits,
        [=](const Tensors& x) { return binary_cross_entropy_with_logits(x[0], x[1], {}, weights); });
    for (const Reduction how : {Reduction::none, Reduction::sum, Reduction::mean}) {
        rows.add(Op::mse_loss, {s, {3}}, real_only, [how](const Tensors& x) { return mse_loss(x[0], x[1], how); });
        two(Op::l1_loss, [how](const Tensors& x) { return l1_loss(x[0], x[1], how); });
        two(Op::smooth_l1_loss, [how](const Tensors& x) { return smooth_l1_loss(x[0], x[1], 0.7, how); });
        two(Op::huber_loss, [how](const Tensors& x) { return huber_loss(x[0], x[1], 0.7, how); });
    }
    return rows;
}

Rows layer_rows() {
    const Dims s{2, 3};
    const Dims image{2, 4, 5, 4};
    const Dims planes{3, 2, 4};
    Rows rows;
    const auto activation = [&](Op op, const Function& function) { rows.add(op, {s}, real_only, function); };
    activation(Op::relu, one<relu>);
    activation(Op::leaky_relu, [](const Tensors& x) { return leaky_relu(x[0], 0.2F); });
    activation(Op::leaky_relu, [](const Tensors& x) { return leaky_relu(x[0], -0.2F); });
    activation(Op::elu, [](const Tensors& x) { return elu(x[0], 0.7F); });
    activation(Op::elu, [](const Tensors& x) { return elu(x[0], -0.7F); });
    activation(Op::selu, one<selu>);
    activation(Op::hardtanh, [](const Tensors& x) { return hardtanh(x[0], -0.8, 0.5); });
    activation(Op::hardsigmoid, [](const Tensors& x) { return hardsigmoid(x[0] * 3.0); });
    activation(Op::hardswish, [](const Tensors& x) { return hardswish(x[0] * 3.0); });
    activation(Op::mish, one<mish>);
    rows.add(Op::dropout, {{4, 5}}, [](const Tensors& x) { return seeded(dropout, x[0]); });
    rows.add(Op::dropout, {{2, 3, 2}}, [](const Tensors& x) { return seeded(dropout_channels, x[0]); });
    rows.add(Op::convolution, {image, {6, 2, 3, 2}, {6}},
             [](const Tensors& x) { return convolution(x[0], x[1], x[2], strided(false)); });
    rows.add(Op::convolution, {image, {4, 3, 3, 2}},
             [](const Tensors& x) { return convolution(x[0], x[1], {}, strided(true)); });
    rows.add(Op::convolution, {{2, 3, 5}, {2, 3, 3}, {2}},
             [](const Tensors& x) { return convolution(x[0], x[1], x[2]); });
    rows.add(Op::max_pool, {image}, real_only, [](const Tensors& x) { return max_pool(x[0], window()); });
    rows.add(Op::average_pool, {image}, [](const Tensors& x) { return average_pool(x[0], window()); });
    rows.add(Op::adaptive_average_pool, {image}, [](const Tensors& x) { return adaptive_average_pool(x[0], {2, 3}); });
    rows.add(Op::batch_norm, {planes, {2}, {2}}, real_only,
             [](const Tensors& x) { return batch_norm(x[0], {}, {}, x[1], x[2], true); });
    const KTensor mean({0.3, -0.2});
    const KTensor variance({1.5, 0.6});
    rows.add(Op::batch_norm, {planes, {2}, {2}}, real_only,
             [=](const Tensors& x) { return batch_norm(x[0], mean, variance, x[1], x[2], false); });
    const Dims two_axes{2, 4};
    rows.add(Op::layer_norm, {planes, two_axes, two_axes}, real_only,
             [=](const Tensors& x) { return layer_norm(x[0], two_axes, x[1], x[2]); });
    rows.add(Op::layer_norm, {{3, 4}}, real_only, [](const Tensors& x) { return layer_norm(x[0], {4}, {}, {}); });
    rows.add(Op::group_norm, {{3, 4, 3}, {4}, {4}}, real_only,
             [](const Tensors& x) { return group_norm(x[0], 2, x[1], x[2]); });
    return rows;
}

TEST(Gradients, Networks) { std::ranges::for_each(network_rows(), check); }
TEST(Gradients, Losses) { std::ranges::for_each(loss_rows(), check); }
TEST(Gradients, Layers) { std::ranges::for_each(layer_rows(), check); }

}  // namespace ornik::gradcheck
