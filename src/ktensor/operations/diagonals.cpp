// diagonals.cpp: diagonals as tensors and as parts of tensors, and triangles.
#include <memory>

#include "ktensor/axes.h"
#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/joins.h"
#include "tensor/slices.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

KTensor diagonal(const KTensor& x, std::int64_t offset, int a, int b) {
    const Recorder record(Op::diagonal, {&x});
    autograd::wrap_axes("diagonal", x, {a, b});
    KTensor y = make_ktensor(x.tensor()->diagonal(offset, a, b));
    if (record.active()) {
        record.finish(y, {}, [offset, a, b](Backward& pass) {
            const Dims shape = pass.operand_shape(0);
            if (pass.recorded()) {
                const KTensor zeros = KTensor::zeros(shape, pass.grad().dtype());
                pass.give(0, diagonal_scatter(zeros, pass.grad(), offset, a, b));
            } else {
                pass.give(0, diagonal_grad(pass.grad().tensor(), shape, offset, a, b));
            }
        });
    }
    return y;
}

KTensor diagonal_scatter(const KTensor& x, const KTensor& given, std::int64_t offset, int a, int b) {
    constexpr const char* name = "diagonal_scatter";
    autograd::check_defined(name, x, 0);
    autograd::check_defined(name, given, 1);
    autograd::wrap_axes(name, x, {a, b});
    const std::unique_ptr<Tensor> place(x.tensor()->diagonal(offset, a, b));
    if (given.shape() != place->Shape()) {
        fail(where("ornik::diagonal_scatter"), name, "(): the diagonal is ", describe(place->Shape(), x.dtype()),
             ", the source is ", describe(given), ".");
    }
    autograd::check_holds(name, x, x.shape(), given.dtype());
    const KTensor source = astype(given, x.dtype());
    const Recorder record(Op::diagonal_scatter, {&x, &source});
    KTensor y = make_ktensor(autograd::copy_of(*x.tensor()));
    const std::unique_ptr<Tensor> target(y.tensor()->diagonal(offset, a, b));
    set_slices(target.get(), source.tensor(), {});
    if (record.active()) {
        record.finish(y, {}, [offset, a, b](Backward& pass) {
            if (pass.wants(1)) {
                pass.give(1, diagonal(pass.grad(), offset, a, b));
            }
            if (pass.wants(0)) {
                const KTensor zeros = KTensor::zeros(pass.operand_shape(1), pass.grad().dtype());
                pass.give(0, diagonal_scatter(pass.grad(), zeros, offset, a, b));
            }
        });
    }
    return y;
}

KTensor diag_embed(const KTensor& x, std::int64_t offset, int a, int b) {
    constexpr const char* name = "diag_embed";
    const Recorder record(Op::diag_embed, {&x});
    if (x.ndim() == 0) {
        fail(where("ornik::diag_embed"), name, "(): ", describe(x), " has no axis.");
    }
    const int rank = x.ndim() + 1;
    const auto is_axis = [rank](int axis) { return axis >= -rank && axis < rank; };
    if (!is_axis(a) || !is_axis(b) || (a - b) % rank == 0) {
        fail(ErrorKind::index, where("ornik::diag_embed"), name, "(): axes ", a, " and ", b,
             " are no two of the result, which has ", rank, ".");
    }
    constexpr std::int64_t most = std::int64_t{1} << 48;
    if (offset > most || offset < -most) {
        fail(where("ornik::diag_embed"), name, "(): a diagonal displaced by ", offset, " fits into no tensor.");
    }
    KTensor y = make_ktensor(ornik::diag_embed(x.tensor(), offset, a, b));
    if (record.active()) {
        record.finish(y, {}, [offset, a, b](Backward& pass) { pass.give(0, diagonal(pass.grad(), offset, a, b)); });
    }
    return y;
}

KTensor diag(const KTensor& x, std::int64_t offset) {
    autograd::check_defined("diag", x, 0);
    if (x.ndim() != 1 && x.ndim() != 2) {
        fail(where("ornik::diag"), "diag(): one axis or two are wanted, not ", describe(x), ".");
    }
    return x.ndim() == 1 ? diag_embed(x, offset, 0, 1) : diagonal(x, offset, 0, 1);
}

namespace {

KTensor triangle(Op op, const KTensor& x, std::int64_t k, Tensor* (*cut)(const Tensor*, std::int64_t)) {
    const Recorder record(op, {&x});
    if (x.ndim() < 2) {
        fail(where("ornik::KTensor"), autograd::info_of(op).name, "(): ", describe(x), " has fewer than two axes.");
    }
    KTensor y = make_ktensor(cut(x.tensor(), k));
    if (record.active()) {
        record.finish(y, {}, [op, k, cut](Backward& pass) { pass.give(0, triangle(op, pass.grad(), k, cut)); });
    }
    return y;
}

}  // namespace

KTensor tril(const KTensor& x, std::int64_t k) { return triangle(Op::tril, x, k, ornik::tril); }
KTensor triu(const KTensor& x, std::int64_t k) { return triangle(Op::triu, x, k, ornik::triu); }

}  // namespace ornik
