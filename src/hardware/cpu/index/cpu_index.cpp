// cpu_index.cpp: elements and slices at computed places.
#include "hardware/cpu/index/cpu_index.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "../axis/cpu_axis_runs.h"
#include "../reduce/cpu_reduce_walk.h"
#include "cpu_item_size.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t place_cost = 4;
constexpr std::int64_t grain_moves = 1 << 14;  // elements worth a second thread

// function.operator()<Item>(store): store writes an element, or adds it.
template <typename Function>
void with_store(const Tensor* t, bool accumulate, const Function& function) {
    if (!accumulate) {
        by_item_size(t->itemsize(), [&]<typename Item>() {
            function.template operator()<Item>([](Item& place, const Item& value) { place = value; });
        });
        return;
    }
    dispatch(AllTypes{}, t->Dtype(), [&]<typename T>() {
        using Item = Stored<T>;
        function.template operator()<Item>([](Item& place, const Item& value) {
            if constexpr (std::is_same_v<T, bool>) {
                place = (place | value) != 0 ? 1 : 0;
            } else {
                place = element::add(place, value);
            }
        });
    });
}

std::int64_t wrapped(std::int64_t index, std::int64_t n) { return index < 0 ? index + n : index; }

std::int64_t axis_stride(const Tensor* t, int axis) { return t->Strides()[static_cast<std::size_t>(axis)]; }

std::int64_t extent(const Tensor* t, int axis) { return t->Shape()[static_cast<std::size_t>(axis)]; }

// Calls visit(position, items, n, stride) for stretches of an index tensor in row-major order; returns when
// visit gives false. Without `repeats`, expanded axes are visited once.
template <typename Visit>
void for_each_stretch(const Tensor* index, bool repeats, const Visit& visit) {
    std::vector<ReduceAxis> axes;
    for (std::size_t i = index->Shape().size(); i-- > 0;) {
        if (repeats || index->Strides()[i] != 0) {
            axes.push_back({index->Shape()[i], index->Strides()[i], 0});
        }
    }
    if (index->Size() == 0) {
        return;
    }
    const auto* items = static_cast<const std::int64_t*>(index->getRawData());
    std::int64_t stretches = 1;
    for (std::size_t i = 1; i < axes.size(); ++i) {
        stretches *= axes[i].size;
    }
    const ReduceAxis inner = axes.empty() ? ReduceAxis{1, 1, 0} : axes.front();
    ReduceWalk walk(axes, 0, 1);
    for (std::int64_t i = 0; i < stretches; ++i, walk.next()) {
        if (!visit(i * inner.size, items + walk.offset(), inner.size, inner.stride)) {
            return;
        }
    }
}

}  // namespace

std::optional<std::int64_t> first_outside(const Tensor* index, std::int64_t n) {
    std::optional<std::int64_t> outside;
    const std::int64_t low = n > 0 ? -n : 0;
    for_each_stretch(index, false, [&](std::int64_t, const std::int64_t* items, std::int64_t count, std::int64_t step) {
        int found = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            found |= static_cast<int>(items[i * step] < low) | static_cast<int>(items[i * step] >= n);
        }
        for (std::int64_t i = 0; found != 0 && !outside; ++i) {
            if (items[i * step] < low || items[i * step] >= n) {
                outside = items[i * step];
            }
        }
        return found == 0;
    });
    return outside;
}

void gather(const Tensor* x, const Tensor* index, Tensor* out, int axis) {
    AxisRuns runs(axis);
    runs.add_input(index);
    runs.add_in_place(x);
    runs.add_output(out);
    const std::int64_t n = extent(x, axis);
    const std::int64_t k = extent(index, axis);
    const std::int64_t stride = axis_stride(x, axis);
    by_item_size(x->itemsize(), [&]<typename Item>() {
        runs.for_each(place_cost, [&](char* const* run) {
            const auto* places = as<const std::int64_t>(run[0]);
            for (std::int64_t i = 0; i < k; ++i) {
                as<Item>(run[2])[i] = as<Item>(run[1])[wrapped(places[i], n) * stride];
            }
        });
    });
}

