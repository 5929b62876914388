#include "hardware/cpu/index/cpu_indexing.h"

#include <algorithm>
#include <cstring>

#include "hardware/block_copy.h"
#include "hardware/cpu/copy/item_bytes.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/reduce/element_sum.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain_bytes = 1 << 17;  // bytes moved that are worth a second thread
constexpr std::int64_t block = 512;            // columns summed at a time
constexpr std::int64_t sum_grain = 1 << 15;    // additions worth a second thread

// One end of a copy along one axis: byte i lies at positions[i] * step, or at i * step without a list.
struct Side {
    std::int64_t step = 0;
    const std::int64_t* positions = nullptr;

    std::int64_t offset(std::int64_t i) const { return (positions == nullptr ? i : positions[i]) * step; }
};

struct CopyAxis {
    std::int64_t count = 1;
    Side from;
    Side to;

    bool is_regular() const { return from.positions == nullptr && to.positions == nullptr; }
};

struct IndexedCopy {
    std::int64_t item_size;
    const char* source;
    char* target;
    std::vector<CopyAxis> axes{};  // outermost first
};

// The axis as one side sees it; the start of a range moves the side's address.
Side side_of(const AxisSelection& axis, std::int64_t stride, std::int64_t& start) {
    if (!axis.list.empty()) {
        return {stride, axis.list.data()};
    }
    start += axis.start * stride;
    return {axis.step * stride, nullptr};
}

IndexedCopy make_copy(const Tensor* in, const std::vector<AxisSelection>& from, const Tensor* out,
                      const std::vector<AxisSelection>& to) {
    IndexedCopy copy{in->itemsize(), static_cast<const char*>(in->getRawData()), static_cast<char*>(out->getRawData())};
    std::int64_t source_start = 0;
    std::int64_t target_start = 0;
    for (std::size_t k = 0; k < from.size(); ++k) {
        const Side source = side_of(from[k], in->Strides()[k] * copy.item_size, source_start);
        const Side target = side_of(to[k], out->Strides()[k] * copy.item_size, target_start);
        const CopyAxis axis{from[k].count, source, target};
        if (axis.count == 1) {
            source_start += axis.from.offset(0);
            target_start += axis.to.offset(0);
            continue;
        }
        if (!copy.axes.empty()) {
            CopyAxis& outer = copy.axes.back();
            if (outer.is_regular() && axis.is_regular() && outer.from.step == axis.count * axis.from.step &&
                outer.to.step == axis.count * axis.to.step) {
                outer = {outer.count * axis.count, axis.from, axis.to};
                continue;
            }
        }
        copy.axes.push_back(axis);
    }
    if (copy.axes.empty()) {
        copy.axes.push_back({});
    }
    copy.source += source_start;
    copy.target += target_start;
    return copy;
}

template <typename Item, typename From, typename To>
void copy_items(const char* source, char* target, std::int64_t begin, std::int64_t end, From from, To to) {
    for (std::int64_t i = begin; i < end; ++i) {
        std::memcpy(target + to(i), source + from(i), sizeof(Item));
    }
}

template <typename Item>
void copy_run(const CopyAxis& axis, const char* source, char* target, std::int64_t begin, std::int64_t end,
              std::int64_t total) {
    constexpr std::int64_t size = sizeof(Item);
    const Side from = axis.from;
    const Side to = axis.to;
    const auto regular = [](std::int64_t step) { return [step](std::int64_t i) { return i * step; }; };
    const auto listed = [](Side side) { return [side](std::int64_t i) { return side.positions[i] * side.step; }; };
    if (axis.is_regular() && from.step == size && to.step == size) {
        copy_block(target + begin * size, source + begin * size, (end - begin) * size, total);
    } else if (axis.is_regular()) {
        copy_items<Item>(source, target, begin, end, regular(from.step), regular(to.step));
    } else if (to.positions == nullptr) {
        copy_items<Item>(source, target, begin, end, listed(from), regular(to.step));
    } else if (from.positions == nullptr) {
        copy_items<Item>(source, target, begin, end, regular(from.step), listed(to));
    } else {
        copy_items<Item>(source, target, begin, end, listed(from), listed(to));
    }
}

