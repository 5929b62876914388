// joins.cpp: joining, parting, repeating, shifting, padding, and their gradients.
#include "ktensor/joins.h"

#include <algorithm>
#include <numeric>

#include "ktensor/arithmetic.h"
#include "ktensor/axes.h"
#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

std::vector<Tensor*> raw_tensors(const std::vector<KTensor>& tensors) {
    std::vector<Tensor*> result;
    for (const KTensor& t : tensors) {
        result.push_back(t.tensor());
    }
    return result;
}

void give_all(Backward& pass, const std::vector<KTensor>& gradients) {
    for (std::size_t i = 0; i < gradients.size(); ++i) {
        pass.give(i, gradients[i]);
    }
}

// A position of the result, which has one axis more than x.
int new_axis(const char* name, const KTensor& x, int axis) {
    const int rank = x.ndim() + 1;
    if (axis < -rank || axis >= rank) {
        fail(ErrorKind::index, where("ornik::KTensor"), name, "(): ", describe(x), " takes no new axis at ", axis, ".");
    }
    return axis < 0 ? axis + rank : axis;
}

Dims with_extent(Dims shape, std::size_t axis, std::int64_t extent) {
    shape[axis] = extent;
    return shape;
}

// Slices that came from `positions` of the axis, which has `extent`, added up there. Recorded.
KTensor add_slices(const KTensor& slices, const KTensor& positions, std::size_t axis, std::int64_t extent) {
    const KTensor zeros = KTensor::zeros(with_extent(slices.shape(), axis, extent), slices.dtype());
    return index_add(zeros, static_cast<int>(axis), positions, slices);
}

}  // namespace

// ---- Joining and parting ----

KTensor concat(const std::vector<KTensor>& tensors, int axis) {
    const std::vector<KTensor> operands = autograd::promoted("concat", tensors);
    const Recorder record(Op::concat, operands);
    const KTensor& first = operands.front();
    const std::size_t joined = autograd::wrap_axis("concat", first, axis);
    for (std::size_t i = 1; i < operands.size(); ++i) {
        const KTensor& t = operands[i];
        const bool same_rank = t.ndim() == first.ndim();
        if (!same_rank || with_extent(t.shape(), joined, 0) != with_extent(first.shape(), joined, 0)) {
            fail(where("ornik::concat"), "concat(): operands 0 and ", i, ", ", describe(tensors[0]), " and ",
                 describe(tensors[i]), ", differ in more than axis ", joined, ".");
        }
    }
    KTensor y = make_ktensor(concatenate(raw_tensors(operands), static_cast<int>(joined)));
    if (record.active()) {
        record.finish(y, {}, [joined](Backward& pass) {
            Dims extents;
            for (std::size_t i = 0; i < pass.operand_count(); ++i) {
                extents.push_back(pass.operand_shape(i)[joined]);
            }
            give_all(pass, split(pass.grad(), extents, static_cast<int>(joined)));
        });
    }
    return y;
}

KTensor stack(const std::vector<KTensor>& tensors, int axis) {
    const std::vector<KTensor> operands = autograd::promoted("stack", tensors);
    const Recorder record(Op::stack, operands);
    const int position = new_axis("stack", tensors.front(), axis);
    for (std::size_t i = 1; i < operands.size(); ++i) {
        if (operands[i].shape() != operands[0].shape()) {
            fail(where("ornik::stack"), "stack(): operands 0 and ", i, ", ", describe(tensors[0]), " and ",
                 describe(tensors[i]), ", differ in shape.");
        }
    }
    KTensor y = make_ktensor(stack_along(raw_tensors(operands), position));
    if (record.active()) {
        record.finish(y, {}, [position](Backward& pass) { give_all(pass, unbind(pass.grad(), position)); });
    }
    return y;
}

std::vector<KTensor> split(const KTensor& x, const Dims& extents, int axis) {
    const Recorder record(Op::split, {&x});
    const std::size_t parted = autograd::wrap_axis("split", x, axis);
    std::int64_t left = x.shape()[parted];
    bool fits = true;
    for (const std::int64_t extent : extents) {
        fits = fits && extent >= 0 && extent <= left;
        left -= fits ? extent : 0;
    }
    if (!fits || left != 0) {
        fail(where("ornik::split"), "split(): parts of ", autograd::list_text(extents), " do not make up axis ", parted,
             " of ", describe(x), ".");
    }
    std::vector<KTensor> parts;
    for (Tensor* part : ornik::split(x.tensor(), extents, static_cast<int>(parted))) {
        parts.push_back(make_ktensor(part));
    }
    if (record.active() && !parts.empty()) {
        std::vector<KTensor*> outputs;
        for (KTensor& part : parts) {
            outputs.push_back(&part);
        }
        record.finish(std::span<KTensor* const>(outputs), {}, [extents, parted](Backward& pass) {
            std::vector<KTensor> gradients;
            for (std::size_t k = 0; k < extents.size(); ++k) {
                KTensor gradient = pass.grad(k);
                if (!gradient.defined()) {
                    const Dims shape = with_extent(pass.operand_shape(0), parted, extents[k]);
                    gradient = broadcast_to(KTensor::zeros({}, pass.operand_dtype(0)), shape);
                }
                gradients.push_back(std::move(gradient));
            }
            pass.give(0, concat(gradients, static_cast<int>(parted)));
        });
    }
    return parts;
}