void scatter(const Tensor* index, const Tensor* source, Tensor* out, int axis, bool accumulate) {
    AxisRuns runs(axis);
    runs.add_input(index);
    runs.add_input(source);
    runs.add_in_place(out);
    const std::int64_t n = extent(out, axis);
    const std::int64_t k = extent(index, axis);
    const std::int64_t stride = axis_stride(out, axis);
    with_store(out, accumulate, [&]<typename Item>(const auto& store) {
        runs.for_each(place_cost, [&](char* const* run) {
            const auto* places = as<const std::int64_t>(run[0]);
            for (std::int64_t i = 0; i < k; ++i) {
                store(as<Item>(run[2])[wrapped(places[i], n) * stride], as<Item>(run[1])[i]);
            }
        });
    });
}

void scatter_source_grad(const Tensor* g, const Tensor* index, Tensor* out, int axis) {
    AxisRuns runs(axis);
    runs.add_input(index);
    runs.add_in_place(g);
    runs.add_output(out);
    const std::int64_t n = extent(g, axis);
    const std::int64_t k = extent(index, axis);
    const std::int64_t stride = axis_stride(g, axis);
    dispatch(FloatOrComplexTypes{}, g->Dtype(), [&]<typename T>() {
        runs.for_each(place_cost, [&](char* const* run) {
            const auto* places = as<const std::int64_t>(run[0]);
            std::vector<std::int64_t> last(static_cast<std::size_t>(n));
            for (std::int64_t i = 0; i < k; ++i) {
                last[static_cast<std::size_t>(wrapped(places[i], n))] = i;
            }
            for (std::int64_t i = 0; i < k; ++i) {
                const std::int64_t place = wrapped(places[i], n);
                as<T>(run[2])[i] = last[static_cast<std::size_t>(place)] == i ? as<T>(run[1])[place * stride] : T(0);
            }
        });
    });
}

// ---- Slices ----

namespace {

// An axis of the walk; that of the offsets has a table in place of a stride.
struct TableAxis {
    SliceAxis axis;
    const std::int64_t* table = nullptr;

