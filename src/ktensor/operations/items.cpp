// items.cpp: reading and writing what the items of an index select.
#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/selection.h"
#include "ktensor/shapes.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/overlap.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;
using autograd::Selection;

namespace {

// The selection of a recorded operation; its index tensors are the saved values.
struct Selected {
    SliceItems items;
    Dims shape;
    bool has_tensors;

    Selected(const Selection& selection, const IndexList& list)
        : items(selection.is_view() ? autograd::view_items(list) : selection.items()),
          shape(selection.is_view() ? selection.shape() : selection.raw_shape()),
          has_tensors(!selection.is_view()) {}
};

template <typename Function>
void finish(const Recorder& record, KTensor& y, const Selection& selection, Function&& function) {
    std::vector<autograd::Keep> kept;
    kept.reserve(selection.tensors().size());
    std::transform(selection.tensors().begin(), selection.tensors().end(), std::back_inserter(kept), Recorder::own);
    KTensor* outputs[] = {&y};
    record.finish(std::span<KTensor* const>(outputs), kept, std::forward<Function>(function));
}

// Does one mask stand for all of x?
bool is_whole_mask(const KTensor& x, const IndexList& list) {
    const auto items = list.items();
    return items.size() == 1 && items[0].kind() == Index::Kind::tensor && items[0].tensor().defined() && x.defined() &&
           x.ndim() > 0 && items[0].tensor().dtype() == dtype::boolean && items[0].tensor().shape() == x.shape();
}

KTensor read(const char* name, const KTensor& x, const IndexList& list) {
    if (is_whole_mask(x, list)) {
        return masked_select(x, list.items()[0].tensor());
    }
    const Recorder record(Op::index, {&x});
    const Selection selection(name, x, list);
    KTensor y;
    if (selection.is_view()) {
        y = selection.view_of(x);
    } else {
        y = make_ktensor(selection.checked([&] { return index_advanced(x.tensor(), selection.items()); }));
        if (selection.shape() != selection.raw_shape()) {
            y = autograd::share(y, selection.shape(), shape2stride(selection.shape()));
        }
    }
    if (record.active()) {
        finish(record, y, selection, [chosen = Selected(selection, list)](Backward& pass) {
            const KTensor gradient = reshape(pass.grad(), chosen.shape);
            const Dims shape = pass.operand_shape(0);
            if (pass.recorded()) {
                pass.give(0, index_put(KTensor::zeros(shape, gradient.dtype()), restored_items(chosen.items, pass),
                                       gradient, chosen.has_tensors));
                return;
            }
            const SliceItems items = restored(chosen.items, pass);
            const auto add = [&](Tensor* sum) {
                if (chosen.has_tensors) {
                    set_index_advanced(sum, gradient.tensor(), items, true);
                } else {
                    add_select_slices_grad(sum, gradient.tensor(), items);
                }
            };
            if (!pass.give_part(0, add)) {
                pass.give(0, chosen.has_tensors ? index_advanced_grad(gradient.tensor(), shape, items)
                                                : select_slices_grad(gradient.tensor(), shape, items));
            }
        });
    }
    return y;
}

// Writes the fitted value into the selection of x, an unrecorded tensor of the same geometry as that which the
// selection was made for.
void put(const KTensor& x, const Selection& selection, const KTensor& value, bool accumulate) {
    check_not_expanded(where("ornik::KTensor"), x.tensor());
    if (!selection.is_view()) {
        selection.checked([&] { set_index_advanced(x.tensor(), value.tensor(), selection.items(), accumulate); });
        return;
    }
    const KTensor part = selection.view_of(x);
    if (accumulate) {
        add_select_slices_grad(part.tensor(), autograd::Shown(value, part.shape()).get(), {});
    } else {
        set_slices(part.tensor(), value.tensor(), {});
    }
}

// The gradient of what was written: at its places, but none for an element that another one replaced.
KTensor gradient_of_value(Backward& pass, const Selected& chosen, bool accumulate) {
    const KTensor& gradient = pass.grad();
    if (!pass.recorded()) {
        const Dims shape = pass.operand_shape(1);
        return make_ktensor(chosen.has_tensors ? set_index_advanced_value_grad(gradient.tensor(), shape,
                                                                               restored(chosen.items, pass), accumulate)
                                               : set_slices_value_grad(gradient.tensor(), shape, chosen.items));
    }
    const KTensor part = index(gradient, restored_items(chosen.items, pass));
    if (!chosen.has_tensors || accumulate) {
        return part;
    }
    const KTensor ones = KTensor::ones(gradient.shape());
    const KTensor stays = make_ktensor(
        set_index_advanced_value_grad(ones.tensor(), chosen.shape, restored(chosen.items, pass), accumulate));
    return where(greater(stays, Scalar(0.0F)), part, Scalar(0.0F));
}

void record_put(const Recorder& record, KTensor& y, const Selection& selection, const IndexList& list,
                bool accumulate) {
    finish(record, y, selection, [chosen = Selected(selection, list), accumulate](Backward& pass) {
        if (pass.wants(1)) {
            pass.give(1, gradient_of_value(pass, chosen, accumulate));
        }
        if (!pass.wants(0)) {
            return;
        }
        if (accumulate) {
            pass.give(0, pass.take_grad());
        } else if (pass.recorded()) {
            pass.give(0, index_put(pass.grad(), restored_items(chosen.items, pass), Scalar(0.0F)));
        } else if (chosen.has_tensors) {
            pass.give(0, set_index_advanced_grad(pass.grad().tensor(), restored(chosen.items, pass)));
        } else {
            pass.give(0, set_slices_grad(pass.grad().tensor(), chosen.items));
        }
    });
}

// What is added has to be of a kind that x holds.
void check_sum(const char* name, const KTensor& x, std::int64_t dtype, bool accumulate) {
    if (accumulate) {
        autograd::check_holds(name, x, x.shape(), promotion::of_tensors(x.dtype(), dtype));
    }
}

// A number as it is written to x.
KTensor number_for(const char* name, const KTensor& x, const Scalar& value, bool accumulate) {
    autograd::check_defined(name, x, 0);
    check_sum(name, x, autograd::weak_scalar(value, x.dtype()).Dtype(), accumulate);
    return autograd::scalar_tensor(value, x.dtype());
}

KTensor& write(const char* name, KTensor& x, const IndexList& list, const KTensor& value, bool accumulate) {
    autograd::check_defined(name, value, 1);
    const bool recorded = grad_enabled() && (x.wants_grad() || value.wants_grad());
    autograd::check_in_place(name, x, recorded);
    check_sum(name, x, value.dtype(), accumulate);
    const Selection selection(name, x, list);
    const KTensor fitted = selection.fitted(value);
    if (!recorded) {
        put(x, selection, fitted, accumulate);
        return x;
    }
    const Recorder record(Op::index_put, {&x, &fitted});
    KTensor y = make_ktensor(x.impl()->data);
    record_put(record, y, selection, list, accumulate);
    put(x, selection, fitted, accumulate);
    autograd::take_over_past(x, y);
    return x;
}

KTensor& write(const char* name, KTensor& x, const IndexList& list, const Scalar& value, bool accumulate) {
    const bool recorded = grad_enabled() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (!recorded && !accumulate) {
        const Scalar number = autograd::convert_scalar(value, x.dtype());
        if (is_whole_mask(x, list) && memory_overlap(list.items()[0].tensor().tensor(), x.tensor()) == Overlap::none) {
            x.tensor()->masked_fill_inplace(list.items()[0].tensor().tensor(), number);
            return x;
        }
        const Selection selection(name, x, list);
        if (selection.is_view()) {
            check_not_expanded(where("ornik::KTensor"), x.tensor());
            selection.view_of(x).tensor()->fill_with_(number);
            return x;
        }
    }
    return write(name, x, list, number_for(name, x, value, accumulate), accumulate);
}

}  // namespace

