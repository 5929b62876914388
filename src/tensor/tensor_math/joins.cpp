// joins.cpp: joining and parting, and views with other axes.
#include "tensor/joins.h"

#include <algorithm>
#include <numeric>

#include "hardware/cpu/elements/cpu_math.h"
#include "joins.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

std::size_t checked_axis(const Tensor* t, int axis) {
    return static_cast<std::size_t>(maybe_warp_dim(axis, static_cast<int>(t->Shape().size())));
}

TensorResult part_of(const Tensor* t, std::size_t axis, std::int64_t begin, std::int64_t extent, std::int64_t step) {
    Dims shape = t->Shape();
    Dims strides = t->Strides();
    shape[axis] = extent;
    const bool has_elements = std::find(shape.begin(), shape.end(), 0) == shape.end();
    const std::int64_t offset = has_elements ? begin * strides[axis] : 0;
    strides[axis] *= extent > 1 ? step : 1;
    return new_view(t, shape, strides, offset);
}

namespace {

std::vector<Tensor*> released(std::vector<TensorResult>& results) {
    std::vector<Tensor*> tensors(results.size());
    std::transform(results.begin(), results.end(), tensors.begin(), [](TensorResult& t) { return t.release(); });
    return tensors;
}

void check_list(const Where& at, const char* name, const std::vector<Tensor*>& tensors) {
    if (tensors.empty()) {
        fail(at, name, "() needs at least one tensor");
    }
    for (const Tensor* t : tensors) {
        if (t == nullptr) {
            fail(at, "A tensor of the list is null.");
        }
        check_cpu(at, t);
    }
}

std::int64_t promoted(const std::vector<Tensor*>& tensors) {
    std::int64_t dtype = tensors.front()->Dtype();
    for (const Tensor* t : tensors) {
        dtype = promotion::of_tensors(dtype, t->Dtype());
    }
    return dtype;
}

}  // namespace

Tensor* concatenate(const std::vector<Tensor*>& tensors, int axis) {
    const Where at = where("ornik::concatenate");
    check_list(at, "concatenate", tensors);
    const Tensor* first = tensors.front();
    const std::size_t joined = checked_axis(first, axis);
    Dims shape = first->Shape();
    shape[joined] = 0;
    for (const Tensor* t : tensors) {
        Dims expected = first->Shape();
        if (t->Shape().size() == expected.size()) {
            expected[joined] = t->Shape()[joined];
        }
        if (t->Shape() != expected) {
            fail(at, "Shapes should agree but for axis ", joined, ": ", first->Shape(), "and ", t->Shape());
        }
        shape[joined] += expected[joined];
    }
    TensorResult result = new_result(shape, promoted(tensors));
    std::int64_t begin = 0;
    for (const Tensor* t : tensors) {
        const std::int64_t extent = t->Shape()[joined];
        device::cpu::copy(t, part_of(result.get(), joined, begin, extent).get());
        begin += extent;
    }
    return result.release();
}

Tensor* stack_along(const std::vector<Tensor*>& tensors, int axis) {
    const Where at = where("ornik::stack_along");
    check_list(at, "stack_along", tensors);
    Dims shape = tensors.front()->Shape();
    for (const Tensor* t : tensors) {
        if (t->Shape() != shape) {
            fail(at, "Shapes should agree: ", shape, "and ", t->Shape());
        }
    }
    const int position = maybe_warp_dim(axis, static_cast<int>(shape.size()) + 1);
    shape.insert(shape.begin() + position, static_cast<std::int64_t>(tensors.size()));
    TensorResult result = new_result(shape, promoted(tensors));
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        const TensorResult slice =
            part_of(result.get(), static_cast<std::size_t>(position), static_cast<std::int64_t>(i), 1);
        device::cpu::copy(tensors[i], slice.get());
    }
    return result.release();
}

std::vector<Tensor*> split(const Tensor* t, const Dims& extents, int axis) {
    const Where at = where("ornik::split");
    check_operands(at, t);
    const std::size_t parted = checked_axis(t, axis);
    std::int64_t left = t->Shape()[parted];
    bool fits = true;
    for (const std::int64_t extent : extents) {
        fits = fits && extent >= 0 && extent <= left;
        left -= fits ? extent : 0;
    }
    if (!fits || left != 0) {
        fail(at, "Parts of ", extents, "elements do not make up axis ", parted, " of a shape of ", t->Shape());
    }
    std::vector<TensorResult> parts;
    std::int64_t begin = 0;
    for (const std::int64_t extent : extents) {
        parts.push_back(part_of(t, parted, begin, extent));
        begin += extent;
    }
    return released(parts);
}

std::vector<Tensor*> chunk(const Tensor* t, std::int64_t parts, int axis) {
    const Where at = where("ornik::chunk");
    check_operands(at, t);
    const std::size_t parted = checked_axis(t, axis);
    if (parts < 1) {
        fail(at, "chunk() needs at least one part, however it is ", parts);
    }
    const std::int64_t whole = t->Shape()[parted];
    const std::int64_t extent = std::max<std::int64_t>(whole / parts + (whole % parts != 0 ? 1 : 0), 1);
    Dims extents;
    for (std::int64_t left = whole; left > 0; left -= extent) {
        extents.push_back(std::min(extent, left));
    }
    return split(t, extents.empty() ? Dims{0} : extents, axis);
}

