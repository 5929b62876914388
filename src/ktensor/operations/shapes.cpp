// shapes.cpp: conversion, broadcasting and its reverse, views.
#include "ktensor/shapes.h"

#include <algorithm>
#include <numeric>

#include "ktensor/autograd.h"
#include "ktensor/axes.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_shape.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;
using autograd::share;

namespace {

// What an operand's gradient has to be is known to its edge: shape and dtype are brought back there.
constexpr auto hand_on = [](Backward& pass) { pass.give(0, pass.take_grad()); };

constexpr auto reshape_back = [](Backward& pass) { pass.give(0, reshape(pass.grad(), pass.operand_shape(0))); };

// `shape` with the extent for -1.
Dims complete_shape(const char* name, const KTensor& x, const Dims& shape) {
    const auto refuse = [&] {
        fail(where("ornik::KTensor"), name, "(): ", describe(x), " has ", x.size(), " elements, which do not make ",
             describe(shape, x.dtype()), ".");
    };
    Dims result = shape;
    std::int64_t known = 1;
    auto unknown = result.end();
    for (auto extent = result.begin(); extent != result.end(); ++extent) {
        if (*extent == -1 && unknown == result.end()) {
            unknown = extent;
        } else if (*extent < 0 || __builtin_mul_overflow(known, *extent, &known)) {
            refuse();
        }
    }
    if (unknown != result.end()) {
        if (known == 0 || x.size() % known != 0) {
            refuse();
        }
        *unknown = x.size() / known;
        known *= *unknown;
    }
    if (known != x.size()) {
        refuse();
    }
    return result;
}

}  // namespace

KTensor astype(const KTensor& x, std::int64_t dtype) {
    const Recorder record(Op::astype, {&x});
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, where("ornik::astype"), "astype(): there is no dtype ", dtype, ".");
    }
    if (x.dtype() == dtype) {
        return x;
    }
    std::unique_ptr<Tensor> converted = autograd::empty_tensor(x.shape(), dtype);
    if (x.size() != 0) {
        converted->copy_from_(x.tensor());
    }
    KTensor y = make_ktensor(std::move(converted));
    if (record.active()) {
        record.finish(y, {}, hand_on);
    }
    return y;
}

KTensor clone(const KTensor& x) {
    const Recorder record(Op::clone, {&x});
    KTensor y = make_ktensor(autograd::copy_of(*x.tensor()));
    if (record.active()) {
        record.finish(y, {}, hand_on);
    }
    return y;
}

KTensor contiguous(const KTensor& x) { return x.is_contiguous() ? x : clone(x); }

KTensor& copy_(KTensor& x, const KTensor& source) {
    autograd::check_defined("copy_", source, 1);
    const bool recorded = grad_enabled() && (x.wants_grad() || source.wants_grad());
    autograd::check_in_place("copy_", x, recorded);
    autograd::check_holds("copy_", x, autograd::broadcast_shape("copy_", x, source), x.dtype());
    if (recorded) {
        const KTensor values = broadcast_to(astype(source, x.dtype()), x.shape());
        autograd::take_over(x, values.wants_grad() ? clone(values) : values);
    } else if (x.size() != 0) {
        x.tensor()->copy_from_(source.tensor());
    }
    return x;
}

KTensor& fill_(KTensor& x, const Scalar& value) {
    const bool recorded = grad_enabled() && x.defined() && x.wants_grad();
    autograd::check_in_place("fill_", x, recorded);
    if (is_dtype_class(value.Dtype(), DtypeClass::complex)) {
        autograd::check_holds("fill_", x, x.shape(), value.Dtype());
    }
    const KTensor number = autograd::scalar_tensor(value, x.dtype());
    if (recorded) {
        autograd::take_over(x, broadcast_to(number, x.shape()));
    } else if (x.size() != 0) {
        x.tensor()->copy_from_(number.tensor());
    }
    return x;
}

KTensor& zero_(KTensor& x) { return fill_(x, Scalar(false)); }

KTensor broadcast_to(const KTensor& x, const Dims& shape) {
    const Recorder record(Op::broadcast_to, {&x});
    const Dims& from = x.shape();
    bool fits = from.size() <= shape.size();
    for (std::size_t i = 0; fits && i < from.size(); ++i) {
        const std::int64_t target = shape[shape.size() - from.size() + i];
        fits = from[i] == target || (from[i] == 1 && target >= 0);
    }
    if (!fits) {
        fail(where("ornik::broadcast_to"), "broadcast_to(): ", describe(x), " does not broadcast to ",
             describe(shape, x.dtype()), ".");
    }
    KTensor y = make_ktensor(Tensor::broadcast_to(x.tensor(), shape));
    if (record.active()) {
        record.finish(y, {}, hand_on);
    }
    return y;
}

