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
    const TensorPtr p = filled({1'000'000}, 1);
    const TensorPtr g = filled({1'000'000}, 1e-3);
    const TensorPtr v = filled({1'000'000}, 0);
    bench::row("sgd/1000000", [=] { ornik::sgd_step(p.get(), g.get(), 1e-3F, v.get(), 0.9F, false); });
}

}  // namespace

int main(int argc, char** argv) {
    creation_rows();
    addition_rows();
    copy_rows();
    product_rows();
    loss_rows();
    step_rows();
    return bench::run(argc, argv);
}