std::vector<KTensor> split_every(const KTensor& x, std::int64_t extent, int axis) {
    autograd::check_defined("split", x, 0);
    std::int64_t left = x.shape()[autograd::wrap_axis("split", x, axis)];
    if (extent < 1) {
        fail(where("ornik::split"), "split(): ", describe(x), " has no parts of ", extent, " elements.");
    }
    Dims extents;
    do {
        extents.push_back(std::min(extent, left));
        left -= extents.back();
    } while (left > 0);
    return split(x, extents, axis);
}

std::vector<KTensor> chunk(const KTensor& x, std::int64_t parts, int axis) {
    autograd::check_defined("chunk", x, 0);
    const std::int64_t whole = x.shape()[autograd::wrap_axis("chunk", x, axis)];
    if (parts < 1) {
        fail(where("ornik::chunk"), "chunk(): ", describe(x), " can not be cut into ", parts, " parts.");
    }
    return split_every(x, std::max<std::int64_t>(whole / parts + (whole % parts != 0 ? 1 : 0), 1), axis);
}

std::vector<KTensor> unbind(const KTensor& x, int axis) {
    autograd::check_defined("unbind", x, 0);
    const auto position = static_cast<int>(autograd::wrap_axis("unbind", x, axis));
    std::vector<KTensor> slices;
    for (const KTensor& part : split(x, Dims(static_cast<std::size_t>(x.size(position)), 1), position)) {
        slices.push_back(squeeze(part, {position}));
    }
    return slices;
}

// ---- Axes ----

KTensor moveaxis(const KTensor& x, const std::vector<int>& from, const std::vector<int>& to) {
    autograd::check_defined("moveaxis", x, 0);
    const std::vector<std::size_t> sources = autograd::wrap_axes("moveaxis", x, from);
    const std::vector<std::size_t> targets = autograd::wrap_axes("moveaxis", x, to);
    if (sources.size() != targets.size()) {
        fail(where("ornik::moveaxis"), "moveaxis(): ", from.size(), " axes of ", describe(x), " can not go to ",
             to.size(), " positions.");
    }
    constexpr int open = -1;
    std::vector<int> order(x.shape().size(), open);
    std::vector<bool> moves(order.size());
    for (std::size_t i = 0; i < sources.size(); ++i) {
        order[targets[i]] = static_cast<int>(sources[i]);
        moves[sources[i]] = true;
    }
    std::size_t next = 0;
    for (int& axis : order) {
        while (axis == open && moves[next]) {
            ++next;
        }
        axis = axis == open ? static_cast<int>(next++) : axis;
    }
    return permute(x, order);
}

KTensor moveaxis(const KTensor& x, int from, int to) {
    return moveaxis(x, std::vector<int>{from}, std::vector<int>{to});
}

KTensor at_least(const KTensor& x, int count) {
    autograd::check_defined("at_least", x, 0);
    Dims shape = x.shape();
    shape.insert(shape.begin(), static_cast<std::size_t>(std::max(count - x.ndim(), 0)), 1);
    return reshape(x, shape);
}

std::vector<KTensor> broadcast_together(const std::vector<KTensor>& tensors) {
    KTensor common;
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        autograd::check_defined("broadcast_together", tensors[i], i);
        common = i == 0 ? tensors[0].detach()
                        : broadcast_to(common, autograd::broadcast_shape("broadcast_together", common, tensors[i]));
    }
    std::vector<KTensor> result;
    for (const KTensor& t : tensors) {
        result.push_back(t.shape() == common.shape() ? t : broadcast_to(t, common.shape()));
    }
    return result;
}

