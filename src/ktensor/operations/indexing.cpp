// indexing.cpp: elements at positions that integer tensors and masks name along one axis.
#include "ktensor/indexing.h"

#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/selection.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/indexing.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// The result of `call`. A position that the floors below refuse is refused in terms of x and its axis.
template <typename Call>
decltype(auto) checked(const char* name, const KTensor& x, std::size_t axis, const KTensor& index, Call&& call) {
    try {
        return call();
    } catch (const Error& error) {
        if (error.kind() == ErrorKind::index) {
            autograd::check_positions(name, x, axis, index);
        }
        throw;
    }
}

KTensor zeros_for(Backward& pass) { return KTensor::zeros(pass.operand_shape(0), pass.grad().dtype()); }

// The axis of a function whose index has at most one axis itself, and the shape of the slices it names.
std::size_t check_line(const char* name, const KTensor& x, int axis, const KTensor& index, Dims& shape) {
    autograd::check_index(name, index);
    const std::size_t at = autograd::wrap_axis(name, x, axis);
    if (index.ndim() > 1) {
        fail(where("ornik::KTensor"), name, "(): the index has at most one axis, not ", describe(index), ".");
    }
    shape = x.shape();
    shape[at] = index.size();
    return at;
}

// The axis of a function with one position per element.
std::size_t check_places(const char* name, const KTensor& x, int axis, const KTensor& index) {
    autograd::check_index(name, index);
    const std::size_t at = autograd::wrap_axis(name, x, axis);
    bool fits = index.ndim() == x.ndim();
    for (std::size_t i = 0; fits && i < index.shape().size(); ++i) {
        fits = i == at || index.shape()[i] <= x.shape()[i];
    }
    if (!fits) {
        fail(where("ornik::KTensor"), name, "(): an index of ", describe(index), " does not fit ", describe(x),
             " beside axis ", at, ".");
    }
    return at;
}

// What is written to x, in its dtype.
KTensor source_for(const char* name, const KTensor& x, const KTensor& source, const Dims& shape) {
    autograd::check_defined(name, source, 2);
    if (source.shape() != shape) {
        fail(where("ornik::KTensor"), name, "(): the index names elements of ", describe(shape, x.dtype()),
             ", the source is ", describe(source), ".");
    }
    autograd::check_holds(name, x, x.shape(), source.dtype());
    return astype(source, x.dtype());
}

// y, the result of an operation in place: a share of x's elements, with a past if that is recorded.
KTensor& finish_in_place(KTensor& x, const KTensor& y) {
    if (y.wants_grad()) {
        autograd::take_over_past(x, y);
    }
    return x;
}

void check_target(const char* name, const KTensor& x, const KTensor& source) {
    autograd::check_in_place(name, x, grad_enabled() && (x.wants_grad() || source.wants_grad()));
}

}  // namespace

// ---- Slices of one axis ----

KTensor index_select(const KTensor& x, int axis, const KTensor& index) {
    const Recorder record(Op::index_select, {&x});
    Dims shape;
    const std::size_t at = check_line("index_select", x, axis, index, shape);
    KTensor y = make_ktensor(
        checked("index_select", x, at, index, [&] { return ornik::index_select(x.tensor(), axis, index.tensor()); }));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [axis](Backward& pass) {
            const auto add = [&](Tensor* sum) {
                ornik::index_add_(sum, axis, pass.saved_raw(0), pass.grad().tensor());
            };
            if (pass.recorded()) {
                pass.give(0, index_add(zeros_for(pass), axis, pass.saved(0), pass.grad()));
            } else if (!pass.give_part(0, add)) {
                pass.give(0, index_select_grad(pass.grad().tensor(), pass.operand_shape(0), axis, pass.saved_raw(0)));
            }
        });
    }
    return y;
}

