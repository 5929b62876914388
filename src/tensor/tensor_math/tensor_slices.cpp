// tensor_slices.cpp: views by numeric items, what is written through them, and gradients.
#include <algorithm>
#include <limits>

#include "hardware/cpu/elements/cpu_math.h"
#include "slice_items.h"
#include "tensor/checks.h"
#include "tensor/overlap.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

ItemAxis range_of(const Where& at, const SliceItem& item, std::int64_t source, std::int64_t extent) {
    if (item.step == 0) {
        fail(at, "A slice can not have a step of 0.");
    }
    const SliceRange range = slice_range(item, extent);
    return {source, range.begin, range.step, range.count};
}

ItemAxis position_of(const Where& at, const SliceItem& item, std::int64_t source, std::int64_t extent) {
    if (item.begin < -extent || item.begin >= extent) {
        fail(ErrorKind::index, at, "Index ", item.begin, " is out of range for an axis of ", extent, " elements");
    }
    return {source, item.begin < 0 ? item.begin + extent : item.begin, 1, 1, true};
}

// Axes of the tensor that an item stands for; an ellipsis for none.
std::size_t width_of(const SliceItem& item) {
    switch (item.kind) {
        case SliceItem::Kind::index:
        case SliceItem::Kind::slice:
            return 1;
        case SliceItem::Kind::tensor:
            return item.tensor->isBool() ? item.tensor->Shape().size() : 1;
        case SliceItem::Kind::new_axis:
        case SliceItem::Kind::ellipsis:
            return 0;
    }
    return 0;
}

}  // namespace

SliceRange slice_range(const SliceItem& item, std::int64_t extent) {
    if (item.step == 0) {
        fail(where("ornik::slice_range"), "A slice can not have a step of 0.");
    }
    const bool rises = item.step > 0;
    // The positions before the first one and behind the last one, in the direction of the step.
    const std::int64_t lowest = rises ? 0 : -1;
    const std::int64_t highest = rises ? extent : extent - 1;
    const auto clipped = [&](bool given, std::int64_t position, std::int64_t otherwise) {
        const std::int64_t wrapped = position < 0 ? position + extent : position;
        return given ? std::clamp(wrapped, lowest, highest) : otherwise;
    };
    const std::int64_t begin = clipped(item.has_begin, item.begin, rises ? lowest : highest);
    const std::int64_t end = clipped(item.has_end, item.end, rises ? highest : lowest);
    const std::int64_t step = std::max(item.step, -std::numeric_limits<std::int64_t>::max());
    const std::int64_t distance = rises ? end - begin : begin - end;
    const std::int64_t count = distance > 0 ? (distance - 1) / (rises ? step : -step) + 1 : 0;
    return {count > 0 ? begin : 0, count > 1 ? step : 1, count};
}

