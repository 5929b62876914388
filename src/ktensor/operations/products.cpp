// products.cpp: products and decompositions of matrices, and their gradients.
#include "ktensor/products.h"

#include <numeric>

#include "ktensor/arithmetic.h"
#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "tensor/tensor_math/matmul.h"
#include "tensor/tensor_math/promotion.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

void matmul_backward(Backward& pass) {
    if (pass.recorded()) {
        if (pass.wants(0)) {
            pass.give(0, matmul(pass.grad(), conj_of(transpose(pass.saved(1)))));
        }
        if (pass.wants(1)) {
            pass.give(1, matmul(conj_of(transpose(pass.saved(0))), pass.grad()));
        }
        return;
    }
    Tensor* grad = pass.grad().tensor();
    if (pass.wants(0)) {
        pass.give(0, matmul_grad_a(grad, pass.saved_raw(1), pass.operand_shape(0)));
    }
    if (pass.wants(1)) {
        pass.give(1, matmul_grad_b(grad, pass.saved_raw(0), pass.operand_shape(1)));
    }
}

// Of operands with two axes and more, of one dtype.
KTensor matrix_product(const KTensor& a, const KTensor& b) {
    const Recorder record(Op::matmul, {&a, &b});
    KTensor y = make_ktensor(ornik::matmul(a.tensor(), b.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand_if(record.wants(1), 0), record.operand_if(record.wants(0), 1)},
                      matmul_backward);
    }
    return y;
}

void check_product(const KTensor& a, const KTensor& b) {
    autograd::check_defined("matmul", a, 0);
    autograd::check_defined("matmul", b, 1);
    bool fits = a.ndim() > 0 && b.ndim() > 0 && a.size(-1) == b.size(b.ndim() == 1 ? -1 : -2);
    for (int axis = -3; fits && axis >= -std::min(a.ndim(), b.ndim()); --axis) {
        fits = a.size(axis) == b.size(axis) || a.size(axis) == 1 || b.size(axis) == 1;
    }
    if (!fits) {
        fail(where("ornik::matmul"), "matmul(): there is no product of ", describe(a), " and ", describe(b), ".");
    }
}

}  // namespace

KTensor matmul(const KTensor& a, const KTensor& b) {
    check_product(a, b);
    const std::int64_t r = promotion::of_tensors(a.dtype(), b.dtype());
    const bool row = a.ndim() == 1;
    const bool column = b.ndim() == 1;
    const KTensor left = astype(a, r);
    const KTensor right = astype(b, r);
    KTensor y = matrix_product(row ? unsqueeze(left, 0) : left, column ? unsqueeze(right, 1) : right);
    if (column) {
        y = squeeze(y, {-1});
    }
    return row ? squeeze(y, {column ? -1 : -2}) : y;
}

KTensor dot(const KTensor& a, const KTensor& b) {
    check_product(a, b);
    if (a.ndim() != 1 || b.ndim() != 1) {
        fail(where("ornik::dot"), "dot(): takes tensors of one axis, not ", describe(a), " and ", describe(b), ".");
    }
    return matmul(a, b);
}

KTensor kron(const KTensor& left, const KTensor& right) {
    autograd::check_defined("kron", left, 0);
    autograd::check_defined("kron", right, 1);
    const std::int64_t r = promotion::of_tensors(left.dtype(), right.dtype());
    const KTensor a = astype(left, r);
    const KTensor b = astype(right, r);
    const Recorder record(Op::kron, {&a, &b});
    KTensor y = make_ktensor(ornik::kron(a.tensor(), b.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1)}, [](Backward& pass) {
            if (!pass.recorded()) {
                Tensor* grad = pass.grad().tensor();
                if (pass.wants(0)) {
                    pass.give(0, kron_grad_t1(grad, pass.saved_raw(0), pass.saved_raw(1)));
                }
                if (pass.wants(1)) {
                    pass.give(1, kron_grad_t2(grad, pass.saved_raw(0), pass.saved_raw(1)));
                }
                return;
            }
            const Dims p = pass.operand_shape(0);
            const Dims q = pass.operand_shape(1);
            const KTensor grad = reshape(pass.grad(), {p[0], q[0], p[1], q[1]});
            if (pass.wants(0)) {
                pass.give(0, sum(grad * conj_of(reshape(pass.saved(1), {1, q[0], 1, q[1]})), {1, 3}));
            }
            if (pass.wants(1)) {
                pass.give(1, sum(grad * conj_of(reshape(pass.saved(0), {p[0], 1, p[1], 1})), {0, 2}));
            }
        });
    }
    return y;
}

