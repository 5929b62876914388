// decompositions.cpp: factors, inverses, determinants and solutions of matrices.
//
// Gradients are written in recorded operations. M. Giles, An extended collection of matrix derivative results for
// forward and reverse mode algorithmic differentiation (2008), has those of inverses, determinants, solutions and
// singular values; others are named where they stand.
#include "tensor/tensor_math/decompositions.h"

#include <complex>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/linalg.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "tensor/joins.h"
#include "tensor/tensor_math/promotion.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::describe;
using autograd::inverse_or_zero;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

KTensor adjoint(const KTensor& x) { return conj_of(transpose(x)); }

// Numbers of a batch [..] as factors of its matrices; rows of numbers [.., k] as factors of columns, and of rows.
KTensor each_matrix(const KTensor& x) { return unsqueeze(unsqueeze(x, -1), -1); }
KTensor each_column(const KTensor& x) { return unsqueeze(x, -2); }
KTensor each_row(const KTensor& x) { return unsqueeze(x, -1); }

std::int64_t real_dtype(const KTensor& x) {
    return x.dtype() == dtype::float32 || x.dtype() == dtype::complex64 ? dtype::float32 : dtype::float64;
}

KTensor identity(std::int64_t rows, std::int64_t cols, const KTensor& like) {
    return KTensor::eye(rows, cols, 0, real_dtype(like));
}

KTensor or_zeros(const KTensor& gradient, const KTensor& like) {
    return gradient.defined() ? gradient : KTensor::zeros_like(like);
}

// The Hermitian matrix with the lower triangle of x and the real part of its diagonal.
KTensor mirrored(const KTensor& x) {
    const std::int64_t n = x.size(-1);
    const KTensor ones = KTensor::ones({n, n}, real_dtype(x));
    const KTensor below = make_ktensor(ornik::tril(ones.tensor())) - identity(n, n, x) * 0.5;
    const KTensor half = x * below;
    return half + adjoint(half);
}

// x y^-H
KTensor divided(const KTensor& x, const KTensor& y) { return adjoint(solve(y, adjoint(x))); }

}  // namespace

KTensor cholesky(const KTensor& x, bool upper) {
    const Recorder record(Op::cholesky, {&x});
    KTensor y = make_ktensor(ornik::cholesky(x.tensor(), upper));
    if (record.active()) {
        // I. Murray, Differentiation of the Cholesky decomposition, 2016.
        record.finish(y, {Recorder::output(y)}, [upper](Backward& pass) {
            const KTensor kept = pass.saved(0);
            const KTensor right = upper ? kept : adjoint(kept);
            const KTensor inner = mirrored(matmul(right, upper ? adjoint(pass.grad()) : pass.grad()));
            pass.give(0, solve(right, adjoint(solve(right, inner))) * 0.5);
        });
    }
    return y;
}

namespace {

// With x = [x1 x2], square x1 = q u and x2 = q v, and r = [u v]: x2 and its part of r only add to the gradient of q,
// for v = q^H x2. The rest is that of a square matrix (H.-J. Liao et al., Differentiable programming tensor networks,
// 2019).
void qr_backward(Backward& pass) {
    const KTensor q = pass.saved(0);
    const KTensor r = pass.saved(1);
    const KTensor gq = or_zeros(pass.grad(0), q);
    const KTensor gr = or_zeros(pass.grad(1), r);
    const std::int64_t k = q.size(-1);
    const std::int64_t n = r.size(-1);
    if (k > n) {
        fail(ErrorKind::not_implemented, where("ornik::qr"), "qr(): the complete factor ", describe(q),
             " of matrices with more rows than columns has no gradient; the reduced one has.");
    }
    const KTensor whole = matmul(r, adjoint(gr));
    if (k == n) {
        pass.give(0, divided(gq + matmul(q, mirrored(whole - matmul(adjoint(gq), q))), r));
        return;
    }
    const KTensor first = identity(n, k, r);
    const KTensor u = matmul(r, first);
    const KTensor gu = matmul(gr, first);
    const KTensor square = matmul(u, adjoint(gu));
    const KTensor rest = whole - square;  // v gv^H
    const KTensor inner = mirrored(square - matmul(adjoint(gq), q) - adjoint(rest)) + rest;
    const KTensor of_first = divided(gq + matmul(q, inner), u);
    pass.give(0, matmul(of_first - matmul(q, gu), transpose(first)) + matmul(q, gr));
}

}  // namespace

