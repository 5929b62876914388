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

void step_rows() {
    at::Tensor p = filled({1'000'000}, 1);
    p.set_requires_grad(true);
    p.mutable_grad() = filled({1'000'000}, 1e-3);
    const auto optimizer =
        std::make_shared<torch::optim::SGD>(std::vector<at::Tensor>{p}, torch::optim::SGDOptions(1e-3).momentum(0.9));
    bench::row("sgd/1000000", [=] { optimizer->step(); });
}

}  // namespace

int main(int argc, char** argv) {
    step_rows();
    const torch::NoGradGuard no_gradients;
    creation_rows();
    addition_rows();
    copy_rows();
    product_rows();
    loss_rows();
    return bench::run(argc, argv);
}
