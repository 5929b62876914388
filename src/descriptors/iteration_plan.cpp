#include "descriptors/iteration_plan.h"

#include <algorithm>
#include <numeric>

namespace ornik {

namespace {

// Rows shorter than this are not worth a tile.
constexpr std::int64_t min_tile_extent = 8;

template <typename T>
void reorder(std::vector<T>& list, const std::vector<std::size_t>& order) {
    std::vector<T> result(list.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        result[i] = list[order[i]];
    }
    list = std::move(result);
}

bool is_constant(const PlanAxes& axes) {
    return std::all_of(axes.strides.begin(), axes.strides.end(), [](std::int64_t step) { return step == 0; });
}

std::int64_t product(const std::vector<std::int64_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), std::int64_t{1}, std::multiplies<>());
}

void reorder_axes(IterationPlan& plan, const std::vector<std::size_t>& order) {
    reorder(plan.sizes, order);
    for (PlanOperand& operand : plan.operands) {
        reorder(operand.strides, order);
    }
}

// Gives every operand its strides over one list of axes. False when the operands' shapes differ.
bool share_axes(IterationPlan& plan) {
    bool found = false;
    std::vector<PlanAxes> all;
    for (const PlanOperand& operand : plan.operands) {
        PlanAxes axes = significant_axes(operand.calculator, operand.item_size);
        if (!is_constant(axes)) {
            if (found && axes.sizes != plan.sizes) {
                return false;
            }
            plan.sizes = axes.sizes;
            found = true;
        }
        all.push_back(std::move(axes));
    }
    if (!found) {
        plan.sizes = plan.numel > 1 ? std::vector<std::int64_t>{plan.numel} : std::vector<std::int64_t>{};
    }
    if (product(plan.sizes) != plan.numel) {
        return false;
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        // A constant operand repeats its one element whatever its shape.
        plan.operands[i].strides =
            is_constant(all[i]) ? std::vector<std::int64_t>(plan.sizes.size(), 0) : std::move(all[i].strides);
    }
    return true;
}

bool needs_order(const IterationPlan& plan) {
    return std::any_of(plan.operands.begin(), plan.operands.end(), [&](const PlanOperand& operand) {
        if (!operand.is_output) {
            return false;
        }
        if (!plan.ragged) {
            return !writes_each_place_once(plan.sizes, operand.strides, operand.item_size);
        }
        const PlanAxes axes = significant_axes(operand.calculator, operand.item_size);
        return product(axes.sizes) != plan.numel ||
               !writes_each_place_once(axes.sizes, axes.strides, operand.item_size);
    });
}

}  // namespace

PlanAxes significant_axes(const OffsetCalculator_cpu<std::int64_t>& geometry, std::int64_t item_size) {
    PlanAxes axes;
    for (std::int32_t d = geometry.dims - 1; d >= 0; --d) {
        if (geometry.sizes[d] != 1) {
            axes.sizes.push_back(geometry.sizes[d]);
            axes.strides.push_back(geometry.strides[d] * item_size);
        }
    }
    return axes;
}

std::vector<std::size_t> axis_order(const std::vector<std::int64_t>& output_strides) {
    std::vector<std::size_t> order(output_strides.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return std::abs(output_strides[a]) < std::abs(output_strides[b]);
    });
    return order;
}

void join_axes(std::vector<std::int64_t>& sizes, const std::vector<std::vector<std::int64_t>*>& strides) {
    std::size_t last = 0;  // The axis that the next one may join.
    for (std::size_t axis = 1; axis < sizes.size(); ++axis) {
        const bool joins = std::all_of(strides.begin(), strides.end(),
                                       [&](const auto* list) { return (*list)[axis] == (*list)[last] * sizes[last]; });
        if (joins) {
            sizes[last] *= sizes[axis];
            continue;
        }
        ++last;
        sizes[last] = sizes[axis];
        for (auto* list : strides) {
            (*list)[last] = (*list)[axis];
        }
    }
    const std::size_t count = std::min(sizes.size(), last + 1);
    sizes.resize(count);
    for (auto* list : strides) {
        list->resize(count);
    }
}

std::size_t tiled_axis(const std::vector<std::int64_t>& sizes, const std::vector<PlanOperand>& operands) {
    if (sizes.size() < 2 || sizes[0] < min_tile_extent) {
        return 0;
    }
    for (const PlanOperand& operand : operands) {
        if (operand.is_output || operand.strides[0] == operand.item_size || operand.strides[0] == 0) {
            continue;
        }
        for (std::size_t axis = 1; axis < sizes.size(); ++axis) {
            if (operand.strides[axis] == operand.item_size && sizes[axis] >= min_tile_extent) {
                return axis;
            }
        }
    }
    return 0;
}

bool writes_each_place_once(const std::vector<std::int64_t>& sizes, const std::vector<std::int64_t>& strides,
                            std::int64_t item_size) {
    const std::vector<std::size_t> order = axis_order(strides);
    std::int64_t reach = item_size;  // Bytes that the axes looked at so far spread over.
    for (const std::size_t axis : order) {
        const std::int64_t step = std::abs(strides[axis]);
        if (step < reach) {
            return false;
        }
        reach += step * (sizes[axis] - 1);
    }
    return true;
}

IterationPlan make_plan(std::vector<PlanOperand> operands, std::int64_t numel) {
    IterationPlan plan;
    plan.operands = std::move(operands);
    plan.numel = numel;
    plan.ragged = !share_axes(plan);
    plan.serial = needs_order(plan);
    if (plan.ragged) {
        return plan;
    }
    if (!plan.serial) {
        reorder_axes(plan, axis_order(plan.operands.front().strides));
    }
    std::vector<std::vector<std::int64_t>*> strides;
    for (PlanOperand& operand : plan.operands) {
        strides.push_back(&operand.strides);
    }
    join_axes(plan.sizes, strides);
    const std::size_t axis = plan.serial ? 0 : tiled_axis(plan.sizes, plan.operands);
    if (axis > 0) {
        std::vector<std::size_t> order(plan.sizes.size());
        std::iota(order.begin(), order.end(), std::size_t{0});
        std::rotate(order.begin() + 1, order.begin() + static_cast<std::ptrdiff_t>(axis),
                    order.begin() + static_cast<std::ptrdiff_t>(axis) + 1);
        reorder_axes(plan, order);
        plan.tiled = true;
    }
    return plan;
}

}  // namespace ornik
