// networks.cpp: rows of convolutions, layers, losses and optimizer steps, through libtorch.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tensors.h"

namespace bench {

namespace {

void convolution_rows() {
    for (const bench::Conv& c : bench::convolutions) {
        const at::ScalarType type = c.float64 ? at::kDouble : at::kFloat;
        const at::Tensor x = filled({c.batch, c.inputs, c.side, c.side}, 1, type);
        const at::Tensor w = c.transposed ? filled({c.inputs, c.outputs / c.groups, c.kernel, c.kernel}, 2, type)
                                          : filled({c.outputs, c.inputs / c.groups, c.kernel, c.kernel}, 2, type);
        const at::Tensor b = filled({c.outputs}, 3, type);
        const std::vector<std::int64_t> stride(2, c.stride), padding(2, c.padding), ones(2, 1), zeros(2, 0);
        const auto forward = [=] {
            return at::convolution(x, w, b, stride, padding, ones, c.transposed, zeros, c.groups);
        };
        const at::Tensor g = at::ones_like(forward());
        bench::row(std::string("conv/") + c.name + "/forward", forward);
        bench::row(std::string("conv/") + c.name + "/gradients", [=] {
            at::convolution_backward(g, x, w, c10::IntArrayRef(b.sizes()), stride, padding, ones, c.transposed, zeros,
                                     c.groups, {true, true, true});
        });
    }
}

at::Tensor varied(at::IntArrayRef shape) {
    at::Tensor t = filled(shape, 0);
    float* values = t.data_ptr<float>();
    for (std::int64_t i = 0; i < t.numel(); ++i) {
        values[i] = static_cast<float>(i * 7919 % 1000) * 1e-3F - 0.5F;
    }
    return t;
}

void norm_rows() {
    const at::Tensor x = varied(bench::image_shape);
    const at::Tensor g = varied(bench::image_shape);
    const std::int64_t samples = bench::image_shape[0];
    const std::int64_t channels = bench::image_shape[1];
    const std::int64_t inner = bench::image_shape[2] * bench::image_shape[3];
    const at::Tensor gamma = filled({channels}, 1);
    const at::Tensor beta = filled({channels}, 0);
    const at::Tensor mean = filled({channels}, 0);
    const at::Tensor variance = filled({channels}, 1);
    for (const bool training : {true, false}) {
        bench::row(training ? "batch_norm/training" : "batch_norm/inference",
                   [=] { at::native_batch_norm(x, gamma, beta, mean, variance, training, 0.1, 1e-5); });
    }
    const auto batch = at::native_batch_norm(x, gamma, beta, mean, variance, true, 0.1, 1e-5);
    for (const bool all : {false, true}) {
        bench::row(all ? "batch_norm/gradients" : "batch_norm/input_gradient", [=] {
            at::native_batch_norm_backward(g, x, gamma, mean, variance, std::get<1>(batch), std::get<2>(batch), true,
                                           1e-5, {true, all, all});
        });
    }
    bench::row("group_norm/training",
               [=] { at::native_group_norm(x, gamma, beta, samples, channels, inner, 8, 1e-5); });
    const auto group = at::native_group_norm(x, gamma, beta, samples, channels, inner, 8, 1e-5);
    for (const bool all : {false, true}) {
        bench::row(all ? "group_norm/gradients" : "group_norm/input_gradient", [=] {
            at::native_group_norm_backward(g, x, std::get<1>(group), std::get<2>(group), gamma, samples, channels,
                                           inner, 8, {true, all, all});
        });
    }
    const at::Tensor rows = varied({bench::feature_rows, bench::features});
    const at::Tensor rows_gradient = varied({bench::feature_rows, bench::features});
    const at::Tensor scale = filled({bench::features}, 1);
    const at::Tensor shift = filled({bench::features}, 0);
    bench::row("layer_norm/training", [=] { at::native_layer_norm(rows, {bench::features}, scale, shift, 1e-5); });
    const auto layer = at::native_layer_norm(rows, {bench::features}, scale, shift, 1e-5);
    for (const bool all : {false, true}) {
        bench::row(all ? "layer_norm/gradients" : "layer_norm/input_gradient", [=] {
            at::native_layer_norm_backward(rows_gradient, rows, {bench::features}, std::get<1>(layer),
                                           std::get<2>(layer), scale, shift, {true, all, all});
        });
    }
}

void pool_rows() {
    const at::Tensor x = varied(bench::image_shape);
    for (const std::int64_t k : {2, 3}) {
        const std::int64_t padding = k - 2;
        const std::string size = std::to_string(k) + "x" + std::to_string(k);
        bench::row("max_pool/" + size + "/forward", [=] {
            at::max_pool2d_with_indices(x, {k, k}, {2, 2}, {padding, padding});
        });
        const auto max = at::max_pool2d_with_indices(x, {k, k}, {2, 2}, {padding, padding});
        bench::row("max_pool/" + size + "/gradient", [=] {
            at::max_pool2d_with_indices_backward(std::get<0>(max), x, {k, k}, {2, 2}, {padding, padding}, {1, 1}, false,
                                                 std::get<1>(max));
        });
        bench::row("average_pool/" + size + "/forward", [=] { at::avg_pool2d(x, {k, k}, {2, 2}, {padding, padding}); });
        const at::Tensor average = at::avg_pool2d(x, {k, k}, {2, 2}, {padding, padding});
        bench::row("average_pool/" + size + "/gradient", [=] {
            at::avg_pool2d_backward(average, x, {k, k}, {2, 2}, {padding, padding}, false, true, c10::nullopt);
        });
    }
}

void loss_rows() {
    for (const auto& size : bench::class_sizes) {
        const at::Tensor x = filled({size[0], size[1]}, 0.5);
        const at::Tensor classes = filled({size[0]}, 1, at::kLong);
        const at::Tensor leaf = x.detach().clone().set_requires_grad(true);
        bench::row("cross_entropy/forward/" + bench::by(size), [=] { at::cross_entropy_loss(x, classes); });
        bench::row("cross_entropy/forward_and_backward/" + bench::by(size), [=] {
            const torch::AutoGradMode gradients(true);
            torch::autograd::grad({at::cross_entropy_loss(leaf, classes)}, {leaf});
        });
    }
}

}  // namespace

void network_rows() {
    convolution_rows();
    norm_rows();
    pool_rows();
    loss_rows();
}

}  // namespace bench