std::vector<ItemAxis> resolve_items(const Where& at, const Dims& shape, const SliceItems& items, bool tensors) {
    if (std::any_of(shape.begin(), shape.end(), [](std::int64_t extent) { return extent < 0; })) {
        fail(at, "A shape with extents below 0 has no positions: ", shape);
    }
    std::size_t named = 0;
    std::size_t ellipses = 0;
    for (const SliceItem& item : items) {
        if (item.kind == SliceItem::Kind::tensor && (!tensors || item.tensor == nullptr)) {
            fail(at, tensors ? "An index tensor is null." : "Index tensors do not select a view.");
        }
        named += width_of(item);
        ellipses += item.kind == SliceItem::Kind::ellipsis ? 1 : 0;
    }
    if (ellipses > 1) {
        fail(at, "An ellipsis can be used once.");
    }
    if (named > shape.size()) {
        fail(ErrorKind::index, at, "Too many indices for a shape of ", shape);
    }
    std::vector<ItemAxis> axes;
    std::size_t source = 0;
    const auto add_whole = [&](std::size_t count, const Tensor* tensor) {
        for (std::size_t i = 0; i < count; ++i, ++source) {
            axes.push_back({static_cast<std::int64_t>(source), 0, 1, shape[source]});
            axes.back().tensor = i == 0 ? tensor : nullptr;
            axes.back().is_covered = i > 0 && tensor != nullptr;
        }
    };
    for (const SliceItem& item : items) {
        switch (item.kind) {
            case SliceItem::Kind::index:
                axes.push_back(position_of(at, item, static_cast<std::int64_t>(source), shape[source]));
                ++source;
                break;
            case SliceItem::Kind::slice:
                axes.push_back(range_of(at, item, static_cast<std::int64_t>(source), shape[source]));
                ++source;
                break;
            case SliceItem::Kind::new_axis:
                axes.push_back({});
                break;
            case SliceItem::Kind::ellipsis:
                add_whole(shape.size() - named, nullptr);
                break;
            case SliceItem::Kind::tensor:
                if (width_of(item) == 0) {  // A bool without axes selects all or nothing of a new one.
                    axes.push_back({});
                    axes.back().tensor = item.tensor;
                }
                add_whole(width_of(item), item.tensor);
                break;
        }
    }
    add_whole(shape.size() - source, nullptr);
    return axes;
}

Dims shape_of(const std::vector<ItemAxis>& axes) {
    Dims shape;
    for (const ItemAxis& axis : axes) {
        if (!axis.is_dropped) {
            shape.push_back(axis.count);
        }
    }
    return shape;
}

TensorResult view_of(const Tensor* t, const std::vector<ItemAxis>& axes) {
    Dims shape = shape_of(axes);
    Dims strides(shape.size());
    std::int64_t offset = 0;
    std::int64_t next = 1;  // The stride of a new axis: what keeps contiguous elements contiguous.
    std::size_t position = shape.size();
    for (std::size_t i = axes.size(); i-- > 0;) {
        const ItemAxis& axis = axes[i];
        const std::int64_t stride =
            axis.source == ItemAxis::none ? next : t->Strides()[static_cast<std::size_t>(axis.source)];
        offset += axis.source == ItemAxis::none ? 0 : axis.begin * stride;
        if (!axis.is_dropped) {
            strides[--position] = stride * axis.step;
            next = strides[position] * std::max<std::int64_t>(axis.count, 1);
        }
    }
    const bool has_elements = std::find(shape.begin(), shape.end(), 0) == shape.end();
    return new_view(t, shape, strides, has_elements ? offset : 0);
}

TensorResult value_for(const Where& at, const Tensor* x, const Tensor* value, const Dims& shape) {
    check_cpu(at, value);
    const std::size_t rank = value->Shape().size();
    const std::size_t surplus = rank - std::min(rank, shape.size());
    Dims strides(shape.size(), 0);
    bool fits = true;
    for (std::size_t i = 0; i < rank; ++i) {
        const std::int64_t extent = value->Shape()[i];
        if (i < surplus) {
            fits = fits && extent == 1;
            continue;
        }
        const std::size_t target = shape.size() - rank + i;
        fits = fits && (extent == shape[target] || extent == 1);
        strides[target] = extent == 1 ? 0 : 1;  // Marks the axes that the value has.
    }
    if (!fits) {
        fail(at, "A value of shape ", value->Shape(), "does not fit a selection of shape ", shape);
    }
    const Converted converted(value, x->Dtype());
    const TensorResult copy =
        memory_overlap(converted.get(), x) == Overlap::none ? nullptr : row_major_copy(converted.get());
    const Tensor* source = copy ? copy.get() : converted.get();
    for (std::size_t i = surplus; i < rank; ++i) {
        strides[shape.size() - rank + i] *= source->Strides()[i];
    }
    return new_view(source, shape, strides);
}

