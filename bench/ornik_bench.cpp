// The library's own rows, through its public interface.
#include <ornik.h>

#include <memory>

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

void step_rows() {
    const TensorPtr p = filled({1'000'000}, 1);
    const TensorPtr g = filled({1'000'000}, 1e-3);
    const TensorPtr v = filled({1'000'000}, 0);
    bench::row("sgd/1000000", [=] { ornik::sgd_step(p.get(), g.get(), 1e-3F, v.get(), 0.9F, false); });
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
void norm_rows(const std::string& name, const LayerPtr& layer, const Dims& shape, std::int64_t parameters, bool batch) {
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
    const auto gradient = [=](int node) {
        std::vector<Tensor*> saved = layer->get_fwd_cache();
        delete layer->backward_dyn(gamma.get(), beta.get(), x.get(), g.get(), saved, node);
    };
    bench::row(name + "/input_gradient", [=] { gradient(0); });
    bench::row(name + "/gradients", [=] {
        for (const int node : {0, 1, 2}) {
            gradient(node);
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
    product_rows();
    step_rows();
    layer_rows();
    return bench::run(argc, argv);
}
