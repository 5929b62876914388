// layer_rows_test.cpp: gradients of activations, convolutions, pools and normalizations.
#include "ktensor/activations.h"
#include "ktensor/convolutions.h"
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

}  // namespace

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

TEST(Gradients, Layers) { std::ranges::for_each(layer_rows(), check); }

}  // namespace ornik::gradcheck