template <typename Item>
void run_copy(const IndexedCopy& copy) {
    const CopyAxis& last = copy.axes.back();
    constexpr std::int64_t run_length = grain_bytes / static_cast<std::int64_t>(sizeof(Item));
    const std::int64_t runs = (last.count + run_length - 1) / run_length;
    const std::size_t outer_axes = copy.axes.size() - 1;
    std::int64_t rows = 1;
    for (std::size_t k = 0; k < outer_axes; ++k) {
        rows *= copy.axes[k].count;
    }
    const std::int64_t total = rows * last.count * copy.item_size;
    const std::int64_t run_bytes = std::min(last.count, run_length) * copy.item_size;
    parallel_for(rows * runs, 1, std::max<std::int64_t>(2, 2 * grain_bytes / run_bytes),
                 [&](std::int64_t begin, std::int64_t end) {
                     Dims index(outer_axes);
                     for (std::int64_t k = static_cast<std::int64_t>(outer_axes), row = begin / runs; k-- > 0;) {
                         const auto axis = static_cast<std::size_t>(k);
                         index[axis] = row % copy.axes[axis].count;
                         row /= copy.axes[axis].count;
                     }
                     std::int64_t run = begin % runs;
                     for (std::int64_t unit = begin; unit < end;) {
                         const char* source = copy.source;
                         char* target = copy.target;
                         for (std::size_t k = 0; k < outer_axes; ++k) {
                             source += copy.axes[k].from.offset(index[k]);
                             target += copy.axes[k].to.offset(index[k]);
                         }
                         for (; run < runs && unit < end; ++run, ++unit) {
                             copy_run<Item>(last, source, target, run * run_length,
                                            std::min(last.count, (run + 1) * run_length), total);
                         }
                         run = 0;
                         for (std::size_t k = outer_axes; k-- > 0 && ++index[k] == copy.axes[k].count;) {
                             index[k] = 0;
                         }
                     }
                 });
}

void run_copy(const IndexedCopy& copy) {
    dispatch_item_size(copy.item_size, [&]<typename Item>() { run_copy<Item>(copy); });
}

// All positions of a tensor of the shape.
std::vector<AxisSelection> everything(const Dims& shape) {
    std::vector<AxisSelection> result;
    for (const std::int64_t extent : shape) {
        result.push_back({0, 1, extent});
    }
    return result;
}

}  // namespace

void gather_positions(const Tensor* in, const std::vector<AxisSelection>& selection, Tensor* out) {
    const std::vector<AxisSelection> to = everything(out->Shape());
    run_copy(make_copy(in, selection, out, to));
}

void scatter_positions(const Tensor* in, const std::vector<AxisSelection>& from,
                       const std::vector<AxisSelection>& selection, Tensor* out) {
    run_copy(make_copy(in, from, out, selection));
}

void cpu_select_ndim_backward(const Tensor* grad, const std::vector<AxisSelection>& selection, Tensor* out) {
    const std::vector<AxisSelection> from = everything(grad->Shape());
    scatter_positions(grad, from, selection, out);
}

void sum_groups(const Tensor* in, std::int64_t outer, const AxisGroups& groups, std::int64_t inner, Tensor* out) {
    const std::int64_t blocks = (inner + block - 1) / block;
    const auto members = static_cast<std::int64_t>(groups.members.size());
    const std::int64_t work = std::max<std::int64_t>(1, members / groups.count() * std::min(inner, block));
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        using Sum = element::SumOf<T>;
        const T* source = static_cast<const T*>(in->getRawData());
        T* target = static_cast<T*>(out->getRawData());
        const auto sum_block = [&](std::int64_t row, std::int64_t first) {
            const std::int64_t o = row / groups.count();
            const auto g = static_cast<std::size_t>(row % groups.count());
            const std::int64_t count = std::min(block, inner - first);
            Sum sums[block];
            std::fill_n(sums, count, Sum{});
            for (std::int64_t k = groups.starts[g]; k < groups.starts[g + 1]; ++k) {
                const std::int64_t member = groups.members[static_cast<std::size_t>(k)];
                const T* items = source + (o * groups.extent + member) * inner + first;
                for (std::int64_t i = 0; i < count; ++i) {
                    sums[i] = element::add(sums[i], convert_element<Sum>(items[i]));
                }
            }
            for (std::int64_t i = 0; i < count; ++i) {
                target[row * inner + first + i] = convert_element<T>(sums[i]);
            }
        };
        parallel_for(outer * groups.count() * blocks, 1, std::max<std::int64_t>(2, sum_grain / work),
                     [&](std::int64_t begin, std::int64_t end) {
                         for (std::int64_t unit = begin; unit < end; ++unit) {
                             sum_block(unit / blocks, unit % blocks * block);
                         }
                     });
    });
}

}  // namespace ornik::device::cpu
