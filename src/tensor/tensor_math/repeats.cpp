// repeats.cpp: repeating, shifting and padding.
#include <algorithm>
#include <cstring>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/index/cpu_indexing.h"
#include "index_checks.h"
#include "joins.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

// ---- Repeating: an axis that repeats lies beside one that counts the repetitions. ----

struct Repetition {
    Dims whole{};                 // The result's shape,
    Dims parted{};                // with its axes cut in two: a tensor's axes, and
    std::vector<bool> repeats{};  // those along which it repeats.

    void add(std::int64_t size, bool is_repeat) {
        parted.push_back(size);
        repeats.push_back(is_repeat);
    }

    TensorResult of(const Tensor* t) const {
        Dims strides;
        std::size_t axis = 0;
        for (const bool is_repeat : repeats) {
            strides.push_back(is_repeat ? 0 : t->Strides()[axis++]);
        }
        TensorResult result = new_result(whole, t->Dtype());
        const TensorResult target = new_view(result.get(), parted, shape2stride(parted));
        device::cpu::copy(new_view(t, parted, strides).get(), target.get());
        return result;
    }

    Tensor* gradient(const Where& at, const Tensor* grad, const Dims& shape) const {
        check_cpu(at, grad);
        check_gradient_shape(at, grad, whole);
        const Dims strides = view_strides(whole, grad->Strides(), grad->Size(), parted);
        Dims summed = parted;
        for (std::size_t i = 0; i < summed.size(); ++i) {
            summed[i] = repeats[i] ? 1 : summed[i];
        }
        const TensorResult sum(sum_to_shape(new_view(grad, parted, strides).get(), summed));
        Dims kept;
        for (std::size_t i = 0; i < summed.size(); ++i) {
            if (!repeats[i]) {
                kept.push_back(sum->Strides()[i]);
            }
        }
        return new_view(sum.get(), shape, kept).release();
    }
};

Repetition repetition(const Where& at, const Dims& shape, const Dims& reps) {
    Repetition result;
    const std::size_t rank = std::max(shape.size(), reps.size());
    for (std::size_t back = rank; back > 0; --back) {
        const std::int64_t times = back <= reps.size() ? reps[reps.size() - back] : 1;
        const std::int64_t extent = back <= shape.size() ? shape[shape.size() - back] : 1;
        if (times < 0) {
            fail(at, "An axis can not repeat ", times, " times.");
        }
        result.whole.push_back(checked_numel(at, {times, extent}));
        if (times != 1 || back > shape.size()) {
            result.add(times, true);
        }
        if (back <= shape.size()) {
            result.add(extent, false);
        }
    }
    return result;
}

std::size_t axis_in(const Dims& shape, int axis) {
    return static_cast<std::size_t>(maybe_warp_dim(axis, static_cast<int>(shape.size())));
}

Repetition interleaved(const Where& at, const Dims& shape, std::int64_t times, int axis) {
    const std::size_t chosen = axis_in(shape, axis);
    if (times < 0) {
        fail(at, "An axis can not repeat ", times, " times.");
    }
    Repetition result;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        result.add(shape[i], false);
        if (i == chosen) {
            result.add(times, true);
        }
        result.whole.push_back(i == chosen ? checked_numel(at, {times, shape[i]}) : shape[i]);
    }
    return result;
}

TensorResult tensor_of(const Dims& positions) {
    TensorResult result = new_result({static_cast<std::int64_t>(positions.size())}, dtype::int64);
    std::copy(positions.begin(), positions.end(), static_cast<std::int64_t*>(result->getRawData()));
    return result;
}

// The slices of an axis, each as often as counted.
TensorResult counted_positions(const Where& at, const Tensor* counts, std::int64_t extent) {
    const TensorResult checked = as_positions(at, counts);
    if (counts->Shape() != Dims{extent}) {
        fail(at, "Counts should have a shape of ", Dims{extent}, ", however it is ", counts->Shape());
    }
    const auto* items = static_cast<const std::int64_t*>(checked->getRawData());
    Dims positions;
    for (std::int64_t i = 0; i < extent; ++i) {
        const std::int64_t times = items[i * checked->Strides()[0]];
        if (times < 0) {
            fail(at, "An axis can not repeat ", times, " times.");
        }
        positions.insert(positions.end(), static_cast<std::size_t>(times), i);
    }
    return tensor_of(positions);
}

TensorResult whole_view(const Tensor* t) { return new_view(t, t->Shape(), t->Strides()); }

// grad of slices that repeat, summed along one axis of a tensor of `shape`; any dtype.
TensorResult summed_slices(const Tensor* grad, const Dims& shape, std::size_t axis, const Tensor* positions) {
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    index_add_(result.get(), static_cast<int>(axis), whole_view(positions).get(), whole_view(grad).get());
    return result;
}

}  // namespace

