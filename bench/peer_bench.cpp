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
         {Reduction{"sum", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::sum(t, axes); }},
          {"mean", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::mean(t, axes); }},
          {"max", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) { return at::amax(t, axes); }},
          {"argmax", [](const at::Tensor&t, const std::vector<std::int64_t>&axes) {
               return axes.empty() ? at::argmax(t) : at::argmax(t, axes[0]);
           }}}) {
        const auto row = [&](const std::string& suffix, const at::Tensor& t, const std::vector<std::int64_t>& axes) {
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
    product_rows();
    reduction_rows();
    order_rows();
    indexing_rows();
    return bench::run(argc, argv);
}