namespace {

KTensor added(const char* name, const KTensor& x, int axis, const KTensor& index, const KTensor& given, bool in_place) {
    autograd::check_defined(name, x, 0);
    Dims shape;
    const std::size_t at = check_line(name, x, axis, index, shape);
    const KTensor source = source_for(name, x, given, shape);
    const Recorder record(Op::index_add, {&x, &source});
    const auto copied = [&] { return ornik::index_add(x.tensor(), axis, index.tensor(), source.tensor()); };
    KTensor y = in_place ? make_ktensor(x.impl()->data) : make_ktensor(checked(name, x, at, index, copied));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [axis](Backward& pass) {
            if (pass.wants(1)) {
                pass.give(1, index_select(pass.grad(), axis, pass.saved(0)));
            }
            pass.give(0, pass.take_grad());
        });
    }
    if (in_place) {
        checked(name, x, at, index, [&] { ornik::index_add_(x.tensor(), axis, index.tensor(), source.tensor()); });
    }
    return y;
}

}  // namespace

KTensor index_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    return added("index_add", x, axis, index, source, false);
}

KTensor& index_add_(KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    check_target("index_add_", x, source);
    return finish_in_place(x, added("index_add_", x, axis, index, source, true));
}

KTensor take(const KTensor& x, const KTensor& index) {
    const Recorder record(Op::take, {&x});
    autograd::check_index("take", index);
    const KTensor flat = reshape(x.detach(), {x.size()});
    KTensor y =
        make_ktensor(checked("take", flat, 0, index, [&] { return ornik::take(flat.tensor(), index.tensor()); }));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, take_grad(pass.grad().tensor(), pass.operand_shape(0), pass.saved_raw(0)));
                return;
            }
            const KTensor sum = index_add(flatten(zeros_for(pass)), 0, flatten(pass.saved(0)), flatten(pass.grad()));
            pass.give(0, reshape(sum, pass.operand_shape(0)));
        });
    }
    return y;
}

// ---- One position per element ----

KTensor gather(const KTensor& x, int axis, const KTensor& index) {
    const Recorder record(Op::gather, {&x});
    const std::size_t at = check_places("gather", x, axis, index);
    KTensor y =
        make_ktensor(checked("gather", x, at, index, [&] { return ornik::gather(x.tensor(), axis, index.tensor()); }));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [axis](Backward& pass) {
            const auto add = [&](Tensor* sum) {
                ornik::scatter_add_(sum, axis, pass.saved_raw(0), pass.grad().tensor());
            };
            if (pass.recorded()) {
                pass.give(0, scatter_add(zeros_for(pass), axis, pass.saved(0), pass.grad()));
            } else if (!pass.give_part(0, add)) {
                pass.give(0, gather_grad(pass.grad().tensor(), pass.operand_shape(0), axis, pass.saved_raw(0)));
            }
        });
    }
    return y;
}

KTensor take_along_axis(const KTensor& x, const KTensor& index, int axis) {
    constexpr const char* name = "take_along_axis";
    autograd::check_defined(name, x, 0);
    autograd::check_index(name, index);
    const std::size_t at = autograd::wrap_axis(name, x, axis);
    Dims source = x.shape();
    Dims places = index.shape();
    bool fits = source.size() == places.size();
    for (std::size_t i = 0; fits && i < source.size(); ++i) {
        if (i != at) {
            fits = source[i] == places[i] || source[i] == 1 || places[i] == 1;
            source[i] = places[i] = source[i] == 1 ? places[i] : source[i];
        }
    }
    if (!fits) {
        fail(where("ornik::take_along_axis"), name, "(): an index of ", describe(index), " does not broadcast to ",
             describe(x), " beside axis ", at, ".");
    }
    return gather(broadcast_to(x, source), axis, broadcast_to(index, places));
}