Tensor* repeat(const Tensor* t, const Dims& reps) {
    const Where at = where("ornik::repeat");
    check_cpu(at, t);
    return repetition(at, t->Shape(), reps).of(t).release();
}

Tensor* repeat_grad(const Tensor* grad, const Dims& shape, const Dims& reps) {
    const Where at = where("ornik::repeat_grad");
    return repetition(at, shape, reps).gradient(at, grad, shape);
}

Tensor* repeat_interleave(const Tensor* t, std::int64_t times, int axis) {
    const Where at = where("ornik::repeat_interleave");
    check_cpu(at, t);
    return interleaved(at, t->Shape(), times, axis).of(t).release();
}

Tensor* repeat_interleave_grad(const Tensor* grad, const Dims& shape, std::int64_t times, int axis) {
    const Where at = where("ornik::repeat_interleave_grad");
    return interleaved(at, shape, times, axis).gradient(at, grad, shape);
}

Tensor* repeat_by_counts(const Tensor* t, const Tensor* counts, int axis) {
    const Where at = where("ornik::repeat_by_counts");
    check_cpu(at, t);
    const std::size_t chosen = checked_axis(t, axis);
    const TensorResult positions = counted_positions(at, counts, t->Shape()[chosen]);
    return index_select(whole_view(t).get(), static_cast<int>(chosen), positions.get());
}

Tensor* repeat_by_counts_grad(const Tensor* grad, const Dims& shape, const Tensor* counts, int axis) {
    const Where at = where("ornik::repeat_by_counts_grad");
    check_cpu(at, grad);
    const std::size_t chosen = axis_in(shape, axis);
    const TensorResult positions = counted_positions(at, counts, shape[chosen]);
    Dims expected = shape;
    expected[chosen] = positions->Size();
    check_gradient_shape(at, grad, expected);
    return summed_slices(grad, shape, chosen, positions.get()).release();
}

// ---- Shifting ----

namespace {

std::int64_t modulo(std::int64_t x, std::int64_t n) {
    const std::int64_t rest = x % n;
    return rest < 0 ? rest + n : rest;
}

struct Shift {
    std::size_t axis;
    std::int64_t places;  // Of the axis' extent, not 0.
};

// Both sides fall into two parts along each axis that moves.
void copy_shifted(const Tensor* in, const Tensor* out, const std::vector<Shift>& shifts, std::size_t done) {
    if (done == shifts.size()) {
        device::cpu::copy(in, whole_view(out).get());
        return;
    }
    const auto [axis, places] = shifts[done];
    const std::int64_t rest = in->Shape()[axis] - places;
    copy_shifted(part_of(in, axis, 0, rest).get(), part_of(out, axis, places, rest).get(), shifts, done + 1);
    copy_shifted(part_of(in, axis, rest, places).get(), part_of(out, axis, 0, places).get(), shifts, done + 1);
}

TensorResult rolled(const Tensor* t, const Dims& by_axis) {
    std::vector<Shift> shifts;
    for (std::size_t i = 0; i < by_axis.size(); ++i) {
        if (by_axis[i] != 0) {
            shifts.push_back({i, by_axis[i]});
        }
    }
    TensorResult result = new_result(t->Shape(), t->Dtype());
    copy_shifted(t, result.get(), shifts, 0);
    return result;
}

}  // namespace

Tensor* roll(const Tensor* t, const Dims& shifts, const std::vector<int>& axes) {
    const Where at = where("ornik::roll");
    check_cpu(at, t);
    if (shifts.size() != (axes.empty() ? 1 : axes.size())) {
        fail(at, "roll() needs as many shifts as axes: ", shifts.size(), " and ", axes.size());
    }
    if (axes.empty()) {
        const TensorResult dense = row_major_copy(t);
        const TensorResult flat = new_view(dense.get(), {t->Size()}, {1});
        const TensorResult moved = rolled(flat.get(), {t->Size() > 0 ? modulo(shifts[0], t->Size()) : 0});
        return new_view(moved.get(), t->Shape(), dense->Strides()).release();
    }
    Dims by_axis(t->Shape().size(), 0);
    for (std::size_t i = 0; i < axes.size(); ++i) {
        const std::size_t axis = checked_axis(t, axes[i]);
        const std::int64_t extent = t->Shape()[axis];
        by_axis[axis] = extent > 0 ? modulo(by_axis[axis] + modulo(shifts[i], extent), extent) : 0;
    }
    return rolled(t, by_axis).release();
}

// ---- Padding ----