KTensor index(const KTensor& x, const IndexList& items) { return read("index", x, items); }

KTensor index_put(const KTensor& x, const IndexList& items, const KTensor& value, bool accumulate) {
    constexpr const char* name = "index_put";
    autograd::check_defined(name, x, 0);
    autograd::check_defined(name, value, 1);
    check_sum(name, x, value.dtype(), accumulate);
    const Selection selection(name, x, items);
    const KTensor fitted = selection.fitted(value);
    const Recorder record(Op::index_put, {&x, &fitted});
    KTensor y = make_ktensor(autograd::copy_of(*x.tensor()));
    // A view of the copy has strides of its own.
    put(y, selection.is_view() ? Selection(name, y, items) : selection, fitted, accumulate);
    if (record.active()) {
        record_put(record, y, selection, items, accumulate);
    }
    return y;
}

KTensor index_put(const KTensor& x, const IndexList& items, const Scalar& value, bool accumulate) {
    return index_put(x, items, number_for("index_put", x, value, accumulate), accumulate);
}

KTensor& index_put_(KTensor& x, const IndexList& items, const KTensor& value, bool accumulate) {
    return write("index_put_", x, items, value, accumulate);
}

KTensor& index_put_(KTensor& x, const IndexList& items, const Scalar& value, bool accumulate) {
    return write("index_put_", x, items, value, accumulate);
}

KTensor KTensor::index(const IndexList& items) const { return read("index", *this, items); }

KTensor KTensor::operator[](std::int64_t position) const { return read("index", *this, {position}); }

KTensor KTensor::operator[](const Index& item) const { return read("index", *this, std::span<const Index>(&item, 1)); }

KTensor& KTensor::set_index(const IndexList& items, const KTensor& value, bool accumulate) {
    return write("set_index", *this, items, value, accumulate);
}

KTensor& KTensor::set_index(const IndexList& items, const Scalar& value, bool accumulate) {
    return write("set_index", *this, items, value, accumulate);
}

// ---- Parts of one axis ----

namespace {

KTensor part_of(const char* name, const KTensor& x, std::size_t axis, Index item) {
    if (axis == 0) {
        return read(name, x, std::span<const Index>(&item, 1));
    }
    std::vector<Index> items(axis, Index(Slice()));
    items.push_back(std::move(item));
    return read(name, x, items);
}

}  // namespace

KTensor select(const KTensor& x, int axis, std::int64_t position) {
    autograd::check_defined("select", x, 0);
    return part_of("select", x, autograd::wrap_axis("select", x, axis), position);
}

KTensor slice(const KTensor& x, int axis, const Slice& positions) {
    autograd::check_defined("slice", x, 0);
    return part_of("slice", x, autograd::wrap_axis("slice", x, axis), positions);
}

KTensor narrow(const KTensor& x, int axis, std::int64_t begin, std::int64_t count) {
    autograd::check_defined("narrow", x, 0);
    const std::size_t at = autograd::wrap_axis("narrow", x, axis);
    const std::int64_t extent = x.shape()[at];
    const std::int64_t first = begin < 0 ? begin + extent : begin;
    if (first < 0 || count < 0 || first > extent || count > extent - first) {
        fail(ErrorKind::index, where("ornik::narrow"), "narrow(): axis ", at, " of ", describe(x), " does not have ",
             count, " elements from ", begin, " on.");
    }
    return part_of("narrow", x, at, Slice(first, first + count));
}

}  // namespace ornik
