#include "descriptors/reduce_descriptor.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

#include "tensor/geometry.h"
#include "utils/utils.h"

namespace ornik {

namespace {

// Rows of results shorter than this are not worth advancing together.
constexpr std::int64_t min_columns = 4;
// Elements a step away from each other share cache lines, or nearly so.
constexpr std::int64_t short_step = 16;

void sort_axes(std::vector<ReduceAxis>& axes) {
    std::stable_sort(axes.begin(), axes.end(),
                     [](const ReduceAxis& a, const ReduceAxis& b) { return std::abs(a.stride) < std::abs(b.stride); });
}

void join_axes(std::vector<ReduceAxis>& axes) {
    std::size_t last = 0;
    for (std::size_t i = 1; i < axes.size(); ++i) {
        ReduceAxis& inner = axes[last];
        if (axes[i].stride == inner.stride * inner.size && axes[i].result_stride == inner.result_stride * inner.size) {
            inner.size *= axes[i].size;
        } else {
            axes[++last] = axes[i];
        }
    }
    axes.resize(std::min(axes.size(), last + 1));
}

// Whether a row-major tensor of that shape is reduced by columns.
bool goes_by_columns(const Dims& shape, const std::vector<bool>& is_reduced) {
    std::int64_t behind = 1;  // Results whose elements are adjacent.
    for (std::size_t i = shape.size(); i-- > 0;) {
        if (shape[i] != 1 && is_reduced[i]) {
            break;
        }
        behind *= shape[i];
    }
    return behind >= min_columns;
}

ReduceDescriptor::Form form_of(const ReduceDescriptor& plan, bool by_columns, ReduceOrder order) {
    using Form = ReduceDescriptor::Form;
    const bool adjacent_results =
        !plan.kept.empty() && plan.kept.front().stride == 1 && plan.kept.front().size >= min_columns;
    const std::int64_t step = plan.reduced.empty() ? 0 : std::abs(plan.reduced.front().stride);
    if (order != ReduceOrder::fixed) {
        return step != 1 && adjacent_results ? Form::columns : Form::rows;
    }
    if (by_columns) {
        return adjacent_results ? Form::columns : Form::staged;
    }
    if (step <= short_step) {
        return Form::rows;
    }
    return adjacent_results ? Form::across : Form::scattered;
}

}  // namespace

std::vector<int> reduce_axes(const Where& at, const std::vector<int>& axes, int ndim) {
    std::vector<int> wrapped(axes.empty() ? static_cast<std::size_t>(ndim) : axes.size());
    if (axes.empty()) {
        std::iota(wrapped.begin(), wrapped.end(), 0);
        return wrapped;
    }
    std::transform(axes.begin(), axes.end(), wrapped.begin(), [&](int axis) { return maybe_warp_dim(axis, ndim); });
    std::sort(wrapped.begin(), wrapped.end());
    if (const auto twice = std::adjacent_find(wrapped.begin(), wrapped.end()); twice != wrapped.end()) {
        fail(at, "Axis ", *twice, " is given twice.");
    }
    return wrapped;
}

ReduceDescriptor make_reduce_descriptor(const Dims& shape, const Dims& strides, const std::vector<int>& axes,
                                        bool keep_dims, ReduceOrder order) {
    ReduceDescriptor plan;
    std::vector<bool> is_reduced(shape.size(), false);
    for (const int axis : axes) {
        is_reduced[static_cast<std::size_t>(axis)] = true;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (!is_reduced[i]) {
            plan.result_shape.push_back(shape[i]);
        } else if (keep_dims) {
            plan.result_shape.push_back(1);
        }
        (is_reduced[i] ? plan.count : plan.outputs) *= shape[i];
    }
    const Dims result_strides = shape2stride(plan.result_shape);
    std::size_t position = plan.result_shape.size();
    for (std::size_t i = shape.size(); i-- > 0;) {
        const bool has_position = !is_reduced[i] || keep_dims;
        position -= has_position ? 1 : 0;
        if (shape[i] != 1) {
            (is_reduced[i] ? plan.reduced : plan.kept)
                .push_back({shape[i], strides[i], is_reduced[i] ? 0 : result_strides[position]});
        }
    }
    sort_axes(plan.kept);
    join_axes(plan.kept);
    if (order == ReduceOrder::any) {
        sort_axes(plan.reduced);
    }
    join_axes(plan.reduced);
    plan.form = form_of(plan, goes_by_columns(shape, is_reduced), order);
    return plan;
}

ReduceWalk::ReduceWalk(const std::vector<ReduceAxis>& axes, std::int64_t index, std::size_t first_axis)
    : axes_(axes), first_axis_(first_axis), position_(axes.size(), 0) {
    for (std::size_t i = first_axis; i < axes.size() && index != 0; ++i) {
        position_[i] = index % axes[i].size;
        index /= axes[i].size;
        offset_ += position_[i] * axes[i].stride;
        result_offset_ += position_[i] * axes[i].result_stride;
    }
}

void ReduceWalk::next() {
    for (std::size_t i = first_axis_; i < axes_.size(); ++i) {
        offset_ += axes_[i].stride;
        result_offset_ += axes_[i].result_stride;
        if (++position_[i] < axes_[i].size) {
            return;
        }
        position_[i] = 0;
        offset_ -= axes_[i].stride * axes_[i].size;
        result_offset_ -= axes_[i].result_stride * axes_[i].size;
    }
}

}  // namespace ornik