// ---- Decompositions ----

namespace {

// x's batch as one axis: what the decompositions below take.
KTensor one_batch(const KTensor& x) {
    const auto count = std::accumulate(x.shape().begin(), x.shape().end() - 2, std::int64_t{1}, std::multiplies<>());
    return reshape(x, {count, x.size(-2), x.size(-1)});
}

// Back to a batch like x's.
KTensor batch_of(const KTensor& y, const KTensor& x) {
    Dims shape(x.shape().begin(), x.shape().end() - 2);
    shape.insert(shape.end(), y.shape().begin() + 1, y.shape().end());
    return reshape(y, shape);
}

// Recorded: V (diag(grad_values) + H(F V^H grad_vectors)) V^H, with F of linear_algebra.h and H the Hermitian part.
KTensor eigh_gradient(const EigenPairs& pairs, const KTensor& grad_values, const KTensor& grad_vectors) {
    const KTensor adjoint = conj_of(transpose(pairs.vectors));
    KTensor inner;
    if (grad_values.defined()) {
        inner = diag_embed(astype(grad_values, pairs.vectors.dtype()));
    }
    if (grad_vectors.defined()) {
        const KTensor gaps = unsqueeze(pairs.values, -2) - unsqueeze(pairs.values, -1);
        const KTensor turns = autograd::inverse_or_zero(gaps) * matmul(adjoint, grad_vectors);
        const KTensor hermitian = (turns + conj_of(transpose(turns))) * 0.5;
        inner = inner.defined() ? inner + hermitian : hermitian;
    }
    return matmul(matmul(pairs.vectors, inner), adjoint);
}

}  // namespace

EigenPairs eigh(const KTensor& x) {
    if (x.defined() && x.ndim() > 3) {
        const EigenPairs pairs = eigh(one_batch(x));
        return {batch_of(pairs.values, x), batch_of(pairs.vectors, x)};
    }
    const Recorder record(Op::eigh, {&x});
    const std::vector<Tensor*> results = ornik::eigh(x.tensor());
    KTensor vectors = make_ktensor(results[0]);
    KTensor values = make_ktensor(results[1]);
    if (record.active()) {
        KTensor* outputs[] = {&values, &vectors};
        record.finish(std::span<KTensor* const>(outputs), {Recorder::output(values, 0), Recorder::output(vectors, 1)},
                      [](Backward& pass) {
                          if (pass.recorded()) {
                              pass.give(0, eigh_gradient({pass.saved(0), pass.saved(1)}, pass.grad(0), pass.grad(1)));
                              return;
                          }
                          pass.give(0, eigh_grad_from(pass.grad(1).tensor(), pass.grad(0).tensor(), pass.saved_raw(1),
                                                      pass.saved_raw(0)));
                      });
    }
    return {std::move(values), std::move(vectors)};
}

KTensor eigvalsh(const KTensor& x) {
    if (x.defined() && x.ndim() > 3) {
        return batch_of(eigvalsh(one_batch(x)), x);
    }
    const Recorder record(Op::eigvalsh, {&x});
    KTensor y = make_ktensor(ornik::eigvalsh(x.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0)}, [](Backward& pass) {
            pass.give(0, pass.recorded() ? eigh_gradient(eigh(pass.saved(0)), pass.grad(), KTensor())
                                         : make_ktensor(eigvalsh_grad(pass.grad().tensor(), pass.saved_raw(0))));
        });
    }
    return y;
}

}  // namespace ornik
