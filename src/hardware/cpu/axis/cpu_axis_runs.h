// cpu_axis_runs.h: walks tensors run by run along one axis.
//
//     AxisRuns runs(axis);
//     runs.add_input(in);
//     runs.add_output(out);
//     runs.for_each(cost, [n](char* const* run) { sort_row(as<T>(run[0]), as<T>(run[1]), n); });
//
// Operands have the shape of the first one but for the axis, along which extents may differ; further ones may be
// larger. The callable sees each run as adjacent elements, inputs before outputs, whatever the strides: runs that
// do not lie so are staged, several neighbours at a time so that whole cache lines are used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tensor/tensor.h"

namespace ornik::device::cpu {

class AxisRuns {
  public:
    explicit AxisRuns(int axis) : axis_(static_cast<std::size_t>(axis)) {}
    void add_input(const Tensor* t) { add(t, Use::input); }
    void add_output(Tensor* t) { add(t, Use::output); }
    /// An operand that is read or written here and there: the callable gets the place of its first element and
    /// goes by the tensor's own stride.
    void add_in_place(const Tensor* t) { add(t, Use::in_place); }

    /// Calls run(pointers) for every run, in parallel; `cost` is the work per element of the first operand,
    /// 1 for a few cheap instructions.
    template <typename Run>
    void for_each(std::int64_t cost, const Run& run) const {
        walk(
            cost, [](const void* context, char* const* runs) { (*static_cast<const Run*>(context))(runs); }, &run);
    }

  private:
    enum class Use { input, output, in_place };
    struct Operand {
        char* data;
        std::int64_t item_size;
        std::int64_t extent;       // Along the axis.
        std::int64_t axis_stride;  // Bytes, as are the other strides.
        std::vector<std::int64_t> strides;
        Use use;

        bool is_staged() const { return use != Use::in_place && extent > 1 && axis_stride != item_size; }
    };
    using RunFunction = void (*)(const void* context, char* const* runs);

    void add(const Tensor* t, Use use);
    void walk(std::int64_t cost, RunFunction run, const void* context) const;
    void walk_range(std::int64_t begin, std::int64_t end, std::int64_t batch, const std::vector<std::size_t>& order,
                    RunFunction run, const void* context) const;

    std::size_t axis_;
    std::vector<std::int64_t> sizes_;  // Of the other axes, in the first operand, outermost first.
    std::vector<Operand> operands_;
};

template <typename T>
T* as(char* run) {
    return reinterpret_cast<T*>(run);
}

}  // namespace ornik::device::cpu