std::vector<Tensor*> unbind(const Tensor* t, int axis) {
    check_operands(where("ornik::unbind"), t);
    const std::size_t parted = checked_axis(t, axis);
    std::vector<TensorResult> slices;
    for (std::int64_t i = 0; i < t->Shape()[parted]; ++i) {
        const TensorResult slice = part_of(t, parted, i, 1);
        Dims shape = slice->Shape();
        Dims strides = slice->Strides();
        shape.erase(shape.begin() + static_cast<std::ptrdiff_t>(parted));
        strides.erase(strides.begin() + static_cast<std::ptrdiff_t>(parted));
        slices.push_back(new_view(slice.get(), shape, strides));
    }
    return released(slices);
}

// ---- Axes ----

Tensor* moveaxis(const Tensor* t, const std::vector<int>& from, const std::vector<int>& to) {
    const Where at = where("ornik::moveaxis");
    check_operands(at, t);
    if (from.size() != to.size()) {
        fail(at, "moveaxis() needs as many axes as positions: ", from.size(), " and ", to.size());
    }
    const std::size_t rank = t->Shape().size();
    constexpr int open = -1;
    std::vector<int> order(rank, open);
    std::vector<bool> moves(rank);
    for (std::size_t i = 0; i < from.size(); ++i) {
        const std::size_t source = checked_axis(t, from[i]);
        const std::size_t target = checked_axis(t, to[i]);
        if (moves[source] || order[target] != open) {
            fail(at, "Axis ", moves[source] ? source : target, " is given twice.");
        }
        moves[source] = true;
        order[target] = static_cast<int>(source);
    }
    std::size_t next = 0;
    for (int& axis : order) {
        while (axis == open && moves[next]) {
            ++next;
        }
        axis = axis == open ? static_cast<int>(next++) : axis;
    }
    return t->permute(order);
}

Tensor* expand_dims(const Tensor* t, int axis) {
    check_operands(where("ornik::expand_dims"), t);
    return t->unsqueeze(maybe_warp_dim(axis, static_cast<int>(t->Shape().size()) + 1));
}

Tensor* flip_view(const Tensor* t, const std::vector<int>& axes) {
    const Where at = where("ornik::flip_view");
    check_operands(at, t);
    Dims strides = t->Strides();
    std::int64_t offset = 0;
    for (const int axis : reduce_axes(at, axes, t->ndim())) {
        const auto i = static_cast<std::size_t>(axis);
        offset += (t->Shape()[i] - 1) * strides[i];
        strides[i] = -strides[i];
    }
    return new_view(t, t->Shape(), strides, t->Size() > 0 ? offset : 0).release();
}

std::vector<Tensor*> meshgrid(const std::vector<Tensor*>& tensors, bool columns_first) {
    const Where at = where("ornik::meshgrid");
    check_list(at, "meshgrid", tensors);
    Dims shape;
    for (const Tensor* t : tensors) {
        if (t->Shape().size() > 1) {
            fail(at, "meshgrid() needs tensors of at most one axis, a shape is ", t->Shape());
        }
        shape.push_back(t->Size());
    }
    const auto axis_of = [&](std::size_t i) { return columns_first && shape.size() > 1 && i < 2 ? 1 - i : i; };
    if (columns_first && shape.size() > 1) {
        std::swap(shape[0], shape[1]);
    }
    std::vector<TensorResult> grids;
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        Dims strides(shape.size(), 0);
        strides[axis_of(i)] = tensors[i]->Shape().empty() ? 0 : tensors[i]->Strides()[0];
        grids.push_back(new_view(tensors[i], shape, strides));
    }
    return released(grids);
}

namespace {

// How many windows fit along an axis.
std::int64_t window_count(const Where& at, std::int64_t extent, std::int64_t size, std::int64_t step) {
    if (size < 1 || step < 1 || size > extent) {
        fail(at, "Windows of ", size, " elements, ", step, " apart, do not fit an axis of ", extent, " elements");
    }
    return (extent - size) / step + 1;
}

TensorResult window_view(const Where& at, const Tensor* t, std::size_t axis, std::int64_t size, std::int64_t step) {
    Dims shape = t->Shape();
    Dims strides = t->Strides();
    shape[axis] = window_count(at, shape[axis], size, step);
    shape.push_back(size);
    strides.push_back(strides[axis]);
    strides[axis] *= shape[axis] > 1 ? step : 1;
    return new_view(t, shape, strides);
}

}  // namespace

Tensor* windows(const Tensor* t, int axis, std::int64_t size, std::int64_t step) {
    const Where at = where("ornik::windows");
    check_operands(at, t);
    return window_view(at, t, checked_axis(t, axis), size, step).release();
}

Tensor* windows_grad(const Tensor* grad, const Dims& shape, int axis, std::int64_t size, std::int64_t step) {
    const Where at = where("ornik::windows_grad");
    check_cpu(at, grad);
    const auto walked = static_cast<std::size_t>(maybe_warp_dim(axis, static_cast<int>(shape.size())));
    Dims expected = shape;
    expected[walked] = window_count(at, shape[walked], size, step);
    expected.push_back(size);
    check_gradient_shape(at, grad, expected);
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult places = window_view(at, result.get(), walked, size, step);
    // Elements of one place in all windows do not meet, nor do those of one window: walk the shorter axis.
    const std::size_t chosen = expected[walked] < size ? walked : shape.size();
    for (std::int64_t i = 0; i < expected[chosen]; ++i) {
        const TensorResult target = part_of(places.get(), chosen, i, 1);
        const TensorResult source = part_of(grad, chosen, i, 1);
        device::cpu::add(1.0F, target.get(), 1.0F, source.get(), target.get(), false);
    }
    return result.release();
}

}  // namespace ornik
