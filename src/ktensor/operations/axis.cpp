// axis.cpp: running sums, softmax and order along one axis, and their gradients.
#include <algorithm>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/sorting.h"

namespace ornik {

using autograd::Backward;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

KTensor cumsum(const KTensor& x, int axis) {
    const Recorder record(Op::cumsum, {&x});
    autograd::wrap_axis("cumsum", x, axis);
    KTensor y = make_ktensor(ornik::cumsum(x.tensor(), axis));
    if (record.active()) {
        record.finish(y, {}, [axis](Backward& pass) {
            if (pass.recorded()) {
                pass.give(0, flip(cumsum(flip(pass.grad(), {axis}), axis), {axis}));
            } else {
                pass.give(0, cumsum_grad(pass.grad().tensor(), axis));
            }
        });
    }
    return y;
}

namespace {

// Recorded. Each y[k] is a product of x[0 .. k]: its slope by x[i] is that of the others.
KTensor cumprod_gradient(const KTensor& grad, const KTensor& x, int axis) {
    const KTensor places = KTensor::arange(x.size(axis));
    const KTensor own = equal(unsqueeze(places, 1), places);
    const KTensor reached = less_equal(unsqueeze(places, 1), places);
    const KTensor others = cumprod(where(own, Scalar(1.0F), unsqueeze(moveaxis(x, axis, -1), -2)), -1);
    const KTensor terms = unsqueeze(moveaxis(grad, axis, -1), -2) * autograd::conj_of(others);
    return moveaxis(sum(where(reached, terms, Scalar(0.0F)), {-1}), -1, axis);
}

}  // namespace

KTensor cumprod(const KTensor& x, int axis) {
    const Recorder record(Op::cumprod, {&x});
    autograd::wrap_axis("cumprod", x, axis);
    KTensor y = make_ktensor(ornik::cumprod(x.tensor(), axis));
    if (record.active()) {
        record.finish(y, {record.operand(0)}, [axis](Backward& pass) {
            if (pass.recorded()) {
                pass.give(0, cumprod_gradient(pass.grad(), pass.saved(0), axis));
            } else {
                pass.give(0, cumprod_grad(pass.grad().tensor(), pass.saved_raw(0), axis));
            }
        });
    }
    return y;
}

KTensor softmax(const KTensor& x, int axis) {
    const Recorder record(Op::softmax, {&x});
    autograd::wrap_axis("softmax", x, axis);
    KTensor y = make_ktensor(ornik::softmax(x.tensor(), axis));
    if (record.active()) {
        record.finish(y, {Recorder::output(y)}, [axis](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, softmax_grad(pass.grad().tensor(), pass.saved_raw(0), axis));
                return;
            }
            const KTensor kept = pass.saved(0);
            pass.give(0, kept * (pass.grad() - sum(pass.grad() * kept, {axis}, true)));
        });
    }
    return y;
}

KTensor log_softmax(const KTensor& x, int axis) {
    const Recorder record(Op::log_softmax, {&x});
    autograd::wrap_axis("log_softmax", x, axis);
    KTensor y = make_ktensor(ornik::log_softmax(x.tensor(), axis));
    if (record.active()) {
        record.finish(y, {Recorder::output(y)}, [axis](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, log_softmax_grad(pass.grad().tensor(), pass.saved_raw(0), axis));
                return;
            }
            pass.give(0, pass.grad() - exp(pass.saved(0)) * sum(pass.grad(), {axis}, true));
        });
    }
    return y;
}

// ---- Order ----

namespace {

// Elements of x and where they were: each gets the gradient of its place back.
std::pair<KTensor, KTensor> chosen(Op op, const KTensor& x, int axis,
                                   std::vector<Tensor*> (*choose)(Tensor*, int, std::int64_t, bool), std::int64_t k,
                                   bool flag) {
    const Recorder record(op, {&x});
    autograd::wrap_axis(info_of(op).name, x, axis);
    const std::vector<Tensor*> results = choose(x.tensor(), axis, k, flag);
    KTensor values = make_ktensor(results[0]);
    KTensor positions = make_ktensor(results[1]);
    if (record.active()) {
        record.finish(values, {Recorder::own(positions)}, [axis](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, sort_grad(pass.grad().tensor(), pass.saved_raw(0), pass.operand_shape(0), axis));
                return;
            }
            const KTensor zeros = KTensor::zeros(pass.operand_shape(0), pass.grad().dtype());
            pass.give(0, scatter_add(zeros, axis, pass.saved(0), pass.grad()));
        });
    }
    return {std::move(values), std::move(positions)};
}

}  // namespace

