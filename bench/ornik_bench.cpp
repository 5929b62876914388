// The library's own rows, through its public interface.
#include <ornik.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "rows.h"

namespace {

namespace dtype = ornik::dtype;
using ornik::Dims;
using ornik::Tensor;
using TensorPtr = std::shared_ptr<Tensor>;  // Shared: rows keep their operands in copyable closures.

TensorPtr filled(const Dims& shape, double value, std::int64_t type = dtype::float32) {
    TensorPtr t(Tensor::empty(shape, ornik::device_cpu, type));
    t->fill_(value);
    return t;
}

// Positive values from 0.01 to 10.
TensorPtr ramp(std::int64_t n) {
    TensorPtr t(Tensor::empty({n}, ornik::device_cpu, dtype::float32));
    float* data = static_cast<float*>(t->getRawData());
    for (std::int64_t i = 0; i < n; ++i) {
        data[i] = 0.01F * static_cast<float>(i % 1000 + 1);
    }
    return t;
}

TensorPtr view(const TensorPtr& t, const Dims& shape, const Dims& strides) {
    return TensorPtr(ornik::share_storage_tensor(t->getStorage(), shape, strides, t->Dtype(), 0));
}

void add_into(const TensorPtr& a, const TensorPtr& b, const TensorPtr& out) {
    ornik::add(1.0F, a.get(), 1.0F, b.get(), out.get(), 0);
}

void creation_rows() {
    for (const Dims& shape : {Dims{1}, Dims{1000, 1000}}) {
        bench::row("create/" + std::to_string(shape.size() == 1 ? 1 : 1'000'000),
                   [shape] { delete Tensor::empty(shape, ornik::device_cpu, dtype::float32); });
    }
}

void addition_rows() {
    for (const std::int64_t n : bench::sizes) {
        const TensorPtr a = filled({n}, 1);
        const TensorPtr b = filled({n}, 2);
        const TensorPtr out = filled({n}, 0);
        const std::string size = std::to_string(n);
        const std::int64_t bytes = n == bench::large ? 12 * n : 0;
        bench::row(
            "add/new/" + size, [=] { delete a->add_tensor(b.get()); }, bytes);
        bench::row(
            "add/existing/" + size, [=] { add_into(a, b, out); }, bytes);
    }
    const std::int64_t n = bench::side;
    const std::int64_t bytes = 12 * n * n;
    const TensorPtr a = filled({n, n}, 1);
    const TensorPtr b = filled({n, n}, 2);
    const TensorPtr out = filled({n, n}, 0);
    const TensorPtr transposed = view(b, {n, n}, {1, n});
    const TensorPtr row(Tensor::broadcast_to(filled({n}, 3).get(), {n, n}));
    const TensorPtr column(Tensor::broadcast_to(filled({n, 1}, 3).get(), {n, n}));
    const TensorPtr every_other = view(b, {n, n / 2}, {n, 2});
    const TensorPtr half_out = filled({n, n / 2}, 0);
    bench::row(
        "add/transposed/new", [=] { delete a->add_tensor(transposed.get()); }, bytes);
    bench::row(
        "add/transposed/existing", [=] { add_into(a, transposed, out); }, bytes);
    bench::row(
        "add/row_broadcast", [=] { add_into(a, row, out); }, 8 * n * n);
    bench::row(
        "add/column_broadcast", [=] { add_into(a, column, out); }, 8 * n * n);
    bench::row(
        "add/every_other", [=] { add_into(every_other, every_other, half_out); }, 6 * n * n);
}

void shape_rows() {
    const std::int64_t n = bench::side;
    const TensorPtr square = filled({n, n}, 1);
    const TensorPtr quarter = filled({n, n / 4}, 1);
    const auto select_row = [&](const std::string& name, const std::vector<std::string>& items) {
        const std::int64_t bytes = 8 * TensorPtr(square->select_ndim(items))->Size();
        bench::row(
            "select/" + name, [=] { delete square->select_ndim(items); }, bytes);
    };
    select_row("slab", {"1000:3048"});
    select_row("columns", {":", "1000:3048"});
    select_row("every_other", {":", "0:4096:2"});
    std::string list;
    for (std::int64_t i = 0; i < n / 2; ++i) {
        list += (i > 0 ? "," : "") + std::to_string(i * 1237 % n);
    }
    select_row("row_list", {list});
    select_row("column_list", {":", list});
    const TensorPtr selected = filled({n / 2, n}, 2);
    bench::row(
        "select/row_list_grad", [=] { delete square->select_ndim_grad(selected.get(), {list}); },
        8 * n * n / 2 + 4 * n * n);
    const std::vector<Tensor*> quarters(4, quarter.get());
    for (const unsigned axis : {0U, 1U}) {
        bench::row(
            "concat/axis" + std::to_string(axis), [=] { (void)quarter, delete ornik::concat(quarters, axis); },
            8 * n * n);
        bench::row(
            "flip/axis" + std::to_string(axis), [=] { delete square->flip({static_cast<int>(axis)}); }, 8 * n * n);
    }
    bench::row(
        "stack/axis2", [=] { (void)quarter, delete ornik::stack(quarters, 2); }, 8 * n * n);
    bench::row(
        "tile/2x2",
        [=] {
            delete ornik::tile(quarter.get(), {2, 2});
        },
        5 * n * n);
    const TensorPtr tiled = filled({2 * n, n / 2}, 1);
    bench::row(
        "tile/2x2_grad",
        [=] {
            delete ornik::TileGrad(tiled.get(), {n, n / 4}, {2, 2});
        },
        5 * n * n);
    bench::row("view", [=] { delete square->view({n * n}); });
    bench::row("permute", [=] { delete square->permute({1, 0}); });
}

void copy_rows() {
    const std::int64_t n = bench::large;
    const std::int64_t m = bench::side;
    const TensorPtr flat = filled({n}, 1);
    const TensorPtr flat_out = filled({n}, 0);
    bench::row(
        "copy/existing", [=] { ornik::copy_tensor(flat.get(), flat_out.get()); }, 8 * n);
    const TensorPtr transposed = view(filled({m, m}, 1), {m, m}, {1, m});
    const TensorPtr out = filled({m, m}, 0);
    bench::row(
        "copy/transposed/new", [=] { delete transposed->contiguous(); }, 8 * m * m);
    bench::row(
        "copy/transposed/existing", [=] { ornik::copy_tensor(transposed.get(), out.get()); }, 8 * m * m);

    struct Cast {
        const char* name;
        std::int64_t from, to;
    };
    for (const Cast& cast :
         {Cast{"float32_float64", dtype::float32, dtype::float64},
          Cast{"float64_float32", dtype::float64, dtype::float32}, Cast{"float32_int32", dtype::float32, dtype::int32},
          Cast{"uint8_float32", dtype::uint8, dtype::float32}, Cast{"int64_float32", dtype::int64, dtype::float32},
          Cast{"float32_bool", dtype::float32, dtype::boolean}}) {
        const TensorPtr source = filled({n}, 1, cast.from);
        bench::row(
            std::string("cast/") + cast.name, [=] { delete source->astype(cast.to); },
            n * (ornik::dtype_item_size(cast.from) + ornik::dtype_item_size(cast.to)));
    }
}

void element_rows() {
    struct Function {
        const char* name;
        void (*into)(Tensor*, Tensor*);
        Tensor* (Tensor::*fresh)();
    };
    for (const Function& f :
         {Function{"exp", ornik::exp, &Tensor::exp}, Function{"log", ornik::log, &Tensor::log},
          Function{"sin", ornik::sin, &Tensor::sin}, Function{"sqrt", ornik::sqrt, &Tensor::sqrt},
          Function{"sigmoid", ornik::sigmoid, &Tensor::sigmoid}, Function{"tanh", ornik::tanh, &Tensor::tanh},
          Function{"erf", ornik::erf, &Tensor::erf}, Function{"gelu", ornik::gelu, &Tensor::gelu}}) {
        for (const std::int64_t n : {std::int64_t{1'000}, bench::large}) {
            const TensorPtr in = ramp(n);
            const TensorPtr out = filled({n}, 0);
            const std::string size = std::to_string(n);
            const std::int64_t bytes = n == bench::large ? 8 * n : 0;
            bench::row(
                std::string(f.name) + "/existing/" + size, [=] { f.into(in.get(), out.get()); }, bytes);
            bench::row(
                std::string(f.name) + "/new/" + size, [=] { delete (in.get()->*f.fresh)(); }, bytes);
        }
    }
    const std::int64_t n = bench::large;
    const TensorPtr a = ramp(n);
    const TensorPtr b = filled({n}, 2);
    const TensorPtr out = filled({n}, 0);
    const TensorPtr truths = filled({n}, 0, dtype::boolean);
    bench::row(
        "maximum/existing", [=] { ornik::maximum(a.get(), b.get(), out.get()); }, 12 * n);
    bench::row(
        "greater/existing", [=] { ornik::greater(a.get(), b.get(), truths.get()); }, 9 * n);
    bench::row(
        "where/new", [=] { delete ornik::where(truths.get(), a.get(), b.get()); }, 13 * n);
    bench::row("pow/scalar/new", [=] { delete a->pow_scalar(1.5F); });
}

void product_rows() {
    for (const std::int64_t n : bench::product_sizes) {
        const TensorPtr a = filled({n, n}, 1);
        const TensorPtr b = filled({n, n}, 2);
        const TensorPtr c = filled({n, n}, 0);
        bench::row(
            "dot/" + std::to_string(n), [=] { Tensor::dot(a.get(), 0, b.get(), 0, c.get(), 0); }, 0, 2 * n * n * n);
    }
    for (const auto& [batch, n] : {std::pair<std::int64_t, std::int64_t>{64, 64}, {8, 256}}) {
        const TensorPtr a = filled({batch, n, n}, 1);
        const TensorPtr b = filled({batch, n, n}, 2);
        const TensorPtr c = filled({batch, n, n}, 0);
        bench::row(
            "bmm/" + std::to_string(batch) + "x" + std::to_string(n),
            [a, b, c] { Tensor::bmm(a.get(), 0, b.get(), 0, c.get()); }, 0, 2 * batch * n * n * n);
    }
}

void random_rows() {
    const std::int64_t n = bench::large;
    const TensorPtr single = filled({n}, 0);
    const TensorPtr wide = filled({n}, 0, dtype::float64);
    bench::row("random/normal", [=] { single->fill_rand_normal_inplace(0, 1, false); });
    bench::row("random/uniform", [=] { single->fill_rand_uniform_inplace(1); });
    bench::row("random/bernoulli", [=] { single->fill_rand_binary_inplace(0.3); });
    bench::row("random/normal/float64", [=] { wide->fill_rand_normal_inplace(0, 1, false); });
    bench::row("random/uniform/float64", [=] { wide->fill_rand_uniform_inplace(1); });
    bench::row("random/normal/new/1000", [] { delete Tensor::randn({1000}, 0, 1, ornik::device_cpu, dtype::float32); });
    bench::row("random/integers/new/1000000",
               [] { delete Tensor::randint({1'000'000}, 0, 1000, ornik::device_cpu, dtype::int64); });
    bench::row("random/permutation/1000000",
               [] { delete Tensor::permutation(1'000'000, ornik::device_cpu, dtype::int64); });
    const TensorPtr counts = filled({1'000'000}, 100);
    const TensorPtr probs = filled({1'000'000}, 0.3);
    bench::row("random/binomial/1000000", [=] { delete Tensor::binomial(counts.get(), probs.get()); });
    const TensorPtr weights = filled({1000, 1000}, 1);
    bench::row("random/multinomial/replaced", [=] { delete Tensor::multinomial(weights.get(), 100, true); });
    bench::row("random/multinomial/distinct", [=] { delete Tensor::multinomial(weights.get(), 100, false); });
}

void eigh_rows() {
    for (const bench::Batch& batch : bench::eigh_batches) {
        const TensorPtr x(Tensor::empty({batch.count, batch.n, batch.n}, ornik::device_cpu, dtype::float32));
        bench::fill_symmetric(batch, static_cast<float*>(x->getRawData()));
        bench::row(std::string("eigh/") + batch.name, [x] {
            for (const Tensor* result : ornik::eigh(x.get())) {
                delete result;
            }
        });
        bench::row(std::string("eigvalsh/") + batch.name, [x] { delete ornik::eigvalsh(x.get()); });
    }

    void loss_rows() {
        const std::shared_ptr<ornik::Loss> loss(ornik::getLoss("softmax_cross_entropy"));
        for (const auto& size : bench::class_sizes) {
            const TensorPtr x = filled({size[0], size[1]}, 0.5);
            const TensorPtr classes = filled({size[0]}, 1, dtype::int64);
            bench::row("cross_entropy/forward/" + bench::by(size),
                       [=] { delete loss->loss_forward(x.get(), classes.get()); });
            bench::row("cross_entropy/forward_and_backward/" + bench::by(size), [=] {
                delete loss->loss_forward(x.get(), classes.get());
                delete loss->loss_backward(x.get(), classes.get());
            });
        }
    }

    void step_rows() {
        const auto vector = [](double value) { return filled({1'000'000}, value); };
        const TensorPtr p = vector(1), g = vector(1e-3), s = vector(0), t = vector(0), u = vector(0);
        const auto row = [](const std::string& name, const std::function<void()>& step) {
            bench::row(name + "/1000000", step);
        };
        row("sgd", [=] { ornik::sgd_step(p.get(), g.get(), 1e-3F, s.get(), 0.9F, false); });
        row("rmsprop", [=] { ornik::rmsprop_step(p.get(), g.get(), 1e-3F, 0.9F, 1e-8F, s.get()); });
        for (const bool amsgrad : {false, true}) {
            row(amsgrad ? "adam/amsgrad" : "adam", [=] {
                ornik::adam_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 10, s.get(), t.get(), u.get(), amsgrad);
            });
        }
        row("adamw", [=] {
            ornik::adamw_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 0.01F, 10, s.get(), t.get(), nullptr,
                              false);
        });
        row("adamax",
            [=] { ornik::adam_max_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 10, s.get(), t.get()); });
        row("adagrad", [=] { ornik::adam_grad_step(p.get(), g.get(), 1e-3F, 1e-8F, s.get()); });
        row("adadelta", [=] { ornik::adam_delta_step(p.get(), g.get(), 1e-3F, 0.9F, 1e-8F, s.get(), t.get()); });
    }