std::vector<KTensor> meshgrid(const std::vector<KTensor>& tensors, bool columns_first) {
    Dims shape;
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        autograd::check_defined("meshgrid", tensors[i], i);
        if (tensors[i].ndim() > 1) {
            fail(where("ornik::meshgrid"), "meshgrid(): operand ", i, ", ", describe(tensors[i]),
                 ", has more than one axis.");
        }
        shape.push_back(tensors[i].size());
    }
    const bool swaps = columns_first && shape.size() > 1;
    if (swaps) {
        std::swap(shape[0], shape[1]);
    }
    std::vector<KTensor> grids;
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        Dims line(shape.size(), 1);
        line[swaps && i < 2 ? 1 - i : i] = tensors[i].size();
        grids.push_back(broadcast_to(reshape(tensors[i], line), shape));
    }
    return grids;
}

namespace {

std::int64_t window_count(const char* name, const Dims& shape, std::size_t axis, std::int64_t dtype, std::int64_t size,
                          std::int64_t step) {
    if (size < 1 || step < 1 || size > shape[axis]) {
        fail(where("ornik::KTensor"), name, "(): windows of ", size, " elements, ", step, " apart, do not fit axis ",
             axis, " of ", describe(shape, dtype), ".");
    }
    return (shape[axis] - size) / step + 1;
}

}  // namespace

KTensor windows(const KTensor& x, int axis, std::int64_t size, std::int64_t step) {
    const Recorder record(Op::windows, {&x});
    const auto walked = static_cast<int>(autograd::wrap_axis("windows", x, axis));
    window_count("windows", x.shape(), static_cast<std::size_t>(walked), x.dtype(), size, step);
    KTensor y = make_ktensor(ornik::windows(x.tensor(), walked, size, step));
    if (record.active()) {
        record.finish(y, {}, [walked, size, step](Backward& pass) {
            pass.give(0, add_windows(pass.grad(), pass.operand_shape(0), walked, size, step));
        });
    }
    return y;
}

KTensor add_windows(const KTensor& x, const Dims& shape, int axis, std::int64_t size, std::int64_t step) {
    const Recorder record(Op::add_windows, {&x});
    const auto rank = static_cast<int>(shape.size());
    const int walked = axis < 0 ? axis + rank : axis;
    if (walked < 0 || walked >= rank) {
        fail(ErrorKind::index, where("ornik::add_windows"), "add_windows(): ", describe(shape, x.dtype()),
             " has no axis ", axis, ".");
    }
    const auto at = static_cast<std::size_t>(walked);
    Dims expected = with_extent(shape, at, window_count("add_windows", shape, at, x.dtype(), size, step));
    expected.push_back(size);
    if (x.shape() != expected) {
        fail(where("ornik::add_windows"), "add_windows(): ", describe(x), " are no windows of ",
             describe(shape, x.dtype()), ", which would be ", describe(expected, x.dtype()), ".");
    }
    KTensor y = make_ktensor(windows_grad(x.tensor(), shape, walked, size, step));
    if (record.active()) {
        record.finish(y, {},
                      [walked, size, step](Backward& pass) { pass.give(0, windows(pass.grad(), walked, size, step)); });
    }
    return y;
}

// ---- Repeating and shifting ----

KTensor tile(const KTensor& x, const Dims& reps) {
    const Recorder record(Op::tile, {&x});
    if (std::any_of(reps.begin(), reps.end(), [](std::int64_t times) { return times < 0; })) {
        fail(where("ornik::tile"), "tile(): ", describe(x), " can not be repeated ", autograd::list_text(reps),
             " times.");
    }
    KTensor y = make_ktensor(repeat(x.tensor(), reps));
    if (record.active()) {
        record.finish(y, {}, [reps](Backward& pass) {
            const Dims shape = pass.operand_shape(0);
            if (!pass.recorded()) {
                pass.give(0, repeat_grad(pass.grad().tensor(), shape, reps));
                return;
            }
            // Each axis as two: which repetition, and where in it.
            const std::size_t rank = std::max(shape.size(), reps.size());
            Dims parted;
            std::vector<int> repetitions;
            for (std::size_t back = rank; back > 0; --back) {
                repetitions.push_back(static_cast<int>(parted.size()));
                parted.push_back(back <= reps.size() ? reps[reps.size() - back] : 1);
                parted.push_back(back <= shape.size() ? shape[shape.size() - back] : 1);
            }
            pass.give(0, reshape(sum(reshape(pass.grad(), parted), repetitions), shape));
        });
    }
    return y;
}

