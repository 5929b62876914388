// reductions.cpp: sums, moments and extremes, and their gradients.
#include "ktensor/reductions.h"

#include <numeric>

#include "ktensor/arithmetic.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::expand_reduced;
using autograd::inverse_or_zero;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

struct Reduced {
    std::vector<int> axes;
    bool keep_dims;

    KTensor expand(const KTensor& reduced, const Dims& shape) const {
        return expand_reduced(reduced, shape, axes, keep_dims);
    }
};

using Reduction = Tensor* (*)(Tensor*, const std::vector<int>&, bool);
/// From the gradient of the result, x and the result.
using ReductionGradient = Tensor* (*)(Tensor*, Tensor*, const Tensor*, const std::vector<int>&, bool);
/// Recorded: the slope of a result for each element of x.
using ReductionSlope = KTensor (*)(const KTensor& x, const KTensor& y, const Reduced& how);

KTensor plain(const char* name, Reduction reduction, const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    autograd::check_defined(name, x, 0);
    autograd::wrap_axes(name, x, axes);
    return make_ktensor(reduction(x.tensor(), axes, keep_dims));
}

// A reduction whose gradient the library gives from x, and whose slope is made of recorded operations.
KTensor reduce(Op op, Reduction reduction, ReductionGradient gradient, ReductionSlope slope, const KTensor& x,
               const std::vector<int>& axes, bool keep_dims) {
    const Recorder record(op, {&x});
    KTensor y = plain(info_of(op).name, reduction, x, axes, keep_dims);
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)},
                      [how = Reduced{axes, keep_dims}, gradient, slope](Backward& pass) {
                          if (!pass.recorded()) {
                              pass.give(0, gradient(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1),
                                                    how.axes, how.keep_dims));
                              return;
                          }
                          const KTensor kept = pass.saved(0);
                          pass.give(
                              0, mul(how.expand(pass.grad(), kept.shape()), conj_of(slope(kept, pass.saved(1), how))));
                      });
    }
    return y;
}

KTensor norm_slope(const KTensor& x, const KTensor& y, const Reduced& how) {
    return x * how.expand(inverse_or_zero(y), x.shape());
}

KTensor logsumexp_slope(const KTensor& x, const KTensor& y, const Reduced& how) {
    return exp(x - how.expand(y, x.shape()));
}

// Steps have constant slopes: the gradient of 1.
Tensor* prod_gradient(Tensor* grad, Tensor* x, const Tensor* /*y*/, const std::vector<int>& axes, bool keep_dims) {
    return prod_grad(grad, x, axes, keep_dims);
}

Tensor* median_gradient(Tensor* grad, Tensor* x, const Tensor* /*y*/, const std::vector<int>& axes, bool keep_dims) {
    return median_grad(grad, x, axes, keep_dims);
}

template <ReductionGradient gradient>
KTensor choice_slope(const KTensor& x, const KTensor& y, const Reduced& how) {
    const KTensor one = KTensor::ones(y.shape(), y.dtype());
    return make_ktensor(gradient(one.tensor(), x.tensor(), y.tensor(), how.axes, how.keep_dims));
}

// The product of all others. Without zeros that is y / x; otherwise every element takes its turn as 1 in a product of
// its own.
KTensor prod_slope(const KTensor& x, const KTensor& y, const Reduced& how) {
    const KTensor has_zero = any(equal(x, Scalar(0.0F)));
    if (x.size() == 0 || !*static_cast<const bool*>(has_zero.tensor()->getRawData())) {
        return how.expand(y, x.shape()) / x;
    }
    const int rank = x.ndim();
    std::vector<int> order;
    std::vector<int> reduced;
    for (int axis = 0; axis < rank; ++axis) {
        const auto named = [&](int a) { return a == axis || a + rank == axis; };
        const bool is_reduced =
            how.axes.empty() || std::find_if(how.axes.begin(), how.axes.end(), named) != how.axes.end();
        (is_reduced ? reduced : order).push_back(axis);
    }
    const std::size_t outer = order.size();
    order.insert(order.end(), reduced.begin(), reduced.end());
    const KTensor last = permute(x, order);
    const Dims moved = last.shape();
    Dims rows(moved.begin(), moved.begin() + static_cast<std::ptrdiff_t>(outer));
    const std::int64_t n = std::accumulate(moved.begin() + static_cast<std::ptrdiff_t>(outer), moved.end(),
                                           std::int64_t{1}, std::multiplies<>());
    rows.push_back(1);
    rows.push_back(n);
    const KTensor own_place = KTensor(std::unique_ptr<Tensor>(Tensor::eye(n, n, 0, dtype::boolean)));
    const KTensor others = prod(where(own_place, Scalar(1.0F), reshape(last, rows)), {-1});
    std::vector<int> back(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        back[static_cast<std::size_t>(order[i])] = static_cast<int>(i);
    }
    return permute(reshape(others, moved), back);
}

}  // namespace

KTensor sum(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    const Recorder record(Op::sum, {&x});
    KTensor y = plain("sum", ornik::sum, x, axes, keep_dims);
    if (record.active()) {
        record.finish(y, {}, [how = Reduced{axes, keep_dims}](Backward& pass) {
            pass.give(0, how.expand(pass.grad(), pass.operand_shape(0)));
        });
    }
    return y;
}