KTensor sum_to_shape(const KTensor& x, const Dims& shape) {
    const Recorder record(Op::sum_to_shape, {&x});
    const Dims& from = x.shape();
    if (from == shape) {
        return x;
    }
    bool fits = from.size() >= shape.size();
    const std::size_t lead = fits ? from.size() - shape.size() : 0;
    std::vector<int> axes;
    for (std::size_t i = 0; fits && i < from.size(); ++i) {
        if (i < lead || (shape[i - lead] == 1 && from[i] != 1)) {
            axes.push_back(static_cast<int>(i));
        } else {
            fits = shape[i - lead] == from[i];
        }
    }
    if (!fits) {
        fail(where("ornik::sum_to_shape"), "sum_to_shape(): ", describe(shape, x.dtype()), " does not broadcast to ",
             describe(x), ".");
    }
    const KTensor total = make_ktensor(ornik::sum(x.tensor(), axes, true));
    KTensor y = share(total, shape, shape2stride(shape));
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, broadcast_to(pass.grad(), pass.operand_shape(0))); });
    }
    return y;
}

// ---- Other shapes ----

KTensor reshape(const KTensor& x, const Dims& shape) {
    const Recorder record(Op::reshape, {&x});
    const Dims complete = complete_shape("reshape", x, shape);
    if (complete == x.shape()) {
        return x;
    }
    const Tensor& t = *x.tensor();
    const Dims strides = view_strides(t.Shape(), t.Strides(), t.Size(), complete);
    KTensor y;
    if (!strides.empty() || t.Size() < 2) {
        y = share(x, complete, strides.empty() ? shape2stride(complete) : strides);
    } else {
        y = share(make_ktensor(autograd::copy_of(t)), complete, shape2stride(complete));
    }
    if (record.active()) {
        record.finish(y, {}, reshape_back);
    }
    return y;
}

KTensor view(const KTensor& x, const Dims& shape) {
    autograd::check_defined("view", x, 0);
    const Tensor& t = *x.tensor();
    const Dims complete = complete_shape("view", x, shape);
    if (t.Size() > 1 && view_strides(t.Shape(), t.Strides(), t.Size(), complete).empty()) {
        fail(where("ornik::view"), "view(): the strides of ", describe(x), " admit no view as ",
             describe(complete, x.dtype()), "; reshape() copies.");
    }
    return reshape(x, shape);
}

KTensor flatten(const KTensor& x, int start, int end) {
    autograd::check_defined("flatten", x, 0);
    if (x.ndim() == 0) {
        return reshape(x, {1});
    }
    const std::size_t first = autograd::wrap_axis("flatten", x, start);
    const std::size_t last = autograd::wrap_axis("flatten", x, end);
    const Dims& shape = x.shape();
    if (first > last) {
        fail(where("ornik::flatten"), "flatten(): axis ", start, " of ", describe(x), " comes after axis ", end, ".");
    }
    Dims flat(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(first));
    flat.push_back(std::accumulate(shape.begin() + static_cast<std::ptrdiff_t>(first),
                                   shape.begin() + static_cast<std::ptrdiff_t>(last) + 1, std::int64_t{1},
                                   std::multiplies<>()));
    flat.insert(flat.end(), shape.begin() + static_cast<std::ptrdiff_t>(last) + 1, shape.end());
    return reshape(x, flat);
}

// ---- Views ----

KTensor permute(const KTensor& x, const std::vector<int>& axes) {
    const Recorder record(Op::permute, {&x});
    const std::vector<std::size_t> order = autograd::wrap_axes("permute", x, axes);
    if (order.size() != x.shape().size()) {
        fail(where("ornik::permute"), "permute(): ", describe(x), " has ", x.ndim(), " axes, of which ", axes.size(),
             " are named.");
    }
    Dims shape(order.size());
    Dims strides(order.size());
    std::vector<int> inverse(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        shape[i] = x.shape()[order[i]];
        strides[i] = x.strides()[order[i]];
        inverse[order[i]] = static_cast<int>(i);
    }
    KTensor y = share(x, shape, strides);
    if (record.active()) {
        record.finish(y, {},
                      [inverse = std::move(inverse)](Backward& pass) { pass.give(0, permute(pass.grad(), inverse)); });
    }
    return y;
}

