// tensors.cpp: rows of creation, addition, copies, shapes, indexing and random fills, through libtorch.
#include "tensors.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

namespace {

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
