// math.cpp: rows of element-wise functions, products, decompositions, reductions and order, through libtorch.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tensors.h"

namespace bench {

namespace {

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

// Of one matrix by the function for one.
void multiply(at::Tensor& c, const at::Tensor& a, const at::Tensor& b) {
    if (c.size(0) > 1) {
        at::bmm_out(c, a, b);
    } else {
        at::Tensor matrix = c[0];
        at::mm_out(matrix, a[0], b[0]);
    }
}

void product_gradient_row(const std::string& product, const bench::Product& p) {
    const at::ScalarType type = p.float64 ? at::kDouble : at::kFloat;
    const at::Tensor a = filled({p.batch, p.rows, p.depth}, 1, type);
    const at::Tensor b = filled({p.batch, p.depth, p.cols}, 2, type);
    const at::Tensor g = filled({p.batch, p.rows, p.cols}, 3, type);
    at::Tensor a_grad = filled({p.batch, p.rows, p.depth}, 0, type);
    at::Tensor b_grad = filled({p.batch, p.depth, p.cols}, 0, type);
    bench::row(product + "/gradients", [=]() mutable {
        multiply(a_grad, g, b.transpose(1, 2));
        multiply(b_grad, a.transpose(1, 2), g);
    });
}

void product_rows() {
    for (const std::int64_t n : bench::product_sizes) {
        product_gradient_row("dot/" + std::to_string(n), {"", 1, n, n, n});
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
    for (const bench::Product& p : bench::products) {
        const at::ScalarType type = p.float64 ? at::kDouble : at::kFloat;
        const at::Tensor a = filled({p.batch, p.rows, p.depth}, 1, type);
        const at::Tensor b = filled({p.batch, p.depth, p.cols}, 2, type);
        at::Tensor c = filled({p.batch, p.rows, p.cols}, 0, type);
        bench::row(std::string("product/") + p.name, [=]() mutable { multiply(c, a, b); });
        product_gradient_row(std::string("product/") + p.name, p);
    }
}

void decomposition_rows() {
    for (const bench::Batch& batch : bench::matrix_batches) {
        const at::Tensor x = at::empty({batch.count, batch.n, batch.n});
        bench::fill_symmetric(batch, x.data_ptr<float>());
        const at::Tensor definite = x + at::eye(batch.n) * batch.n;
        const at::Tensor b = at::ones({batch.count, batch.n, 1});
        const auto row = [&](const char* name, auto decompose) {
            bench::row(std::string(name) + "/" + batch.name, decompose);
        };
        row("eigh", [=] { at::linalg_eigh(x); });
        row("eigvalsh", [=] { at::linalg_eigvalsh(x); });
        row("cholesky", [=] { at::linalg_cholesky(definite); });
        row("solve", [=] { at::linalg_solve(definite, b); });
        row("inv", [=] { at::linalg_inv(definite); });
        row("qr", [=] { at::linalg_qr(x); });
        row("svd", [=] { at::linalg_svd(x, false); });
        row("svdvals", [=] { at::linalg_svdvals(x); });
        row("eig", [=] { at::linalg_eig(x); });
    }
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

}  // namespace

void math_rows() {
    element_rows();
    product_rows();
    decomposition_rows();
    reduction_rows();
    order_rows();
}

}  // namespace bench
