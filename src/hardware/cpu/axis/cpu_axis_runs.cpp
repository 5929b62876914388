#include "cpu_axis_runs.h"

#include <algorithm>
#include <numeric>

#include "../index/cpu_item_size.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t max_batch = 64;            // runs staged together
constexpr std::int64_t staged_bytes = 1 << 20;    // of one operand
constexpr std::int64_t grain_elements = 1 << 14;  // cheap ones, worth a second thread

// Between `count` runs of n elements in place, at `places`, and as many staged ones, `row` elements apart. Runs in
// place are neighbours: one cache line holds an element of each of several.
template <typename Item>
void stage(char* const* places, std::int64_t count, std::int64_t stride, Item* staged, std::int64_t row, std::int64_t n,
           bool back) {
    for (std::int64_t i = 0; i < n; ++i) {
        for (std::int64_t r = 0; r < count; ++r) {
            Item& place = *reinterpret_cast<Item*>(places[r] + i * stride);
            Item& copy = staged[r * row + i];
            (back ? place : copy) = back ? copy : place;
        }
    }
}

// Elements from one staged run to the next: a cache line more than a run, so that runs do not compete for the
// same places in the cache.
std::int64_t staged_row(std::int64_t extent, std::int64_t item_size) {
    return (extent * item_size / 64 + 2) * 64 / item_size;
}

}  // namespace

void AxisRuns::add(const Tensor* t, Use use) {
    Operand operand{static_cast<char*>(t->getRawData()),
                    t->itemsize(),
                    t->Shape()[axis_],
                    t->Strides()[axis_] * t->itemsize(),
                    {},
                    use};
    std::vector<std::int64_t> sizes;
    for (std::size_t i = 0; i < t->Shape().size(); ++i) {
        if (i != axis_) {
            sizes.push_back(t->Shape()[i]);
            operand.strides.push_back(t->Strides()[i] * t->itemsize());
        }
    }
    if (operands_.empty()) {
        sizes_ = std::move(sizes);
    }
    operands_.push_back(std::move(operand));
}

void AxisRuns::walk(std::int64_t cost, RunFunction run, const void* context) const {
    const std::int64_t runs = std::accumulate(sizes_.begin(), sizes_.end(), std::int64_t{1}, std::multiplies<>());
    if (runs == 0) {
        return;
    }
    // Neighbours are runs along the fastest axis of an operand that is staged, or else of the first one.
    const auto staged =
        std::find_if(operands_.begin(), operands_.end(), [](const Operand& o) { return o.is_staged(); });
    const Operand& leader = staged == operands_.end() ? operands_.front() : *staged;
    std::vector<std::size_t> order(sizes_.size());
    std::iota(order.rbegin(), order.rend(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return std::abs(leader.strides[a]) < std::abs(leader.strides[b]);
    });
    std::int64_t batch = max_batch;
    for (const Operand& operand : operands_) {
        if (operand.is_staged()) {
            batch = std::min(batch, std::max<std::int64_t>(1, staged_bytes / (operand.extent * operand.item_size)));
        }
    }
    const std::int64_t run_cost = std::max<std::int64_t>(1, operands_.front().extent * cost);
    const std::int64_t grain = std::max<std::int64_t>(2, grain_elements / run_cost);
    parallel_for(runs, 1, grain,
                 [&](std::int64_t begin, std::int64_t end) { walk_range(begin, end, batch, order, run, context); });
}

void AxisRuns::walk_range(std::int64_t begin, std::int64_t end, std::int64_t batch,
                          const std::vector<std::size_t>& order, RunFunction run, const void* context) const {
    const std::size_t count = operands_.size();
    const auto row_bytes = [](const Operand& o) { return staged_row(o.extent, o.item_size) * o.item_size; };
    std::vector<std::unique_ptr<char[]>> buffers(count);
    for (std::size_t k = 0; k < count; ++k) {
        if (operands_[k].is_staged()) {
            buffers[k].reset(new char[static_cast<std::size_t>(batch * row_bytes(operands_[k]))]);
        }
    }
    std::vector<std::int64_t> position(sizes_.size(), 0);
    std::vector<char*> place(count);
    for (std::size_t k = 0; k < count; ++k) {
        place[k] = operands_[k].data;
    }
    std::int64_t index = begin;
    for (const std::size_t axis : order) {
        position[axis] = index % sizes_[axis];
        index /= sizes_[axis];
        for (std::size_t k = 0; k < count; ++k) {
            place[k] += position[axis] * operands_[k].strides[axis];
        }
    }
    const auto next = [&] {
        for (const std::size_t axis : order) {
            const std::int64_t step = ++position[axis] < sizes_[axis] ? 1 : 1 - sizes_[axis];
            for (std::size_t k = 0; k < count; ++k) {
                place[k] += step * operands_[k].strides[axis];
            }
            if (step == 1) {
                return;
            }
            position[axis] = 0;
        }
    };
    if (std::none_of(buffers.begin(), buffers.end(), [](const auto& buffer) { return buffer != nullptr; })) {
        for (std::int64_t i = begin; i < end; ++i, next()) {
            run(context, place.data());
        }
        return;
    }
    std::vector<char*> places(count * static_cast<std::size_t>(batch));  // Of operand k from k * batch on.
    std::vector<char*> runs(count);
    for (std::int64_t first = begin; first < end; first += batch) {
        const std::int64_t rows = std::min(batch, end - first);
        for (std::int64_t r = 0; r < rows; ++r, next()) {
            for (std::size_t k = 0; k < count; ++k) {
                places[k * static_cast<std::size_t>(batch) + static_cast<std::size_t>(r)] = place[k];
            }
        }
        const auto move_staged = [&](Use use) {
            for (std::size_t k = 0; k < count; ++k) {
                const Operand& o = operands_[k];
                if (buffers[k] && o.use == use) {
                    by_item_size(o.item_size, [&]<typename Item>() {
                        stage(&places[k * static_cast<std::size_t>(batch)], rows, o.axis_stride,
                              as<Item>(buffers[k].get()), staged_row(o.extent, o.item_size), o.extent,
                              use == Use::output);
                    });
                }
            }
        };
        move_staged(Use::input);
        for (std::int64_t r = 0; r < rows; ++r) {
            for (std::size_t k = 0; k < count; ++k) {
                runs[k] = buffers[k] ? buffers[k].get() + r * row_bytes(operands_[k])
                                     : places[k * static_cast<std::size_t>(batch) + static_cast<std::size_t>(r)];
            }
            run(context, runs.data());
        }
        move_staged(Use::output);
    }
}

}  // namespace ornik::device::cpu