QrFactors qr(const KTensor& x, bool complete) {
    const Recorder record(Op::qr, {&x});
    const std::vector<Tensor*> results = ornik::qr(x.tensor(), complete);
    QrFactors y{make_ktensor(results[0]), make_ktensor(results[1])};
    if (record.active()) {
        KTensor* outputs[] = {&y.q, &y.r};
        record.finish(std::span<KTensor* const>(outputs), {Recorder::output(y.q, 0), Recorder::output(y.r, 1)},
                      qr_backward);
    }
    return y;
}

namespace {

// The gradient of values alone.
KTensor of_values(const KTensor& x, const KTensor& grad) {
    const SingularValues factors = svd(x, false);
    return matmul(factors.u * each_column(grad), factors.vh);
}

// Of as many vectors as values. Complex: Z.-Q. Wan, S.-X. Zhang, Automatic differentiation for complex valued SVD,
// 2019.
void svd_backward(Backward& pass) {
    const KTensor u = pass.saved(0);
    const KTensor s = pass.saved(1);
    const KTensor vh = pass.saved(2);
    const KTensor& gu = pass.grad(0);
    const KTensor& gs = pass.grad(1);
    const KTensor& gvh = pass.grad(2);
    const std::int64_t k = s.size(-1);
    const std::int64_t m = u.size(-2);
    const std::int64_t n = vh.size(-1);
    const KTensor square = sqr(s);
    const KTensor gaps = inverse_or_zero(each_column(square) - each_row(square));
    const KTensor unit = identity(k, k, s);
    KTensor inner;  // u^H gradient vh^H
    const auto add = [&](const KTensor& part) { inner = inner.defined() ? inner + part : part; };
    if (gs.defined()) {
        add(each_column(gs) * unit);
    }
    if (gu.defined()) {
        const KTensor product = matmul(adjoint(u), gu);
        const KTensor skew = product - adjoint(product);
        add(skew * gaps * each_column(s));
        if (u.is_complex()) {  // The phases, in which u and vh turn together.
            add(skew * unit * each_column(inverse_or_zero(s)) * 0.5);
        }
    }
    if (gvh.defined()) {
        const KTensor product = matmul(vh, adjoint(gvh));
        add(each_row(s) * (product - adjoint(product)) * gaps);
    }
    KTensor result = matmul(matmul(u, inner), vh);
    // What the vectors do not span.
    if (gu.defined() && m > k) {
        const KTensor part = gu * each_column(inverse_or_zero(s));
        result = result + matmul(part - matmul(u, matmul(adjoint(u), part)), vh);
    }
    if (gvh.defined() && n > k) {
        const KTensor part = each_row(inverse_or_zero(s)) * gvh;
        result = result + matmul(u, part - matmul(matmul(part, adjoint(vh)), vh));
    }
    pass.give(0, result);
}

}  // namespace

SingularValues svd(const KTensor& x, bool full_matrices) {
    const Recorder record(Op::svd, {&x});
    const std::vector<Tensor*> results = ornik::svd(x.tensor(), full_matrices);
    SingularValues y{make_ktensor(results[0]), make_ktensor(results[1]), make_ktensor(results[2])};
    if (!record.active()) {
        return y;
    }
    KTensor* outputs[] = {&y.u, &y.s, &y.vh};
    if (y.u.size(-1) == y.vh.size(-2)) {
        record.finish(std::span<KTensor* const>(outputs),
                      {Recorder::output(y.u, 0), Recorder::output(y.s, 1), Recorder::output(y.vh, 2)}, svd_backward);
    } else {
        record.finish(std::span<KTensor* const>(outputs), {record.operand(0)}, [](Backward& pass) {
            const KTensor kept = pass.saved(0);
            if (pass.grad(0).defined() || pass.grad(2).defined()) {
                fail(ErrorKind::not_implemented, where("ornik::svd"), "svd(): the full factors of ", describe(kept),
                     " have no gradients; those with full_matrices off have.");
            }
            pass.give(0, of_values(kept, pass.grad(1)));
        });
    }
    return y;
}