KTensor repeat_interleave(const KTensor& x, std::int64_t times, int axis) {
    autograd::check_defined("repeat_interleave", x, 0);
    const std::size_t chosen = autograd::wrap_axis("repeat_interleave", x, axis);
    std::int64_t total = 0;
    if (times < 0 || __builtin_mul_overflow(times, x.shape()[chosen], &total)) {
        fail(where("ornik::repeat_interleave"), "repeat_interleave(): axis ", chosen, " of ", describe(x),
             " can not be repeated ", times, " times.");
    }
    Dims apart = x.shape();
    apart.insert(apart.begin() + static_cast<std::ptrdiff_t>(chosen) + 1, times);
    return reshape(broadcast_to(unsqueeze(x, static_cast<int>(chosen) + 1), apart),
                   with_extent(x.shape(), chosen, total));
}

KTensor repeat_interleave(const KTensor& x, const KTensor& counts, int axis) {
    const Recorder record(Op::repeat_by_counts, {&x});
    autograd::check_defined("repeat_interleave", counts, 1);
    const std::size_t chosen = autograd::wrap_axis("repeat_interleave", x, axis);
    const auto position = static_cast<int>(chosen);
    KTensor y = make_ktensor(repeat_by_counts(x.tensor(), counts.tensor(), position));
    if (record.active()) {
        record.finish(y, {Recorder::own(counts)}, [chosen, position](Backward& pass) {
            const Dims shape = pass.operand_shape(0);
            if (!pass.recorded()) {
                pass.give(0, repeat_by_counts_grad(pass.grad().tensor(), shape, pass.saved_raw(0), position));
                return;
            }
            const KTensor slices = repeat_interleave(KTensor::arange(shape[chosen]), pass.saved(0), 0);
            pass.give(0, add_slices(pass.grad(), slices, chosen, shape[chosen]));
        });
    }
    return y;
}

KTensor roll(const KTensor& x, const Dims& shifts, const std::vector<int>& axes) {
    const Recorder record(Op::roll, {&x});
    const Dims& shape = x.shape();
    if (shifts.size() != std::max<std::size_t>(axes.size(), 1)) {
        fail(where("ornik::roll"), "roll(): ", describe(x), " can not be shifted by ", shifts.size(),
             " numbers of places along ", axes.size(), " axes.");
    }
    Dims places = shifts;
    for (std::size_t i = 0; i < places.size(); ++i) {
        const std::int64_t extent = axes.empty() ? x.size() : shape[autograd::wrap_axis("roll", x, axes[i])];
        places[i] = extent == 0 ? 0 : places[i] % extent;
    }
    KTensor y = make_ktensor(ornik::roll(x.tensor(), places, axes));
    if (record.active()) {
        record.finish(y, {}, [places, axes](Backward& pass) {
            Dims back = places;
            std::transform(back.begin(), back.end(), back.begin(), std::negate<>());
            pass.give(0, roll(pass.grad(), back, axes));
        });
    }
    return y;
}

KTensor roll(const KTensor& x, std::int64_t places, int axis) { return roll(x, Dims{places}, std::vector<int>{axis}); }

KTensor diff(const KTensor& x, int axis) {
    autograd::check_defined("diff", x, 0);
    const std::size_t chosen = autograd::wrap_axis("diff", x, axis);
    const std::int64_t extent = x.shape()[chosen];
    if (extent == 0) {
        fail(where("ornik::diff"), "diff(): axis ", chosen, " of ", describe(x), " has no elements.");
    }
    return narrow(x, axis, 1, extent - 1) - narrow(x, axis, 0, extent - 1);
}

// ---- Padding ----

KTensor pad(const KTensor& x, const std::vector<PadWidth>& widths, PadMode mode, const Scalar& value) {
    const Recorder record(Op::pad, {&x});
    if (widths.size() != x.shape().size()) {
        fail(where("ornik::pad"), "pad(): ", describe(x), " takes ", x.ndim(), " pairs of widths, not ", widths.size(),
             ".");
    }
    KTensor y = make_ktensor(ornik::pad(x.tensor(), widths, mode, value));
    if (record.active()) {
        record.finish(y, {}, [widths, mode](Backward& pass) {
            const Dims shape = pass.operand_shape(0);
            if (!pass.recorded()) {
                pass.give(0, pad_grad(pass.grad().tensor(), shape, widths, mode));
                return;
            }
            if (mode == PadMode::constant) {
                std::vector<PadWidth> back;
                for (const PadWidth& width : widths) {
                    back.push_back({-width.before, -width.behind});
                }
                pass.give(0, pad(pass.grad(), back));
                return;
            }
            KTensor gradient = pass.grad();
            for (std::size_t i = 0; i < shape.size(); ++i) {
                const KTensor sources = pad(KTensor::arange(shape[i]), {widths[i]}, mode);
                gradient = add_slices(gradient, sources, i, shape[i]);
            }
            pass.give(0, gradient);
        });
    }
    return y;
}

}  // namespace ornik