KTensor mean(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    const Recorder record(Op::mean, {&x});
    KTensor y = plain("mean", ornik::mean, x, axes, keep_dims);
    if (record.active()) {
        record.finish(y, {}, [how = Reduced{axes, keep_dims}](Backward& pass) {
            const Dims shape = pass.operand_shape(0);
            const auto count = static_cast<double>(autograd::reduced_count(shape, how.axes));
            pass.give(0, how.expand(div(pass.grad(), Scalar(count)), shape));
        });
    }
    return y;
}

KTensor prod(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return reduce(Op::prod, ornik::prod, prod_gradient, prod_slope, x, axes, keep_dims);
}

KTensor l2_norm(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    const Recorder record(Op::l2_norm, {&x});
    KTensor y = plain("l2_norm", ornik::l2_norm, x, axes, keep_dims);
    if (record.active()) {
        // grad is real, and x / y is to be taken as it is, not conjugated.
        record.finish(y, {record.operand(0), Recorder::output(y)}, [how = Reduced{axes, keep_dims}](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, l2_norm_grad_from(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1), how.axes,
                                               how.keep_dims));
                return;
            }
            const KTensor kept = pass.saved(0);
            pass.give(0, mul(how.expand(pass.grad(), kept.shape()), norm_slope(kept, pass.saved(1), how)));
        });
    }
    return y;
}

namespace {

// 2 (x - mean) / (count - correction)
KTensor variance_slope(const KTensor& x, const Reduced& how, double correction) {
    const auto count = static_cast<double>(autograd::reduced_count(x.shape(), how.axes));
    return (x - mean(x, how.axes, true)) * (2.0 / (count - correction));
}

}  // namespace

KTensor var(const KTensor& x, const std::vector<int>& axes, bool keep_dims, double correction) {
    const Recorder record(Op::var, {&x});
    autograd::wrap_axes("var", x, axes);
    KTensor y = make_ktensor(ornik::var(x.tensor(), axes, keep_dims, correction));
    if (record.active()) {
        record.finish(y, {record.operand(0)}, [how = Reduced{axes, keep_dims}, correction](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, var_grad(pass.grad().tensor(), pass.saved_raw(0), how.axes, how.keep_dims, correction));
                return;
            }
            const KTensor kept = pass.saved(0);
            pass.give(0, mul(how.expand(pass.grad(), kept.shape()), variance_slope(kept, how, correction)));
        });
    }
    return y;
}

KTensor std_dev(const KTensor& x, const std::vector<int>& axes, bool keep_dims, double correction) {
    const Recorder record(Op::std_dev, {&x});
    autograd::wrap_axes("std_dev", x, axes);
    KTensor y = make_ktensor(ornik::std_dev(x.tensor(), axes, keep_dims, correction));
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)},
                      [how = Reduced{axes, keep_dims}, correction](Backward& pass) {
                          if (!pass.recorded()) {
                              pass.give(0, std_dev_grad_from(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1),
                                                             how.axes, how.keep_dims, correction));
                              return;
                          }
                          const KTensor kept = pass.saved(0);
                          const KTensor scale = pass.grad() * inverse_or_zero(pass.saved(1)) * 0.5;
                          pass.give(0, mul(how.expand(scale, kept.shape()), variance_slope(kept, how, correction)));
                      });
    }
    return y;
}

KTensor logsumexp(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return reduce(Op::logsumexp, ornik::logsumexp, logsumexp_grad_from, logsumexp_slope, x, axes, keep_dims);
}

KTensor max(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return reduce(Op::max, ornik::max, extreme_grad_from, choice_slope<extreme_grad_from>, x, axes, keep_dims);
}

KTensor min(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return reduce(Op::min, ornik::min, extreme_grad_from, choice_slope<extreme_grad_from>, x, axes, keep_dims);
}

KTensor median(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return reduce(Op::median, ornik::median, median_gradient, choice_slope<median_gradient>, x, axes, keep_dims);
}

KTensor argmax(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return plain("argmax", ornik::argmax, x, axes, keep_dims);
}

KTensor argmin(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return plain("argmin", ornik::argmin, x, axes, keep_dims);
}

KTensor any(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return plain("any", ornik::any, x, axes, keep_dims);
}

KTensor all(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return plain("all", ornik::all, x, axes, keep_dims);
}

KTensor count_nonzero(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    autograd::check_defined("count_nonzero", x, 0);
    return sum(not_equal(x, Scalar(false)), axes, keep_dims);
}

KTensor trace(const KTensor& x, std::int64_t offset, int axis1, int axis2) {
    const Recorder record(Op::trace, {&x});
    autograd::wrap_axes("trace", x, {axis1, axis2});
    KTensor y = make_ktensor(ornik::trace(x.tensor(), offset, axis1, axis2));
    if (record.active()) {
        record.finish(y, {}, [offset, axis1, axis2](Backward& pass) {
            const KTensor zeros = KTensor::zeros(pass.operand_shape(0), pass.grad().dtype());
            const Dims walked = diagonal(zeros, offset, axis1, axis2).shape();
            const KTensor source = broadcast_to(unsqueeze(pass.grad(), -1), walked);
            pass.give(0, diagonal_scatter(zeros, source, offset, axis1, axis2));
        });
    }
    return y;
}

}  // namespace ornik