KTensor svdvals(const KTensor& x) {
    const Recorder record(Op::svdvals, {&x});
    KTensor y = make_ktensor(ornik::svdvals(x.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0)},
                      [](Backward& pass) { pass.give(0, of_values(pass.saved(0), pass.grad())); });
    }
    return y;
}

// ---- Eigenvalues ----

EigenPairs eig(const KTensor& x) {
    const Recorder record(Op::eig, {&x});
    const std::vector<Tensor*> results = ornik::eig(x.tensor());
    EigenPairs y{make_ktensor(results[0]), make_ktensor(results[1])};
    if (record.active()) {
        KTensor* outputs[] = {&y.values, &y.vectors};
        record.finish(std::span<KTensor* const>(outputs),
                      {Recorder::output(y.values, 0), Recorder::output(y.vectors, 1)}, [](Backward& pass) {
                          const KTensor values = pass.saved(0);
                          const KTensor vectors = pass.saved(1);
                          const KTensor rows = adjoint(vectors);
                          const KTensor unit = identity(values.size(-1), values.size(-1), values);
                          KTensor inner = each_column(or_zeros(pass.grad(0), values)) * unit;
                          if (pass.grad(1).defined()) {
                              // Vectors keep their length.
                              const KTensor product = matmul(rows, pass.grad(1));
                              const KTensor turned =
                                  product - matmul(rows, vectors) * each_column(real(sum(product * unit, {-2})));
                              inner = inner + turned * conj(inverse_or_zero(each_column(values) - each_row(values)));
                          }
                          const KTensor result = solve(rows, matmul(inner, rows));
                          const bool complex = is_dtype_class(pass.operand_dtype(0), DtypeClass::complex);
                          pass.give(0, complex ? result : real(result));
                      });
    }
    return y;
}

KTensor eigvals(const KTensor& x) {
    autograd::check_defined("eigvals", x, 0);
    return grad_enabled() && x.wants_grad() ? eig(x).values : make_ktensor(ornik::eigvals(x.tensor()));
}

// ---- Inverses and determinants ----

KTensor inv(const KTensor& x) {
    const Recorder record(Op::inv, {&x});
    KTensor y = make_ktensor(ornik::inv(x.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::output(y)}, [](Backward& pass) {
            const KTensor inverse = adjoint(pass.saved(0));
            pass.give(0, neg(matmul(matmul(inverse, pass.grad()), inverse)));
        });
    }
    return y;
}

KTensor solve(const KTensor& x, const KTensor& b) {
    autograd::check_defined("solve", x, 0);
    autograd::check_defined("solve", b, 1);
    const std::int64_t dtype = promotion::of_tensors(x.dtype(), b.dtype());
    const KTensor left = astype(x, dtype);
    const KTensor right = astype(b, dtype);
    const Recorder record(Op::solve, {&left, &right});
    KTensor y = make_ktensor(ornik::solve(left.tensor(), right.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0), record.wants(0) ? Recorder::output(y) : autograd::Keep{}},
                      [is_vector = b.ndim() == 1](Backward& pass) {
                          const KTensor grad = is_vector ? each_row(pass.grad()) : pass.grad();
                          const KTensor of_b = solve(adjoint(pass.saved(0)), grad);
                          if (pass.wants(0)) {
                              const KTensor kept = pass.saved(1);
                              pass.give(0, neg(matmul(of_b, adjoint(is_vector ? each_row(kept) : kept))));
                          }
                          if (pass.wants(1)) {
                              pass.give(1, is_vector ? squeeze(of_b, {-1}) : of_b);
                          }
                      });
    }
    return y;
}