    std::int64_t at(std::int64_t i) const { return table != nullptr ? table[i] : i * axis.stride; }
};

using TableAxes = std::vector<TableAxis>;

// Innermost first, by steps in the other tensor.
TableAxes sorted_axes(const SliceWalk& walk) {
    TableAxes axes;
    axes.push_back({{static_cast<std::int64_t>(walk.offsets.size()), 0, walk.offset_stride}, walk.offsets.data()});
    for (const SliceAxis& axis : walk.axes) {
        if (axis.size != 1) {
            axes.push_back({axis});
        }
    }
    std::stable_sort(axes.begin(), axes.end(), [](const TableAxis& a, const TableAxis& b) {
        return std::abs(a.axis.other_stride) < std::abs(b.axis.other_stride);
    });
    // A table of one offset would only shorten the inner loop.
    std::stable_partition(axes.begin(), axes.end(), [](const TableAxis& a) { return a.axis.size != 1; });
    return axes;
}

template <typename Item, typename Move>
void move_along(const TableAxis& inner, Item* slice, Item* other, const Move& move) {
    const std::int64_t n = inner.axis.size;
    if (inner.table == nullptr && inner.axis.stride == 1 && inner.axis.other_stride == 1) {
        for (std::int64_t i = 0; i < n; ++i) {
            move(slice[i], other[i]);
        }
        return;
    }
    for (std::int64_t i = 0; i < n; ++i) {
        move(slice[inner.at(i)], other[i * inner.axis.other_stride]);
    }
}

template <typename Item, typename Move>
void move_all(const TableAxes& axes, Item* slice, Item* other, const Move& move) {
    std::vector<std::int64_t> position(axes.size(), 0);
    for (;;) {
        std::int64_t at = 0;
        std::int64_t other_at = 0;
        for (std::size_t i = 1; i < axes.size(); ++i) {
            at += axes[i].at(position[i]);
            other_at += position[i] * axes[i].axis.other_stride;
        }
        move_along(axes.front(), slice + at, other + other_at, move);
        std::size_t i = 1;
        for (; i < axes.size() && ++position[i] == axes[i].axis.size; ++i) {
            position[i] = 0;
        }
        if (i >= axes.size()) {
            return;
        }
    }
}

// Threads share the largest axis. Writes to one place stay in order: they differ in the table's axis alone, which
// `share_table` keeps whole.
template <typename Item, typename Move>
void move_slices(const SliceWalk& walk, bool share_table, const Move& move) {
    TableAxes axes = sorted_axes(walk);
    std::int64_t total = 1;
    for (const TableAxis& axis : axes) {
        total *= axis.axis.size;
    }
    if (total == 0) {
        return;
    }
    const auto size = [&](const TableAxis& a) { return share_table || a.table == nullptr ? a.axis.size : 0; };
    const auto shared = static_cast<std::size_t>(
        std::max_element(axes.begin(), axes.end(),
                         [&](const TableAxis& a, const TableAxis& b) { return size(a) < size(b); }) -
        axes.begin());
    Item* slice = static_cast<Item*>(walk.indexed->getRawData());
    Item* other = static_cast<Item*>(walk.other->getRawData());
    if (size(axes[shared]) == 0) {
        move_all(axes, slice, other, move);
        return;
    }
    const std::int64_t extent = axes[shared].axis.size;
    parallel_for(extent, 1, std::max<std::int64_t>(2, grain_moves / (total / extent)),
                 [&](std::int64_t begin, std::int64_t end) {
                     TableAxes own = axes;
                     TableAxis& part = own[shared];
                     part.axis.size = end - begin;
                     const bool is_table = part.table != nullptr;
                     part.table += is_table ? begin : 0;
                     move_all(own, slice + (is_table ? 0 : begin * part.axis.stride),
                              other + begin * part.axis.other_stride, move);
                 });
}

}  // namespace

void add_offsets(const Tensor* index, std::int64_t n, std::int64_t stride, std::vector<std::int64_t>& offsets) {
    for_each_stretch(index, true,
                     [&](std::int64_t at, const std::int64_t* items, std::int64_t count, std::int64_t step) {
                         for (std::int64_t i = 0; i < count; ++i) {
                             offsets[static_cast<std::size_t>(at + i)] += wrapped(items[i * step], n) * stride;
                         }
                         return true;
                     });
}

void mark_replaced(const std::vector<std::int64_t>& places, Tensor* mask) {
    std::vector<std::int64_t> order(places.size());
    std::iota(order.begin(), order.end(), 0);
    const auto place = [&](std::size_t i) { return places[static_cast<std::size_t>(order[i])]; };
    std::stable_sort(order.begin(), order.end(), [&](std::int64_t a, std::int64_t b) {
        return places[static_cast<std::size_t>(a)] < places[static_cast<std::size_t>(b)];
    });
    auto* replaced = static_cast<bool*>(mask->getRawData());
    for (std::size_t i = 0; i < order.size(); ++i) {
        replaced[order[i]] = i + 1 < order.size() && place(i + 1) == place(i);
    }
}

void take_slices(const SliceWalk& walk) {
    by_item_size(walk.indexed->itemsize(), [&]<typename Item>() {
        move_slices<Item>(walk, true, [](const Item& place, Item& value) { value = place; });
    });
}

void put_slices(const SliceWalk& walk, bool accumulate) {
    with_store(walk.indexed, accumulate,
               [&]<typename Item>(const auto& store) { move_slices<Item>(walk, false, store); });
}

}  // namespace ornik::device::cpu