    void convolution_rows() {
        for (const bench::Conv& c : bench::convolutions) {
            const std::vector<int> kernel(2, c.kernel), strides(2, c.stride), padding(2, c.padding), ones(2, 1),
                zeros(2, 0);
            const auto outputs = static_cast<int>(c.outputs);
            const auto groups = static_cast<int>(c.groups);
            const std::shared_ptr<ornik::Layer> layer(
                c.transposed ? ornik::_ConvT2D(outputs, kernel, strides, padding, true, groups, ones, zeros, "")
                             : ornik::_Conv2D(outputs, kernel, strides, padding, true, groups, ones, ""));
            const TensorPtr x = filled({c.batch, c.inputs, c.side, c.side}, 1);
            const TensorPtr w = filled({c.outputs, c.inputs / c.groups, c.kernel, c.kernel}, 2);
            const TensorPtr b = filled({c.outputs}, 3);
            const TensorPtr g(layer->forward_dyn(w.get(), b.get(), x.get()));
            g->fill_(1);
            bench::row(
                std::string("conv/") + c.name + "/forward",
                [=] { delete layer->forward_dyn(w.get(), b.get(), x.get()); }, 0, c.flops());
            bench::row(
                std::string("conv/") + c.name + "/gradients",
                [=] {
                    for (const int node : {0, 1, 2}) {
                        delete layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node);
                    }
                },
                0, 2 * c.flops());
        }
    }

    // Elements in no order.
    TensorPtr shuffled(const Dims& shape) {
        const TensorPtr t = filled(shape, 0);
        bench::shuffle(static_cast<float*>(t->getRawData()), t->Size());
        return t;
    }

    void reduction_rows() {
        const std::int64_t n = bench::large;
        const std::int64_t m = bench::side;
        const TensorPtr flat = shuffled({n});
        const TensorPtr square = shuffled({m, m});
        const TensorPtr transposed = view(square, {m, m}, {1, m});
        const TensorPtr small = shuffled({1'000});
        struct Reduction {
            const char* name;
            Tensor* (*reduce)(Tensor*, const std::vector<int>&, bool);
        };
        for (const auto& [name, reduce] :
             {Reduction{"sum", ornik::sum}, {"mean", ornik::mean}, {"max", ornik::max}, {"argmax", ornik::argmax}}) {
            const auto row = [reduce = reduce, name = std::string(name)](const std::string& suffix, const TensorPtr& t,
                                                                         const std::vector<int>& axes, bool is_large) {
                bench::row(
                    name + suffix, [=] { delete reduce(t.get(), axes, false); }, is_large ? 4 * t->Size() : 0);
            };
            row("/all/17000000", flat, {}, true);
            row("/rows", square, {1}, true);
            row("/columns", square, {0}, true);
            row("/transposed_rows", transposed, {1}, true);
            row("/all/1000", small, {}, false);
        }
        bench::row(
            "var/rows", [=] { delete ornik::var(square.get(), {1}); }, 4 * m * m);
        bench::row("logsumexp/rows", [=] { delete ornik::logsumexp(square.get(), {1}); });
        bench::row(
            "cumsum/17000000", [=] { delete ornik::cumsum(flat.get(), 0); }, 8 * n);
        for (const int axis : {1, 0}) {
            const std::string along = axis == 1 ? "/rows" : "/columns";
            bench::row(
                "cumsum" + along, [=] { delete ornik::cumsum(square.get(), axis); }, 8 * m * m);
            bench::row(
                "softmax" + along, [=] { delete ornik::softmax(square.get(), axis); }, 8 * m * m);
            bench::row(
                "log_softmax" + along, [=] { delete ornik::log_softmax(square.get(), axis); }, 8 * m * m);
        }
        bench::row("softmax/1000", [=] { delete ornik::softmax(small.get(), 0); });
    }

    void order_rows() {
        const TensorPtr rows = shuffled({256, 4096});
        const auto release = [](const std::vector<Tensor*>& tensors) {
            for (const Tensor* t : tensors) {
                delete t;
            }
        };
        bench::row("sort/256x4096", [=] { release(ornik::sort(rows.get(), 1)); });
        bench::row("topk/256x4096", [=] { release(ornik::topk(rows.get(), 32, 1)); });
        bench::row("median/256x4096", [=] { delete ornik::median(rows.get(), {1}); });
    }

    void indexing_rows() {
        const std::int64_t n = bench::side;
        const TensorPtr x = shuffled({n, n});
        const TensorPtr index(Tensor::empty({n}, ornik::device_cpu, dtype::int64));
        for (std::int64_t i = 0; i < n; ++i) {
            static_cast<std::int64_t*>(index->getRawData())[i] = i * 1031 % n;
        }
        const TensorPtr places(Tensor::broadcast_to(index.get(), {n, n}));
        const TensorPtr mask(filled({n, n}, 1, dtype::boolean));
        bench::row(
            "index_select/rows", [=] { delete ornik::index_select(x.get(), 0, index.get()); }, 8 * n * n);
        bench::row("index_select/columns", [=] { delete ornik::index_select(x.get(), 1, index.get()); });
        bench::row("gather/rows", [=] { delete ornik::gather(x.get(), 1, places.get()); });
        bench::row("index_add/rows", [=] { ornik::index_add_(x.get(), 0, index.get(), x.get()); });
        bench::row("masked_select", [=] { delete ornik::masked_select(x.get(), mask.get()); });
    }
    using LayerPtr = std::shared_ptr<ornik::Layer>;

    TensorPtr varied(const Dims& shape) {
        TensorPtr t = filled(shape, 0);
        auto* values = static_cast<float*>(t->getRawData());
        for (std::int64_t i = 0; i < t->Size(); ++i) {
            values[i] = static_cast<float>(i * 7919 % 1000) * 1e-3F - 0.5F;
        }
        return t;
    }

    // Forward, then all gradients, of a normalization.
    void norm_rows(const std::string& name, const LayerPtr& layer, const Dims& shape, std::int64_t parameters,
                   bool batch) {
        const TensorPtr x = varied(shape);
        const TensorPtr g = varied(shape);
        const TensorPtr gamma = filled({parameters}, 1);
        const TensorPtr beta = filled({parameters}, 0);
        const TensorPtr mean = filled({parameters}, 0);
        const TensorPtr variance = filled({parameters}, 1);
        const auto forward = [=](bool training) {
            delete (batch ? layer->forward_dyn(gamma.get(), beta.get(), x.get(), training, mean.get(), variance.get())
                          : layer->forward_dyn(gamma.get(), beta.get(), x.get(), training));
        };
        bench::row(name + "/training", [=] { forward(true); });
        if (batch) {
            bench::row(name + "/inference", [=] { forward(false); });
        }
        forward(true);
        bench::row(name + "/gradients", [=] {
            std::vector<Tensor*> saved = layer->get_fwd_cache();
            for (const int node : {0, 1, 2}) {
                delete layer->backward_dyn(gamma.get(), beta.get(), x.get(), g.get(), saved, node);
            }
        });
    }

    void pool_rows(const std::string& name, const LayerPtr& layer, const Dims& shape) {
        const TensorPtr x = varied(shape);
        bench::row(name + "/forward", [=] { delete layer->forward_dyn(x.get()); });
        const TensorPtr g(layer->forward_dyn(x.get()));
        bench::row(name + "/gradient", [=] {
            std::vector<Tensor*> saved = layer->get_fwd_cache();
            delete layer->backward_dyn(x.get(), g.get(), saved);
        });
    }

    void layer_rows() {
        const Dims images(std::begin(bench::image_shape), std::end(bench::image_shape));
        norm_rows("batch_norm", LayerPtr(ornik::_BatchNormalization(true, 0.1F, 1e-5F, "")), images, images[1], true);
        norm_rows("group_norm", LayerPtr(ornik::_GroupNormalization(8, static_cast<int>(images[1]), true, 1e-5F, "")),
                  images, images[1], false);
        norm_rows("layer_norm", LayerPtr(ornik::_LayerNormalization(true, 1e-5F, "")),
                  {bench::feature_rows, bench::features}, bench::features, false);
        const std::vector<int> two{2, 2}, three{3, 3}, none{0, 0}, one{1, 1};
        pool_rows("max_pool/2x2", LayerPtr(ornik::_MaxPool2D(two, two, none, "")), images);
        pool_rows("max_pool/3x3", LayerPtr(ornik::_MaxPool2D(three, two, one, "")), images);
        pool_rows("average_pool/2x2", LayerPtr(ornik::_AvgPool2D(two, two, none, "")), images);
        pool_rows("average_pool/3x3", LayerPtr(ornik::_AvgPool2D(three, two, one, "")), images);
    }

}  // namespace

int main(int argc, char** argv) {
    creation_rows();
    addition_rows();
    copy_rows();
    shape_rows();
    element_rows();
    product_rows();
    random_rows();
    eigh_rows();
    convolution_rows();
    loss_rows();
    step_rows();
    reduction_rows();
    order_rows();
    indexing_rows();
    layer_rows();
    return bench::run(argc, argv);
}