namespace {

// x's cofactors, conjugated: with x = u diag(s) vh, u diag(products of all other s) vh times the determinants of u and
// vh.
KTensor conjugate_cofactors(const KTensor& x) {
    const SingularValues factors = svd(x, false);
    const KTensor own_place = astype(identity(x.size(-1), x.size(-1), x), dtype::boolean);
    const KTensor others = prod(where(own_place, Scalar(1.0F), each_column(factors.s)), {-1});
    const KTensor turn = conj_of(det(factors.u) * det(factors.vh));
    return each_matrix(turn) * matmul(factors.u * each_column(others), factors.vh);
}

}  // namespace

KTensor det(const KTensor& x) {
    const Recorder record(Op::det, {&x});
    KTensor y = make_ktensor(ornik::det(x.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)}, [](Backward& pass) {
            const KTensor kept = pass.saved(0);
            const KTensor value = pass.saved(1);
            if (any(equal(value, Scalar(0.0F))).item<bool>()) {
                pass.give(0, each_matrix(pass.grad()) * conjugate_cofactors(kept));
            } else {
                pass.give(0, each_matrix(pass.grad() * conj_of(value)) * adjoint(inv(kept)));
            }
        });
    }
    return y;
}

SignedLogarithm slogdet(const KTensor& x) {
    const Recorder record(Op::slogdet, {&x});
    const std::vector<Tensor*> results = ornik::slogdet(x.tensor());
    SignedLogarithm y{make_ktensor(results[0]), make_ktensor(results[1])};
    if (record.active()) {
        KTensor* outputs[] = {&y.sign, &y.logabsdet};
        record.finish(
            std::span<KTensor* const>(outputs), {record.operand(0), Recorder::output(y.sign)}, [](Backward& pass) {
                // The logarithm changes by the real part of tr(x^-1 dx), the sign by i sign times the imaginary part.
                const KTensor kept = pass.saved(0);
                KTensor factor = pass.grad(1);
                if (pass.grad(0).defined() && kept.is_complex()) {
                    const KTensor turn = imag(conj(pass.grad(0)) * pass.saved(1)) * Scalar(std::complex<float>(0, -1));
                    factor = factor.defined() ? factor + turn : turn;
                }
                pass.give(0, factor.defined() ? each_matrix(factor) * adjoint(inv(kept)) : KTensor::zeros_like(kept));
            });
    }
    return y;
}

// G. Golub, V. Pereyra, The differentiation of pseudo-inverses and nonlinear least squares problems whose variables
// separate, 1973.
KTensor pinv(const KTensor& x, const KTensor& rtol) {
    const Recorder record(Op::pinv, {&x});
    KTensor y = make_ktensor(ornik::pinv(x.tensor(), rtol.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)}, [](Backward& pass) {
            const KTensor a = pass.saved(0);
            const KTensor p = pass.saved(1);
            const KTensor back = adjoint(p);
            const KTensor left = matmul(matmul(adjoint(pass.grad()), p), back);
            const KTensor right = matmul(matmul(back, p), adjoint(pass.grad()));
            pass.give(0, left - matmul(a, matmul(p, left)) + right - matmul(matmul(right, p), a) -
                             matmul(matmul(back, pass.grad()), back));
        });
    }
    return y;
}

KTensor pinv(const KTensor& x, double rtol) { return pinv(x, KTensor::scalar(rtol)); }

KTensor matrix_rank(const KTensor& x, const KTensor& rtol) {
    autograd::check_defined("matrix_rank", x, 0);
    return make_ktensor(ornik::matrix_rank(x.tensor(), rtol.tensor()));
}

KTensor matrix_rank(const KTensor& x, double rtol) { return matrix_rank(x, KTensor::scalar(rtol)); }

}  // namespace ornik
