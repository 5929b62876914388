// iteration_walk.cpp: the outer walk of an iteration plan. Compiled once: kernels pass only their inner
// loop.
#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "descriptors/iteration_plan.h"
#include "descriptors/streamed_loop.h"
#include "descriptors/tile_transpose.h"
#include "hardware/parallel.h"

namespace ornik {

namespace {

// Below this many elements a region costs more than it saves.
constexpr std::int64_t grain_elements = 32768;
// Blocks of a contiguous walk start at multiples of this many elements, so that no two of them share
// a cache line.
constexpr std::int64_t block_unit = 64;

// A tile is this many positions of axis 0 by this many bytes of axis 1: whole cache lines of the staged
// operand, several in a row, and 32 KiB in all. Smaller and larger tiles were slower.
constexpr std::int64_t tile_extent0 = 128;
constexpr std::int64_t tile_bytes1 = 256;

// By operand.
using Pointers = std::array<char*, max_operands>;
using Steps = std::array<std::int64_t, max_operands>;

std::int64_t axis_size(const IterationPlan& plan, std::size_t axis) {
    return axis < plan.sizes.size() ? plan.sizes[axis] : 1;
}

Steps steps_of_axis(const IterationPlan& plan, std::size_t axis) {
    Steps steps{};
    for (std::size_t i = 0; i < plan.operands.size(); ++i) {
        const auto& strides = plan.operands[i].strides;
        steps[i] = axis < strides.size() ? strides[axis] : 0;
    }
    return steps;
}

// Moves `pointers` to the position `index` (axes from `first_axis` on, flattened, innermost fastest).
void place(const IterationPlan& plan, std::size_t first_axis, std::int64_t index, Pointers& pointers) {
    const std::size_t count = plan.operands.size();
    for (std::size_t i = 0; i < count; ++i) {
        pointers[i] = plan.operands[i].data;
    }
    for (std::size_t axis = first_axis; axis < plan.sizes.size() && index != 0; ++axis) {
        const std::int64_t position = index % plan.sizes[axis];
        index /= plan.sizes[axis];
        for (std::size_t i = 0; i < count; ++i) {
            pointers[i] += position * plan.operands[i].strides[axis];
        }
    }
}

// ---- Plain walk: rows of axis 0, stacked along axis 1, over the flat range [begin, end) ----

void walk_rows(const IterationPlan& plan, const BoundLoop& loop, std::int64_t begin, std::int64_t end) {
    StreamedLoop streamed(loop);
    for (std::size_t i = 0; i < plan.operands.size(); ++i) {
        const PlanOperand& output = plan.operands[i];
        if (output.is_output && !plan.serial && !output.strides.empty() && output.strides[0] == output.item_size) {
            const bool in_place = std::any_of(plan.operands.begin(), plan.operands.end(), [&](const PlanOperand& o) {
                return !o.is_output && o.data == output.data;
            });
            streamed.add_output(i, output.item_size, plan.numel, plan.sizes[0], in_place);
        }
    }
    const std::int64_t n0 = axis_size(plan, 0);
    const std::int64_t n1 = axis_size(plan, 1);
    const Steps step0 = steps_of_axis(plan, 0);
    const Steps step1 = steps_of_axis(plan, 1);
    Pointers pointers;
    while (begin < end) {
        place(plan, 0, begin, pointers);
        const std::int64_t column = begin % n0;
        const std::int64_t row = begin / n0 % n1;
        const std::int64_t whole_rows = column == 0 ? std::min((end - begin) / n0, n1 - row) : 0;
        if (whole_rows > 0) {
            streamed.run(pointers.data(), plan.operands.size(), step0.data(), step1.data(), n0, whole_rows);
            begin += whole_rows * n0;
        } else {
            const std::int64_t count = std::min(end - begin, n0 - column);
            streamed.run(pointers.data(), plan.operands.size(), step0.data(), step1.data(), count, 1);
            begin += count;
        }
    }
    streamed.finish();
}

// ---- Ragged walk: operands of different shapes ----

void walk_ragged(const IterationPlan& plan, const BoundLoop& loop, std::int64_t begin, std::int64_t end) {
    Steps steps{};
    Steps runs{};  // How far each operand goes in even steps.
    for (std::size_t i = 0; i < plan.operands.size(); ++i) {
        const PlanOperand& operand = plan.operands[i];
        const auto& geometry = operand.calculator;
        const bool has_axes = geometry.dims > 0;
        steps[i] = has_axes ? geometry.strides[geometry.dims - 1] * operand.item_size : 0;
        runs[i] = has_axes ? geometry.sizes[geometry.dims - 1] : plan.numel;
    }
    const Steps no_rows{};
    Pointers pointers;
    while (begin < end) {
        std::int64_t count = end - begin;
        for (std::size_t i = 0; i < plan.operands.size(); ++i) {
            const PlanOperand& operand = plan.operands[i];
            count = std::min(count, runs[i] - begin % runs[i]);
            pointers[i] = operand.data + operand.calculator.offset(begin) * operand.item_size;
        }
        loop(pointers.data(), steps.data(), no_rows.data(), count, 1);
        begin += count;
    }
}

// ---- Tiled walk: some inputs run along axis 1 while the output runs along axis 0 ----

struct TileGrid {
    std::int64_t extent1 = 0;
    std::int64_t count0 = 0;
    std::int64_t count1 = 0;
    std::int64_t outer = 1;
};

TileGrid tile_grid(const IterationPlan& plan) {
    std::int64_t item_size = 1;
    for (const PlanOperand& operand : plan.operands) {
        item_size = std::max(item_size, operand.item_size);
    }
    TileGrid grid;
    grid.extent1 = tile_bytes1 / item_size;
    grid.count0 = (plan.sizes[0] + tile_extent0 - 1) / tile_extent0;
    grid.count1 = (plan.sizes[1] + grid.extent1 - 1) / grid.extent1;
    for (std::size_t axis = 2; axis < plan.sizes.size(); ++axis) {
        grid.outer *= plan.sizes[axis];
    }
    return grid;
}

bool is_staged(const PlanOperand& operand) {
    return !operand.is_output && operand.strides[1] == operand.item_size && operand.strides[0] != operand.item_size &&
           operand.strides[0] != 0;
}

void walk_tiles(const IterationPlan& plan, const TileGrid& grid, const BoundLoop& loop, std::int64_t begin,
                std::int64_t end) {
    const std::size_t count = plan.operands.size();
    Steps step0 = steps_of_axis(plan, 0);
    Steps step1 = steps_of_axis(plan, 1);
    const Steps source_step0 = step0;
    const Steps source_step1 = step1;
    constexpr std::int64_t buffer_bytes = tile_extent0 * tile_bytes1;
    struct alignas(64) Buffer {
        char bytes[buffer_bytes];
    };
    std::array<std::unique_ptr<Buffer>, max_operands> buffers;
    for (std::size_t i = 0; i < count; ++i) {
        if (is_staged(plan.operands[i])) {
            buffers[i].reset(new (std::nothrow) Buffer);
        }
        if (buffers[i]) {  // Without memory for it, the operand is read where it is.
            step0[i] = plan.operands[i].item_size;
            step1[i] = tile_extent0 * plan.operands[i].item_size;
        }
    }
    Pointers origin;
    Pointers pointers;
    for (std::int64_t tile = begin; tile < end; ++tile) {
        const std::int64_t start0 = tile % grid.count0 * tile_extent0;
        const std::int64_t start1 = tile / grid.count0 % grid.count1 * grid.extent1;
        const std::int64_t n0 = std::min(tile_extent0, plan.sizes[0] - start0);
        const std::int64_t n1 = std::min(grid.extent1, plan.sizes[1] - start1);
        place(plan, 2, tile / grid.count0 / grid.count1, origin);
        for (std::size_t i = 0; i < count; ++i) {
            char* corner = origin[i] + start0 * source_step0[i] + start1 * source_step1[i];
            if (buffers[i]) {
                transpose_tile(buffers[i]->bytes, tile_extent0, corner, source_step0[i], plan.operands[i].item_size, n0,
                               n1);
            }
            pointers[i] = buffers[i] ? buffers[i]->bytes : corner;
        }
        loop(pointers.data(), step0.data(), step1.data(), n0, n1);
    }
}

}  // namespace

void run_plan(const IterationPlan& plan, const BoundLoop& loop) {
    if (plan.tiled) {
        const TileGrid grid = tile_grid(plan);
        const std::int64_t tiles = grid.outer * grid.count0 * grid.count1;
        const std::int64_t grain = plan.numel < grain_elements ? tiles + 1 : 1;
        parallel_for(tiles, 1, grain,
                     [&](std::int64_t begin, std::int64_t end) { walk_tiles(plan, grid, loop, begin, end); });
        return;
    }
    const auto walk = plan.ragged ? walk_ragged : walk_rows;
    const std::int64_t grain = plan.serial ? plan.numel + 1 : grain_elements;
    parallel_for(plan.numel, block_unit, grain,
                 [&](std::int64_t begin, std::int64_t end) { walk(plan, loop, begin, end); });
}

void run_contiguous(const BoundLoop& loop, char* const* data, const std::int64_t* item_sizes, std::size_t outputs,
                    std::size_t operands, std::int64_t numel) {
    const std::int64_t no_rows[max_operands] = {};
    StreamedLoop streamed(loop);
    for (std::size_t i = 0; i < outputs; ++i) {
        const bool in_place = std::find(data + outputs, data + operands, data[i]) != data + operands;
        streamed.add_output(i, item_sizes[i], numel, numel, in_place);
    }
    parallel_for(numel, block_unit, grain_elements, [&](std::int64_t begin, std::int64_t end) {
        char* pointers[max_operands];
        for (std::size_t i = 0; i < operands; ++i) {
            pointers[i] = data[i] + begin * item_sizes[i];
        }
        streamed.run(pointers, operands, item_sizes, no_rows, end - begin, 1);
        streamed.finish();
    });
}

}  // namespace ornik
