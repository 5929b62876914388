// tensors.cpp: rows of creation, addition, copies, shapes, indexing and random fills.
#include "tensors.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

namespace {

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

}  // namespace

void tensor_rows() {
    creation_rows();
    addition_rows();
    copy_rows();
    shape_rows();
    indexing_rows();
    random_rows();
}

}  // namespace bench