TensorResult gradient_of_value(const Where& at, const Tensor* selected, const Dims& value_shape) {
    const std::size_t rank = selected->Shape().size();
    Dims shape = value_shape;
    while (shape.size() > rank && shape.front() == 1) {
        shape.erase(shape.begin());
    }
    bool fits = shape.size() <= rank;
    for (std::size_t back = 1; fits && back <= shape.size(); ++back) {
        const std::int64_t extent = shape[shape.size() - back];
        fits = extent == 1 || extent == selected->Shape()[rank - back];
    }
    if (!fits) {
        fail(at, "A value of shape ", value_shape, "does not fit a selection of shape ", selected->Shape());
    }
    TensorResult sum(sum_to_shape(selected, shape));
    if (shape == value_shape) {
        return sum;
    }
    Dims strides(value_shape.size() - shape.size(), std::max<std::int64_t>(sum->Size(), 1));
    strides.insert(strides.end(), sum->Strides().begin(), sum->Strides().end());
    return new_view(sum.get(), value_shape, strides);
}

void check_gradient_shape(const Where& at, const Tensor* grad, const Dims& shape) {
    if (grad->Shape() != shape) {
        fail(at, "The gradient has a shape of ", grad->Shape(), ", the result has a shape of ", shape);
    }
}

Dims slices_shape(const Dims& shape, const SliceItems& items) {
    return shape_of(resolve_items(where("ornik::slices_shape"), shape, items));
}

Tensor* select_slices(const Tensor* x, const SliceItems& items) {
    const Where at = where("ornik::select_slices");
    check_operands(at, x);
    return view_of(x, resolve_items(at, x->Shape(), items)).release();
}

void set_slices(Tensor* x, const Tensor* value, const SliceItems& items) {
    const Where at = where("ornik::set_slices");
    check_cpu(at, x);
    check_not_expanded(at, x);
    const TensorResult target = view_of(x, resolve_items(at, x->Shape(), items));
    const TensorResult source = value_for(at, x, value, target->Shape());
    announce_write(at, x);
    device::cpu::copy(source.get(), target.get());
}

Tensor* select_slices_grad(const Tensor* grad, const Dims& shape, const SliceItems& items) {
    const Where at = where("ornik::select_slices_grad");
    check_cpu(at, grad);
    const std::vector<ItemAxis> axes = resolve_items(at, shape, items);
    check_gradient_shape(at, grad, shape_of(axes));
    TensorResult result = new_result(shape, grad->Dtype());
    if (grad->Size() != result->Size()) {
        device::cpu::fill(result.get(), 0.0F);
    }
    device::cpu::copy(grad, view_of(result.get(), axes).get());
    return result.release();
}

void add_select_slices_grad(Tensor* into, const Tensor* grad, const SliceItems& items) {
    const Where at = where("ornik::add_select_slices_grad");
    check_cpu(at, into, grad);
    check_not_expanded(at, into);
    const TensorResult target = view_of(into, resolve_items(at, into->Shape(), items));
    check_gradient_shape(at, grad, target->Shape());
    const TensorResult source = value_for(at, into, grad, target->Shape());
    announce_write(at, into);
    device::cpu::add(1.0F, target.get(), 1.0F, source.get(), target.get(), false);
}

Tensor* set_slices_grad(const Tensor* grad, const SliceItems& items) {
    const Where at = where("ornik::set_slices_grad");
    check_cpu(at, grad);
    const std::vector<ItemAxis> axes = resolve_items(at, grad->Shape(), items);
    TensorResult result = row_major_copy(grad);
    device::cpu::fill(view_of(result.get(), axes).get(), 0.0F);
    return result.release();
}

Tensor* set_slices_value_grad(const Tensor* grad, const Dims& value_shape, const SliceItems& items) {
    const Where at = where("ornik::set_slices_value_grad");
    check_cpu(at, grad);
    const TensorResult selected = view_of(grad, resolve_items(at, grad->Shape(), items));
    return gradient_of_value(at, selected.get(), value_shape).release();
}

}  // namespace ornik