KTensor transpose(const KTensor& x) {
    autograd::check_defined("transpose", x, 0);
    if (x.ndim() < 2) {
        fail(where("ornik::transpose"), "transpose(): ", describe(x), " has fewer than two axes.");
    }
    return swapaxes(x, -2, -1);
}

KTensor swapaxes(const KTensor& x, int a, int b) {
    autograd::check_defined("swapaxes", x, 0);
    std::vector<int> order(x.shape().size());
    std::iota(order.begin(), order.end(), 0);
    std::swap(order[autograd::wrap_axis("swapaxes", x, a)], order[autograd::wrap_axis("swapaxes", x, b)]);
    return permute(x, order);
}

namespace {

// x without the axes that are marked: each of extent 1.
KTensor without_axes(const KTensor& x, const std::vector<bool>& dropped) {
    const Recorder record(Op::squeeze, {&x});
    Dims shape;
    Dims strides;
    for (std::size_t i = 0; i < dropped.size(); ++i) {
        if (!dropped[i]) {
            shape.push_back(x.shape()[i]);
            strides.push_back(x.strides()[i]);
        }
    }
    KTensor y = share(x, shape, strides);
    if (record.active()) {
        record.finish(y, {}, reshape_back);
    }
    return y;
}

}  // namespace

KTensor squeeze(const KTensor& x) {
    autograd::check_defined("squeeze", x, 0);
    std::vector<bool> dropped(x.shape().size());
    std::transform(x.shape().begin(), x.shape().end(), dropped.begin(), [](std::int64_t size) { return size == 1; });
    return without_axes(x, dropped);
}

KTensor squeeze(const KTensor& x, const std::vector<int>& axes) {
    autograd::check_defined("squeeze", x, 0);
    std::vector<bool> dropped(x.shape().size());
    for (const std::size_t axis : autograd::wrap_axes("squeeze", x, axes)) {
        if (x.shape()[axis] != 1) {
            fail(where("ornik::squeeze"), "squeeze(): axis ", axis, " of ", describe(x), " does not have extent 1.");
        }
        dropped[axis] = true;
    }
    return without_axes(x, dropped);
}

KTensor unsqueeze(const KTensor& x, int axis) {
    const Recorder record(Op::unsqueeze, {&x});
    const int rank = x.ndim();
    if (axis < -rank - 1 || axis > rank) {
        fail(ErrorKind::index, where("ornik::unsqueeze"), "unsqueeze(): ", describe(x), " takes no new axis at ", axis,
             ".");
    }
    const auto at = static_cast<std::ptrdiff_t>(axis < 0 ? axis + rank + 1 : axis);
    Dims shape = x.shape();
    Dims strides = x.strides();
    const std::int64_t stride =
        at == rank ? 1 : shape[static_cast<std::size_t>(at)] * strides[static_cast<std::size_t>(at)];
    shape.insert(shape.begin() + at, 1);
    strides.insert(strides.begin() + at, stride);
    KTensor y = share(x, shape, strides);
    if (record.active()) {
        record.finish(y, {}, reshape_back);
    }
    return y;
}

KTensor view_as_real(const KTensor& x) {
    const Recorder record(Op::view_as_real, {&x});
    KTensor y = make_ktensor(ornik::view_as_real(x.tensor()));
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, view_as_complex(contiguous(pass.grad()))); });
    }
    return y;
}

KTensor view_as_complex(const KTensor& x) {
    const Recorder record(Op::view_as_complex, {&x});
    KTensor y = make_ktensor(ornik::view_as_complex(x.tensor()));
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, view_as_real(pass.grad())); });
    }
    return y;
}

KTensor flip(const KTensor& x, const std::vector<int>& axes) {
    const Recorder record(Op::flip, {&x});
    autograd::wrap_axes("flip", x, axes);
    KTensor y = x.size() == 0 || axes.empty() ? make_ktensor(autograd::copy_of(*x.tensor()))
                                              : make_ktensor(x.tensor()->flip(axes));
    if (record.active()) {
        record.finish(y, {}, [axes](Backward& pass) { pass.give(0, flip(pass.grad(), axes)); });
    }
    return y;
}

}  // namespace ornik