namespace {

// Of scatter for its source.
KTensor gradient_of_source(Backward& pass, int axis) {
    Tensor* index = pass.saved_raw(0);
    if (!pass.recorded()) {
        return make_ktensor(scatter_source_grad(pass.grad().tensor(), axis, index));
    }
    const KTensor ones = KTensor::ones(pass.grad().shape());
    const KTensor stays = make_ktensor(scatter_source_grad(ones.tensor(), axis, index));
    return where(greater(stays, Scalar(0.0F)), gather(pass.grad(), axis, pass.saved(0)), Scalar(0.0F));
}

void record_scatter(const Recorder& record, KTensor& y, int axis, const KTensor& index, bool accumulate) {
    record.finish(y, {Recorder::own(index)}, [axis, accumulate](Backward& pass) {
        if (pass.wants(1)) {
            pass.give(1, accumulate ? gather(pass.grad(), axis, pass.saved(0)) : gradient_of_source(pass, axis));
        }
        if (!pass.wants(0)) {
            return;
        }
        if (accumulate) {
            pass.give(0, pass.take_grad());
        } else if (pass.recorded()) {
            const KTensor zeros = KTensor::zeros(pass.operand_shape(1), pass.grad().dtype());
            pass.give(0, scatter(pass.grad(), axis, pass.saved(0), zeros));
        } else {
            pass.give(0, scatter_grad(pass.grad().tensor(), axis, pass.saved_raw(0)));
        }
    });
}

KTensor scattered(const char* name, const KTensor& x, int axis, const KTensor& index, const KTensor& given,
                  bool accumulate, bool in_place) {
    autograd::check_defined(name, x, 0);
    const std::size_t at = check_places(name, x, axis, index);
    const KTensor source = source_for(name, x, given, index.shape());
    const Recorder record(accumulate ? Op::scatter_add : Op::scatter, {&x, &source});
    const auto copied = [&] {
        return accumulate ? ornik::scatter_add(x.tensor(), axis, index.tensor(), source.tensor())
                          : ornik::scatter(x.tensor(), axis, index.tensor(), source.tensor());
    };
    KTensor y = in_place ? make_ktensor(x.impl()->data) : make_ktensor(checked(name, x, at, index, copied));
    if (record.active()) {
        record_scatter(record, y, axis, index, accumulate);
    }
    if (in_place) {
        checked(name, x, at, index, [&] {
            accumulate ? ornik::scatter_add_(x.tensor(), axis, index.tensor(), source.tensor())
                       : ornik::scatter_(x.tensor(), axis, index.tensor(), source.tensor());
        });
    }
    return y;
}

}  // namespace

KTensor scatter(const KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    return scattered("scatter", x, axis, index, source, false, false);
}

KTensor& scatter_(KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    check_target("scatter_", x, source);
    return finish_in_place(x, scattered("scatter_", x, axis, index, source, false, true));
}

KTensor scatter_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    return scattered("scatter_add", x, axis, index, source, true, false);
}

KTensor& scatter_add_(KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    check_target("scatter_add_", x, source);
    return finish_in_place(x, scattered("scatter_add_", x, axis, index, source, true, true));
}

// ---- Masks ----

KTensor masked_select(const KTensor& x, const KTensor& mask) {
    const Recorder record(Op::masked_select, {&x});
    autograd::check_defined("masked_select", mask, 1);
    if (mask.dtype() != dtype::boolean) {
        fail(ErrorKind::dtype, where("ornik::masked_select"), "masked_select(): a mask is bool, not ", describe(mask),
             ".");
    }
    Dims whole = autograd::broadcast_shape("masked_select", x, mask);
    KTensor y = make_ktensor(ornik::masked_select(x.tensor(), mask.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::own(mask)}, [whole = std::move(whole)](Backward& pass) {
            if (pass.recorded()) {
                const KTensor zeros = KTensor::zeros(whole, pass.grad().dtype());
                pass.give(0, index_put(zeros, {broadcast_to(pass.saved(0), whole)}, pass.grad()));
            } else {
                pass.give(0, masked_select_grad(pass.grad().tensor(), pass.operand_shape(0), pass.saved_raw(0)));
            }
        });
    }
    return y;
}

KTensor nonzero(const KTensor& x) {
    autograd::check_defined("nonzero", x, 0);
    return make_ktensor(ornik::nonzero(x.tensor()));
}

}  // namespace ornik
