// The same rows through libtorch, as a yardstick.
#include <torch/torch.h>

#include <vector>

#include "rows.h"

namespace {

at::Tensor filled(at::IntArrayRef shape, double value, at::ScalarType type = at::kFloat) {
    return at::full(shape, value, at::TensorOptions(type));
}

void creation_rows() {
    bench::row("create/1", [] { at::empty({1}); });
    bench::row("create/1000000", [] { at::empty({1000, 1000}); });
}

void addition_rows() {
    for (const std::int64_t n : bench::sizes) {
        const at::Tensor a = filled({n}, 1);
        const at::Tensor b = filled({n}, 2);
        at::Tensor out = filled({n}, 0);
        const std::string size = std::to_string(n);
        bench::row("add/new/" + size, [=] { at::add(a, b); });
        bench::row("add/existing/" + size, [=]() mutable { at::add_out(out, a, b); });
    }
    const std::int64_t n = bench::side;
    const at::Tensor a = filled({n, n}, 1);
    const at::Tensor b = filled({n, n}, 2);
    at::Tensor out = filled({n, n}, 0);
    const at::Tensor transposed = b.t();
    const at::Tensor row = filled({n}, 3).expand({n, n});
    const at::Tensor column = filled({n, 1}, 3).expand({n, n});
    const at::Tensor every_other = b.slice(1, 0, n, 2);
    at::Tensor half_out = filled({n, n / 2}, 0);
    bench::row("add/transposed/new", [=] { at::add(a, transposed); });
    bench::row("add/transposed/existing", [=]() mutable { at::add_out(out, a, transposed); });
    bench::row("add/row_broadcast", [=]() mutable { at::add_out(out, a, row); });
    bench::row("add/column_broadcast", [=]() mutable { at::add_out(out, a, column); });
    bench::row("add/every_other", [=]() mutable { at::add_out(half_out, every_other, every_other); });
}

void copy_rows() {
    const at::Tensor flat = filled({bench::large}, 1);
    at::Tensor flat_out = filled({bench::large}, 0);
    bench::row("copy/existing", [=]() mutable { flat_out.copy_(flat); });
    const at::Tensor transposed = filled({bench::side, bench::side}, 1).t();
    at::Tensor out = filled({bench::side, bench::side}, 0);
    bench::row("copy/transposed/new", [=] { transposed.contiguous(); });
    bench::row("copy/transposed/existing", [=]() mutable { out.copy_(transposed); });

    struct Cast {
        const char* name;
        at::ScalarType from, to;
    };
    for (const Cast& cast :
         {Cast{"float32_float64", at::kFloat, at::kDouble}, Cast{"float64_float32", at::kDouble, at::kFloat},
          Cast{"float32_int32", at::kFloat, at::kInt}, Cast{"uint8_float32", at::kByte, at::kFloat},
          Cast{"int64_float32", at::kLong, at::kFloat}, Cast{"float32_bool", at::kFloat, at::kBool}}) {
        const at::Tensor source = filled({bench::large}, 1, cast.from);
        bench::row(std::string("cast/") + cast.name, [=] { source.to(cast.to); });
    }
}

void product_rows() {
    for (const std::int64_t n : bench::product_sizes) {
        const at::Tensor a = filled({n, n}, 1);
        const at::Tensor b = filled({n, n}, 2);
        at::Tensor c = filled({n, n}, 0);
        bench::row("dot/" + std::to_string(n), [=]() mutable { at::mm_out(c, a, b); });
    }
    for (const auto& [batch, n] : {std::pair<std::int64_t, std::int64_t>{64, 64}, {8, 256}}) {
        const at::Tensor a = filled({batch, n, n}, 1);
        const at::Tensor b = filled({batch, n, n}, 2);
        at::Tensor c = filled({batch, n, n}, 0);
        bench::row("bmm/" + std::to_string(batch) + "x" + std::to_string(n),
                   [a, b, c]() mutable { at::bmm_out(c, a, b); });
    }
}

void step_rows() {
    at::Tensor p = filled({1'000'000}, 1);
    p.set_requires_grad(true);
    p.mutable_grad() = filled({1'000'000}, 1e-3);
    const auto optimizer =
        std::make_shared<torch::optim::SGD>(std::vector<at::Tensor>{p}, torch::optim::SGDOptions(1e-3).momentum(0.9));
    bench::row("sgd/1000000", [=] { optimizer->step(); });
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

}  // namespace

int main(int argc, char** argv) {
    step_rows();
    const torch::NoGradGuard no_gradients;
    creation_rows();
    addition_rows();
    copy_rows();
    product_rows();
    norm_rows();
    pool_rows();
    return bench::run(argc, argv);
}
