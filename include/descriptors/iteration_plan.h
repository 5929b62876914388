// iteration_plan.h: how the element-wise engine walks its operands. Internal.
//
// A plan is made once per call from the operands' geometry by a list of small steps, each a pure function:
//
//   1. drop the axes of extent 1;
//   2. when all operands have one shape: sort the axes so that the output's fastest axis comes first, and
//      join neighbouring axes that every operand walks like one. A [64, 32, 8] sum of contiguous tensors
//      becomes one axis of 16384; with a row-broadcast operand it becomes axes [256, 64] or the like;
//   3. when an input's fastest axis is not the output's (a transposed operand), bring that axis next to
//      the innermost one: the two are walked in tiles, see tiled_axis.
//
// Operands of different shapes but equal element counts are walked each in its own row-major order
// ("ragged"): runs that are regular in every operand go to the inner loop in one piece.
#pragma once

#include <cstdint>
#include <vector>

#include "offset_calculator.h"

namespace ornik {

/// Of one call, so that its walks need no memory: what has begun to write does not fail.
inline constexpr std::size_t max_operands = 16;

/// One operand as the walk sees it. Axes are listed innermost first; strides count bytes.
struct PlanOperand {
    char* data = nullptr;
    std::int64_t item_size = 0;
    bool is_output = false;
    /// The geometry as given, for flat indices of ragged walks; in elements.
    OffsetCalculator_cpu<std::int64_t> calculator;
    std::vector<std::int64_t> strides{};

    PlanOperand(const Dims& shape, const Dims& stride, void* address, std::int64_t size, bool output)
        : data(static_cast<char*>(address)), item_size(size), is_output(output), calculator(shape, stride) {}
};

/// The inner loop of a kernel: n1 rows of n0 elements each. data[i], stride0[i], stride1[i] belong to
/// operand i (outputs first); strides in bytes.
using InnerLoop = void (*)(const void* function, char* const* data, const std::int64_t* stride0,
                           const std::int64_t* stride1, std::int64_t n0, std::int64_t n1);

/// An inner loop with the function it applies.
struct BoundLoop {
    InnerLoop loop;
    const void* function;
    /// A few operations per element, so that memory is the limit of large operands.
    bool is_light;

    void operator()(char* const* data, const std::int64_t* stride0, const std::int64_t* stride1, std::int64_t n0,
                    std::int64_t n1) const {
        loop(function, data, stride0, stride1, n0, n1);
    }
};

struct IterationPlan {
    std::vector<PlanOperand> operands;
    /// Extents of the shared axes, innermost first; empty for one element.
    std::vector<std::int64_t> sizes;
    std::int64_t numel = 0;
    bool ragged = false;
    /// The output writes one place more than once: elements must be visited in order, by one thread.
    bool serial = false;
    /// Axes 0 and 1 are walked in tiles, and the inputs that run along axis 1 are staged.
    bool tiled = false;
};

/// Axes of one operand without those of extent 1, innermost first; strides in bytes.
struct PlanAxes {
    std::vector<std::int64_t> sizes;
    std::vector<std::int64_t> strides;
};

PlanAxes significant_axes(const OffsetCalculator_cpu<std::int64_t>& geometry, std::int64_t item_size);

/// Order of the axes by rising output stride; stays as it is for equal strides.
std::vector<std::size_t> axis_order(const std::vector<std::int64_t>& output_strides);

/// Joins axis i + 1 to axis i where every operand's stride allows it. `strides[k]` is operand k's list.
void join_axes(std::vector<std::int64_t>& sizes, const std::vector<std::vector<std::int64_t>*>& strides);

/// The axis along which some input is contiguous while it jumps along axis 0; 0 when there is none worth
/// tiling.
std::size_t tiled_axis(const std::vector<std::int64_t>& sizes, const std::vector<PlanOperand>& operands);

/// True when no two index positions share an address, as far as nested strides tell.
bool writes_each_place_once(const std::vector<std::int64_t>& sizes, const std::vector<std::int64_t>& strides,
                            std::int64_t item_size);

/// All steps. `operands` lists outputs first; numel is at least 1.
IterationPlan make_plan(std::vector<PlanOperand> operands, std::int64_t numel);

/// Walks the whole plan, in parallel where it pays.
void run_plan(const IterationPlan& plan, const BoundLoop& loop);

/// The short way for contiguous operands, outputs first, without a plan.
void run_contiguous(const BoundLoop& loop, char* const* data, const std::int64_t* item_sizes, std::size_t outputs,
                    std::size_t operands, std::int64_t numel);

}  // namespace ornik
