// math.cpp: rows of element-wise functions, products, decompositions, reductions and order.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tensor/tensor_math/decompositions.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "tensors.h"

namespace bench {

namespace {

// Positive values from 0.01 to 10.
TensorPtr ramp(std::int64_t n) {
    TensorPtr t(Tensor::empty({n}, ornik::device_cpu, dtype::float32));
    float* data = static_cast<float*>(t->getRawData());
    for (std::int64_t i = 0; i < n; ++i) {
        data[i] = 0.01F * static_cast<float>(i % 1000 + 1);
    }
    return t;
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

// Of both factors.
void product_gradient_row(const std::string& product, const bench::Product& p) {
    const std::int64_t type = p.float64 ? dtype::float64 : dtype::float32;
    const TensorPtr a = filled({p.batch, p.rows, p.depth}, 1, type);
    const TensorPtr b = filled({p.batch, p.depth, p.cols}, 2, type);
    const TensorPtr g = filled({p.batch, p.rows, p.cols}, 3, type);
    const TensorPtr a_grad = filled({p.batch, p.rows, p.depth}, 0, type);
    const TensorPtr b_grad = filled({p.batch, p.depth, p.cols}, 0, type);
    bench::row(
        product + "/gradients",
        [=] {
            Tensor::bmm(g.get(), 0, b.get(), 1, a_grad.get());
            Tensor::bmm(a.get(), 1, g.get(), 0, b_grad.get());
        },
        0, 2 * p.flops());
}

void product_rows() {
    for (const std::int64_t n : bench::product_sizes) {
        product_gradient_row("dot/" + std::to_string(n), {"", 1, n, n, n});
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
    for (const bench::Product& p : bench::products) {
        const std::int64_t type = p.float64 ? dtype::float64 : dtype::float32;
        const TensorPtr a = filled({p.batch, p.rows, p.depth}, 1, type);
        const TensorPtr b = filled({p.batch, p.depth, p.cols}, 2, type);
        const TensorPtr c = filled({p.batch, p.rows, p.cols}, 0, type);
        bench::row(
            std::string("product/") + p.name, [=] { Tensor::bmm(a.get(), 0, b.get(), 0, c.get()); }, 0, p.flops());
        product_gradient_row(std::string("product/") + p.name, p);
    }
}

void decomposition_rows() {
    for (const bench::Batch& batch : bench::matrix_batches) {
        const TensorPtr x(Tensor::empty({batch.count, batch.n, batch.n}, ornik::device_cpu, dtype::float32));
        bench::fill_symmetric(batch, static_cast<float*>(x->getRawData()));
        const TensorPtr definite(Tensor::empty({batch.count, batch.n, batch.n}, ornik::device_cpu, dtype::float32));
        float* const elements = static_cast<float*>(definite->getRawData());
        bench::fill_symmetric(batch, elements);
        for (std::int64_t row = 0; row < batch.count * batch.n; ++row) {
            elements[row * batch.n + row % batch.n] += static_cast<float>(batch.n);
        }
        const TensorPtr b(Tensor::ones({batch.count, batch.n, 1}, ornik::device_cpu, dtype::float32));
        const auto row = [&](const char* name, auto decompose) {
            bench::row(std::string(name) + "/" + batch.name, [decompose] {
                for (const Tensor* result : decompose()) {
                    delete result;
                }
            });
        };
        const auto one = [](Tensor* result) { return std::vector<Tensor*>{result}; };
        row("eigh", [=] { return ornik::eigh(x.get()); });
        row("eigvalsh", [=] { return one(ornik::eigvalsh(x.get())); });
        row("cholesky", [=] { return one(ornik::cholesky(definite.get())); });
        row("solve", [=] { return one(ornik::solve(definite.get(), b.get())); });
        row("inv", [=] { return one(ornik::inv(definite.get())); });
        row("qr", [=] { return ornik::qr(x.get()); });
        row("svd", [=] { return ornik::svd(x.get(), false); });
        row("svdvals", [=] { return one(ornik::svdvals(x.get())); });
        row("eig", [=] { return ornik::eig(x.get()); });
    }
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

}  // namespace

void math_rows() {
    element_rows();
    product_rows();
    decomposition_rows();
    reduction_rows();
    order_rows();
}

}  // namespace bench
