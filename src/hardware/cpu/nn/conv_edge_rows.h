// conv_edge_rows.h: rows of positions that reach beyond the source's first or last row. Internal; for *_vector.cpp
// alone.
//
// What they find there counts as +0, and its products belong to the chain (conv_order.h). With finite weights these are
// zeros, and adding a zero changes nothing but a sum of -0: such steps are left out, a tenth of all where planes have
// seven rows, and a chain whose sum is -0 in the end, which takes a product below the least number, is run once more
// with all of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "conv_lane_kernel.h"
#include "conv_stage.h"

namespace ornik::device::cpu {
namespace {

class EdgeRows {
  public:
    /// `offsets` are those of a block's steps, a channel's taps side by side.
    EdgeRows(const StagePlan& plan, std::vector<std::int64_t> offsets)
        : taps_(plan.pass.taps()), kinds_{{0, taps_, std::move(offsets)}} {
        const PassAxis& rows = plan.pass.rows;
        const auto cols = static_cast<std::int64_t>(plan.pass.cols.taps.size());
        for (std::int64_t row = 0; row < rows.positions; ++row) {
            const auto [first, end] = rows.taps_inside(row);
            rows_.push_back(kind_of(first * cols, (end - first) * cols));
        }
    }

    /// Of the first channels of a block.
    LaneSteps all(std::int64_t channels) const { return steps_of(0, channels); }
    LaneSteps steps(std::int64_t row, std::int64_t channels) const { return steps_of(kind(row), channels); }
    /// Behind the last of the rows from `row` on, before `end`, that take the same steps.
    std::int64_t end_of_alike(std::int64_t row, std::int64_t end) const {
        const std::size_t first = kind(row);
        while (row < end && kind(row) == first) {
            ++row;
        }
        return row;
    }

  private:
    struct Kind {
        std::int64_t first;  // of a channel's taps
        std::int64_t count;
        std::vector<std::int64_t> offsets;
    };

    std::size_t kind(std::int64_t row) const { return rows_[static_cast<std::size_t>(row)]; }

    std::size_t kind_of(std::int64_t first, std::int64_t count) {
        const auto known = std::find_if(kinds_.begin(), kinds_.end(),
                                        [&](const Kind& kind) { return kind.first == first && kind.count == count; });
        if (known != kinds_.end()) {
            return static_cast<std::size_t>(known - kinds_.begin());
        }
        Kind kind{first, count, {}};
        const std::vector<std::int64_t>& all = kinds_[0].offsets;
        for (auto channel = all.begin(); channel != all.end(); channel += taps_) {
            kind.offsets.insert(kind.offsets.end(), channel + first, channel + first + count);
        }
        kinds_.push_back(std::move(kind));
        return kinds_.size() - 1;
    }

    LaneSteps steps_of(std::size_t index, std::int64_t channels) const {
        const Kind& kind = kinds_[index];
        const std::int64_t count = channels * kind.count;
        return {kind.offsets.data(), count, kind.first, index == 0 ? count : kind.count, taps_ - kind.count};
    }

    std::int64_t taps_;
    std::vector<Kind> kinds_;        // the first one takes all taps
    std::vector<std::size_t> rows_;  // the kind of each
};

/// Runs the chains of a tile, whose first position's slots are given. The chain goes on behind the positions. `finite`
/// says that the weights are.
template <typename T, int Step = 1>
void run_edge_rows(LaneChain<T>& chain, const StagePlan& plan, const Tile& tile, const EdgeRows& edges,
                   std::int64_t channels, bool finite, const T* slots, std::int64_t width) {
    const bool joined = PositionRuns(plan, tile).rows == 1;
    const LaneSteps all = edges.all(channels);
    for (std::int64_t row = 0; row < tile.rows;) {
        std::int64_t end = row + 1;
        if (joined) {
            end = finite ? edges.end_of_alike(tile.row + row, tile.row + tile.rows) - tile.row : tile.rows;
        }
        chain.steps = finite ? edges.steps(tile.row + row, channels) : all;
        chain.all = chain.steps.count == all.count ? nullptr : &all;
        chain.slots = slots + row * plan.slot_row * Step;
        run_lane_chains<T, Step>(chain, width, (end - row) * tile.cols);
        row = end;
    }
    chain.all = nullptr;
}

}  // namespace
}  // namespace ornik::device::cpu