namespace {

Dims padded_shape(const Where& at, const Dims& shape, const std::vector<PadWidth>& widths, PadMode mode) {
    if (widths.size() != shape.size()) {
        fail(at, "pad() needs a pair of widths for each axis: ", widths.size(), " for a shape of ", shape);
    }
    Dims result;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const auto [before, behind] = widths[i];
        const bool is_constant = mode == PadMode::constant;
        const bool cuts = before < 0 || behind < 0;
        const bool adds = before > 0 || behind > 0;
        if (shape[i] + before + behind < 0 || (cuts && !is_constant)) {
            fail(at, "Widths of ", before, " and ", behind, " do not fit an axis of ", shape[i], " elements");
        }
        if (shape[i] == 0 && adds && !is_constant) {
            fail(at, "An axis without elements can not be padded by its own.");
        }
        result.push_back(shape[i] + before + behind);
    }
    return result;
}

// Where the element at position p beyond an axis of n elements comes from.
std::int64_t source_of(PadMode mode, std::int64_t p, std::int64_t n) {
    switch (mode) {
        case PadMode::reflect: {
            const std::int64_t period = std::max<std::int64_t>(2 * (n - 1), 1);
            const std::int64_t place = modulo(p, period);
            return place < n ? place : period - place;
        }
        case PadMode::circular:
            return modulo(p, n);
        case PadMode::constant:
        case PadMode::replicate:
            break;
    }
    return std::clamp<std::int64_t>(p, 0, n - 1);
}

Dims sources(PadMode mode, const PadWidth& width, std::int64_t extent) {
    Dims result;
    for (std::int64_t p = -width.before; p < extent + width.behind; ++p) {
        result.push_back(source_of(mode, p, extent));
    }
    return result;
}

// What constant padding keeps: the same elements of t, which was padded, and of the result.
struct Kept {
    TensorResult of_t;
    TensorResult of_padded;
};

Kept kept_parts(const Tensor* t, const Tensor* padded, const std::vector<PadWidth>& widths) {
    Kept kept{whole_view(t), whole_view(padded)};
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const std::int64_t cut = std::max<std::int64_t>(-widths[i].before, 0);
        const std::int64_t cut_behind = std::max<std::int64_t>(-widths[i].behind, 0);
        const std::int64_t extent = std::max<std::int64_t>(t->Shape()[i] - cut - cut_behind, 0);
        kept.of_t = part_of(kept.of_t.get(), i, cut, extent);
        kept.of_padded = part_of(kept.of_padded.get(), i, std::max<std::int64_t>(widths[i].before, 0), extent);
    }
    return kept;
}

void fill_with(Tensor* t, const Scalar& value) {
    dispatch(AllTypes{}, value.Dtype(), [&]<typename T>() {
        T item;
        std::memcpy(&item, value.data(), sizeof(T));
        device::cpu::fill(t, item);
    });
}

}  // namespace

Tensor* pad(const Tensor* t, const std::vector<PadWidth>& widths, PadMode mode, const Scalar& value) {
    const Where at = where("ornik::pad");
    check_cpu(at, t);
    const Dims shape = padded_shape(at, t->Shape(), widths, mode);
    if (mode == PadMode::constant && is_dtype_class(value.Dtype(), DtypeClass::complex) && !t->isComplexType()) {
        fail(ErrorKind::dtype, at, "Fill non-complex tensor with complex value is not valid.");
    }
    TensorResult result = new_result(shape, t->Dtype());
    if (mode == PadMode::constant) {
        fill_with(result.get(), value);
        const Kept kept = kept_parts(t, result.get(), widths);
        device::cpu::copy(kept.of_t.get(), kept.of_padded.get());
        return result.release();
    }
    std::vector<AxisSelection> selection;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const std::int64_t extent = t->Shape()[i];
        const bool is_whole = shape[i] == extent;
        selection.push_back({0, 1, shape[i], is_whole ? Dims{} : sources(mode, widths[i], extent)});
    }
    if (result->Size() > 0) {
        device::cpu::gather_positions(t, selection, result.get());
    }
    return result.release();
}

Tensor* pad_grad(const Tensor* grad, const Dims& shape, const std::vector<PadWidth>& widths, PadMode mode) {
    const Where at = where("ornik::pad_grad");
    check_cpu(at, grad);
    check_gradient_shape(at, grad, padded_shape(at, shape, widths, mode));
    if (mode == PadMode::constant) {
        TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
        const Kept kept = kept_parts(result.get(), grad, widths);
        device::cpu::copy(kept.of_padded.get(), kept.of_t.get());
        return result.release();
    }
    TensorResult sum = whole_view(grad);
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (sum->Shape()[i] != shape[i]) {
            Dims target = sum->Shape();
            target[i] = shape[i];
            sum = summed_slices(sum.get(), target, i, tensor_of(sources(mode, widths[i], shape[i])).get());
        }
    }
    return sum.release();
}

}  // namespace ornik