std::pair<KTensor, KTensor> sort(const KTensor& x, int axis, bool descending) {
    return chosen(
        Op::sort, x, axis, [](Tensor* t, int a, std::int64_t, bool down) { return ornik::sort(t, a, down); }, 0,
        descending);
}

std::pair<KTensor, KTensor> topk(const KTensor& x, std::int64_t k, int axis, bool largest) {
    return chosen(
        Op::topk, x, axis, [](Tensor* t, int a, std::int64_t n, bool large) { return ornik::topk(t, n, a, large); }, k,
        largest);
}

KTensor argsort(const KTensor& x, int axis, bool descending) {
    autograd::check_defined("argsort", x, 0);
    autograd::wrap_axis("argsort", x, axis);
    return make_ktensor(ornik::argsort(x.tensor(), axis, descending));
}

Unique unique(const KTensor& x) {
    autograd::check_defined("unique", x, 0);
    const std::vector<Tensor*> parts = ornik::unique(x.tensor());
    return {make_ktensor(parts[0]), make_ktensor(parts[1]), make_ktensor(parts[2])};
}

KTensor bincount(const KTensor& x, const KTensor& weights, std::int64_t min_length) {
    autograd::check_defined("bincount", x, 0);
    if (x.dtype() >= dtype::float32 || x.dtype() == dtype::boolean) {
        fail(ErrorKind::dtype, where("ornik::bincount"), "bincount(): ", autograd::describe(x),
             " does not hold integers.");
    }
    if (weights.defined() && weights.shape() != x.shape()) {
        fail(where("ornik::bincount"), "bincount(): weights ", autograd::describe(weights),
             " do not have the shape of ", autograd::describe(x), ".");
    }
    std::int64_t length = std::max<std::int64_t>(min_length, 0);
    if (x.size() != 0) {
        const auto least = ornik::min(x).item<std::int64_t>();
        if (least < 0) {
            fail(where("ornik::bincount"), "bincount(): ", autograd::describe(x), " holds ", least, ".");
        }
        length = std::max(length, ornik::max(x).item<std::int64_t>() + 1);
    }
    const KTensor counted = weights.defined() ? reshape(weights, {-1}) : KTensor::ones({x.size()}, dtype::int64);
    return scatter_add(KTensor::zeros({length}, counted.dtype()), 0, reshape(x, {x.size()}), counted);
}

KTensor histogram(const KTensor& x, std::int64_t bins, double low, double high) {
    autograd::check_defined("histogram", x, 0);
    if (bins < 1 || !(low < high)) {
        fail(where("ornik::histogram"), "histogram(): there are no ", bins, " intervals from ", std::to_string(low),
             " to ", std::to_string(high), ".");
    }
    const NoGrad values_alone;
    const KTensor values = astype(reshape(x, {x.size()}), dtype::float64);
    const KTensor edges = KTensor::linspace(low, high, bins + 1, dtype::float64);
    // Behind their edge, or at the upper end; all others into a bin that is dropped, as NaN, which is behind all.
    const KTensor found = searchsorted(edges, values, true) - Scalar(std::int64_t{1});
    const KTensor inside = logical_and(greater_equal(values, Scalar(low)), less_equal(values, Scalar(high)));
    const KTensor places = where(inside, minimum(found, Scalar(bins - 1)), Scalar(bins));
    return narrow(bincount(places, KTensor(), bins + 1), 0, 0, bins);
}

KTensor searchsorted(const KTensor& sorted, const KTensor& values, bool right) {
    autograd::check_defined("searchsorted", sorted, 0);
    autograd::check_defined("searchsorted", values, 1);
    return make_ktensor(ornik::searchsorted(sorted.tensor(), values.tensor(), right));
}

}  // namespace ornik
