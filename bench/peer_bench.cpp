// The same rows through libtorch, as a yardstick.
#include <torch/torch.h>

#include <string>
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

void shape_rows() {
    const std::int64_t n = bench::side;
    const at::Tensor square = filled({n, n}, 1);
    const at::Tensor quarter = filled({n, n / 4}, 1);
    bench::row("select/slab", [=] { square.slice(0, 1000, 3048).clone(); });
    bench::row("select/columns", [=] { square.slice(1, 1000, 3048).contiguous(); });
    bench::row("select/every_other", [=] { square.slice(1, 0, n, 2).contiguous(); });
    const at::Tensor list = at::arange(n / 2, at::kLong).mul(1237).remainder(n);
    bench::row("select/row_list", [=] { square.index_select(0, list); });
    bench::row("select/column_list", [=] { square.index_select(1, list); });
    const at::Tensor selected = filled({n / 2, n}, 2);
    bench::row("select/row_list_grad", [=] { at::zeros({n, n}).index_add_(0, list, selected); });
    const std::vector<at::Tensor> quarters(4, quarter);
    for (const std::int64_t axis : {0, 1}) {
        bench::row("concat/axis" + std::to_string(axis), [=] { at::cat(quarters, axis); });
        bench::row("flip/axis" + std::to_string(axis), [=] { square.flip({axis}); });
    }
    bench::row("stack/axis2", [=] { at::stack(quarters, 2); });
    bench::row("tile/2x2", [=] { quarter.tile({2, 2}); });
    const at::Tensor tiled = filled({2 * n, n / 2}, 1);
    bench::row("tile/2x2_grad", [=] { tiled.view({2, n, 2, n / 4}).sum(at::IntArrayRef{0, 2}); });
    bench::row("view", [=] { square.view({n * n}); });
    bench::row("permute", [=] { square.permute({1, 0}); });
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

void element_rows() {
    struct Function {
        const char* name;
        at::Tensor& (*into)(at::Tensor&, const at::Tensor&);
        at::Tensor (*fresh)(const at::Tensor&);
    };
    for (const Function& f :
         {Function{"exp", at::exp_out, at::exp}, Function{"log", at::log_out, at::log},
          Function{"sin", at::sin_out, at::sin}, Function{"sqrt", at::sqrt_out, at::sqrt},
          Function{"sigmoid", at::sigmoid_out, at::sigmoid}, Function{"tanh", at::tanh_out, at::tanh},
          Function{"erf", at::erf_out, at::erf},
          Function{"gelu", [](at::Tensor&out, const at::Tensor&in) -> at::Tensor& { return at::gelu_out(out, in); },
                   [](const at::Tensor&in) { return at::gelu(in); }}}) {
        for (const std::int64_t n : {std::int64_t{1'000}, bench::large}) {
            const at::Tensor in = at::arange(n).remainder(1000).add(1).mul(0.01).to(at::kFloat);
            at::Tensor out = filled({n}, 0);
            const std::string size = std::to_string(n);
            bench::row(std::string(f.name) + "/existing/" + size, [=]() mutable { f.into(out, in); });
            bench::row(std::string(f.name) + "/new/" + size, [=] { f.fresh(in); });
        }
    }
    const std::int64_t n = bench::large;
    const at::Tensor a = at::arange(n).remainder(1000).add(1).mul(0.01).to(at::kFloat);
    const at::Tensor b = filled({n}, 2);
    at::Tensor out = filled({n}, 0);
    at::Tensor truths = filled({n}, 0, at::kBool);
    bench::row("maximum/existing", [=]() mutable { at::maximum_out(out, a, b); });
    bench::row("greater/existing", [=]() mutable { at::greater_out(truths, a, b); });
    bench::row("where/new", [=] { at::where(truths, a, b); });
    bench::row("pow/scalar/new", [=] { at::pow(a, 1.5); });
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

void random_rows() {
    at::Tensor single = filled({bench::large}, 0);
    at::Tensor wide = filled({bench::large}, 0, at::kDouble);
    bench::row("random/normal", [=]() mutable { single.normal_(); });
    bench::row("random/uniform", [=]() mutable { single.uniform_(); });
    bench::row("random/bernoulli", [=]() mutable { single.bernoulli_(0.3); });
    bench::row("random/normal/float64", [=]() mutable { wide.normal_(); });
    bench::row("random/uniform/float64", [=]() mutable { wide.uniform_(); });
    bench::row("random/normal/new/1000", [] { at::randn({1000}); });
    bench::row("random/integers/new/1000000", [] { at::randint(0, 1000, {1'000'000}); });
    bench::row("random/permutation/1000000", [] { at::randperm(1'000'000); });
    const at::Tensor counts = filled({1'000'000}, 100);
    const at::Tensor probs = filled({1'000'000}, 0.3);
    bench::row("random/binomial/1000000", [=] { at::binomial(counts, probs); });
    const at::Tensor weights = filled({1000, 1000}, 1);
    bench::row("random/multinomial/replaced", [=] { at::multinomial(weights, 100, true); });
    bench::row("random/multinomial/distinct", [=] { at::multinomial(weights, 100, false); });
}

void eigh_rows() {
    for (const bench::Batch& batch : bench::eigh_batches) {
        const at::Tensor x = at::empty({batch.count, batch.n, batch.n});
        bench::fill_symmetric(batch, x.data_ptr<float>());
        bench::row(std::string("eigh/") + batch.name, [x] { at::linalg_eigh(x); });
        bench::row(std::string("eigvalsh/") + batch.name, [x] { at::linalg_eigvalsh(x); });
    }
}

void convolution_rows() {
    for (const bench::Conv& c : bench::convolutions) {
        const at::Tensor x = filled({c.batch, c.inputs, c.side, c.side}, 1);
        const at::Tensor w = c.transposed ? filled({c.inputs, c.outputs / c.groups, c.kernel, c.kernel}, 2)
                                          : filled({c.outputs, c.inputs / c.groups, c.kernel, c.kernel}, 2);
        const at::Tensor b = filled({c.outputs}, 3);
        const std::vector<std::int64_t> stride(2, c.stride), padding(2, c.padding), ones(2, 1), zeros(2, 0);
        const auto forward = [=] {
            return at::convolution(x, w, b, stride, padding, ones, c.transposed, zeros, c.groups);
        };
        const at::Tensor g = at::ones_like(forward());
        bench::row(std::string("conv/") + c.name + "/forward", forward);
        bench::row(std::string("conv/") + c.name + "/gradients", [=] {
            at::convolution_backward(g, x, w, c10::IntArrayRef(b.sizes()), stride, padding, ones, c.transposed, zeros,
                                     c.groups, {true, true, true});
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

template <typename Optimizer, typename Options>
void step_row(const std::string& name, const Options& options) {
}

void step_rows() {
            at::Tensor p = filled({1'000'000}, 1);
            p.set_requires_grad(true);
            p.mutable_grad() = filled({1'000'000}, 1e-3);
            const auto optimizer = std::make_shared<Optimizer>(std::vector<at::Tensor>{p}, options);
            bench::row(name + "/1000000", [=] { optimizer->step(); });
}

// The peer has no Adamax and no Adadelta.
void step_rows() {
            using namespace torch::optim;
            step_row<SGD>("sgd", SGDOptions(1e-3).momentum(0.9));
            step_row<RMSprop>("rmsprop", RMSpropOptions(1e-3).alpha(0.9));
            step_row<Adam>("adam", AdamOptions(1e-3));
            step_row<Adam>("adam/amsgrad", AdamOptions(1e-3).amsgrad(true));
            step_row<AdamW>("adamw", AdamWOptions(1e-3));
            step_row<Adagrad>("adagrad", AdagradOptions(1e-3));
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
            bench::row("batch_norm/gradients", [=] {
                at::native_batch_norm_backward(g, x, gamma, mean, variance, std::get<1>(batch), std::get<2>(batch),
                                               true, 1e-5, {true, true, true});
            });
            bench::row("group_norm/training",
                       [=] { at::native_group_norm(x, gamma, beta, samples, channels, inner, 8, 1e-5); });
            const auto group = at::native_group_norm(x, gamma, beta, samples, channels, inner, 8, 1e-5);
            bench::row("group_norm/gradients", [=] {
                at::native_group_norm_backward(g, x, std::get<1>(group), std::get<2>(group), gamma, samples, channels,
                                               inner, 8, {true, true, true});
            });
            const at::Tensor rows = varied({bench::feature_rows, bench::features});
            const at::Tensor rows_gradient = varied({bench::feature_rows, bench::features});
            const at::Tensor scale = filled({bench::features}, 1);
            const at::Tensor shift = filled({bench::features}, 0);
            bench::row("layer_norm/training",
                       [=] { at::native_layer_norm(rows, {bench::features}, scale, shift, 1e-5); });
            const auto layer = at::native_layer_norm(rows, {bench::features}, scale, shift, 1e-5);
            bench::row("layer_norm/gradients", [=] {
                at::native_layer_norm_backward(rows_gradient, rows, {bench::features}, std::get<1>(layer),
                                               std::get<2>(layer), scale, shift, {true, true, true});
            });
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
                    at::max_pool2d_with_indices_backward(std::get<0>(max), x, {k, k}, {2, 2}, {padding, padding},
                                                         {1, 1}, false, std::get<1>(max));
                });
                bench::row("average_pool/" + size + "/forward", [=] {
                    at::avg_pool2d(x, {k, k}, {2, 2}, {padding, padding});
                });
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

    at::Tensor shuffled(at::IntArrayRef shape) {
        at::Tensor t = filled(shape, 0);
        bench::shuffle(t.data_ptr<float>(), t.numel());
        return t;
    }

    void reduction_rows() {
        const at::Tensor flat = shuffled({bench::large});
        const at::Tensor square = shuffled({bench::side, bench::side});
        const at::Tensor transposed = square.t();
        const at::Tensor small = shuffled({1'000});
        struct Reduction {
            const char* name;
            std::function<at::Tensor(const at::Tensor&, std::vector<std::int64_t>)> reduce;
        };
        for (const Reduction& reduction :
             {Reduction{"sum",
                        [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::sum(t, axes); }},
              {"mean", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::mean(t, axes); }},
              {"max", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::amax(t, axes); }},
              {"argmax", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) {
                   return axes.empty() ? at::argmax(t) : at::argmax(t, axes[0]);
               }}}) {
            const auto row = [&](const std::string& suffix, const at::Tensor& t,
                                 const std::vector<std::int64_t>& axes) {
                bench::row(reduction.name + suffix, [=] { reduction.reduce(t, axes); });
            };
            row("/all/17000000", flat, {});
            row("/rows", square, {1});
            row("/columns", square, {0});
            row("/transposed_rows", transposed, {1});
            row("/all/1000", small, {});
        }
        bench::row("var/rows", [=] { at::var(square, 1); });
        bench::row("logsumexp/rows", [=] { at::logsumexp(square, 1); });
        bench::row("cumsum/17000000", [=] { at::cumsum(flat, 0); });
        for (const int axis : {1, 0}) {
            const std::string along = axis == 1 ? "/rows" : "/columns";
            bench::row("cumsum" + along, [=] { at::cumsum(square, axis); });
            bench::row("softmax" + along, [=] { at::softmax(square, axis); });
            bench::row("log_softmax" + along, [=] { at::log_softmax(square, axis); });
        }
        bench::row("softmax/1000", [=] { at::softmax(small, 0); });
    }

    void order_rows() {
        const at::Tensor rows = shuffled({256, 4096});
        bench::row("sort/256x4096", [=] { at::sort(rows, /*stable=*/true, 1); });
        bench::row("topk/256x4096", [=] { at::topk(rows, 32, 1); });
        bench::row("median/256x4096", [=] { at::median(rows, 1); });
    }

    void indexing_rows() {
        const std::int64_t n = bench::side;
        at::Tensor x = shuffled({n, n});
        const at::Tensor index = at::arange(n, at::kLong).mul(1031).remainder(n);
        const at::Tensor places = index.expand({n, n});
        const at::Tensor mask = filled({n, n}, 1, at::kBool);
        bench::row("index_select/rows", [=] { at::index_select(x, 0, index); });
        bench::row("index_select/columns", [=] { at::index_select(x, 1, index); });
        bench::row("gather/rows", [=] { at::gather(x, 1, places); });
        bench::row("index_add/rows", [=]() mutable { x.index_add_(0, index, x.clone()); });
        bench::row("masked_select", [=] { at::masked_select(x, mask); });
    }

}  // namespace

int main(int argc, char** argv) {
    step_rows();
    const torch::NoGradGuard no_gradients;
    creation_rows();
    addition_rows();
    copy_rows();
    shape_rows();
    element_rows();
    product_rows();
    random_rows();
    eigh_rows();
    convolution_rows();
    reduction_rows();
    order_rows();
    indexing_rows();
    loss_rows();
    return bench::run(argc, argv);
}
