// conv_edge_rows.h: rows of positions that reach beyond the source's edges. Internal; for *_vector.cpp alone.
//
// What they find there counts as +0, and its products belong to the chain (conv_order.h). With finite weights these are
// zeros, and adding a zero changes nothing but a sum of -0. Such steps are left out: by all positions of a row above
// the source or below it, by the first or the last one beside it. That is nearly a fifth of all where planes have seven
// rows and columns. A chain whose sum is -0 in the end, which takes a product below the least number, is run once more
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
        : taps_(plan.pass.taps()), kinds_{{0, taps_, std::move(offsets), {}}} {
        if (has_row_ends) {
            note_ends(plan.pass.cols);
        }
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
    /// Those of a tile's rows, out of rows of so many positions, that lie beyond the source for some steps.
    unsigned ends(const Tile& tile, std::int64_t positions) const {
        return ends_ & ((tile.col == 0 ? left_end : no_end) | (tile.col + tile.cols == positions ? right_end : no_end));
    }
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
        std::vector<std::uint8_t> beyond;  // which ends of rows are, per step
    };

    void note_ends(const PassAxis& cols) {
        Kind& all = kinds_[0];
        for (std::size_t step = 0; step < all.offsets.size(); ++step) {
            const PassAxis::Tap& tap = cols.taps[step % cols.taps.size()];
            const unsigned beyond = (cols.is_inside(tap, 0) ? no_end : left_end) |
                                    (cols.is_inside(tap, cols.positions - 1) ? no_end : right_end);
            all.beyond.push_back(static_cast<std::uint8_t>(beyond));
            ends_ |= beyond;
        }
    }

    std::size_t kind(std::int64_t row) const { return rows_[static_cast<std::size_t>(row)]; }

    std::size_t kind_of(std::int64_t first, std::int64_t count) {
        const auto known = std::find_if(kinds_.begin(), kinds_.end(),
                                        [&](const Kind& kind) { return kind.first == first && kind.count == count; });
        if (known != kinds_.end()) {
            return static_cast<std::size_t>(known - kinds_.begin());
        }
        const Kind& all = kinds_[0];
        const auto part_of = [&](const auto& per_step) {
            auto part = per_step;
            part.clear();
            for (auto channel = per_step.begin(); channel != per_step.end(); channel += taps_) {
                part.insert(part.end(), channel + first, channel + first + count);
            }
            return part;
        };
        kinds_.push_back({first, count, part_of(all.offsets), part_of(all.beyond)});
        return kinds_.size() - 1;
    }

    LaneSteps steps_of(std::size_t index, std::int64_t channels) const {
        const Kind& kind = kinds_[index];
        LaneSteps steps = all_steps(kind.offsets.data(), channels * kind.count);
        if (index > 0) {
            steps.first = kind.first;
            steps.run = kind.count;
            steps.gap = taps_ - kind.count;
        }
        steps.beyond = kind.beyond.data();
        return steps;
    }

    std::int64_t taps_;
    unsigned ends_ = no_end;
    std::vector<Kind> kinds_;        // the first one takes all taps
    std::vector<std::size_t> rows_;  // the kind of each
};

/// Runs the chains of rows of the least length that follow each other, two at a time.
template <typename T, int Step>
void run_row_pairs(LaneChain<T>& chain, std::int64_t rows, unsigned row_ends) {
    constexpr int pair = 2 * least_row;
    for (; rows > 1; rows -= 2) {
        chain.row_ends = row_ends;
        lane_chain<T, lane_vectors, Step, pair, least_row>(chain);
        chain.template pass<Step>(pair);
    }
    run_lane_chains<T, lane_vectors, Step, true>(chain, rows * least_row, row_ends);
}

/// Runs the chains of a tile, whose first position's slots are given. The chain goes on behind the positions. `finite`
/// says that the weights are.
template <typename T, int Step = 1>
void run_edge_rows(LaneChain<T>& chain, const StagePlan& plan, const Tile& tile, const EdgeRows& edges,
                   std::int64_t channels, bool finite, const T* slots, std::int64_t width) {
    const LaneSteps all = edges.all(channels);
    const unsigned row_ends = finite && width > lane_width<T> ? edges.ends(tile, plan.pass.cols.positions) : no_end;
    // Rows that have ends stay apart where they are long enough.
    const bool joined = PositionRuns(plan, tile).rows == 1 && (row_ends == no_end || tile.cols <= least_row);
    for (std::int64_t row = 0; row < tile.rows;) {
        std::int64_t end = row + 1;
        if (joined) {
            end = finite ? edges.end_of_alike(tile.row + row, tile.row + tile.rows) - tile.row : tile.rows;
        }
        chain.steps = finite ? edges.steps(tile.row + row, channels) : all;
        chain.all = chain.steps.count == all.count && row_ends == no_end ? nullptr : &all;
        chain.slots = slots + row * plan.slot_row * Step;
        if constexpr (has_row_ends) {
            if (row_ends != no_end && tile.cols == least_row) {
                run_row_pairs<T, Step>(chain, end - row, row_ends);
            } else {
                run_lane_chains<T, Step, true>(chain, width, (end - row) * tile.cols,
                                               end - row == 1 ? row_ends : no_end);
            }
        } else {
            run_lane_chains<T, Step>(chain, width, (end - row) * tile.cols);
        }
        row = end;
    }
    chain.all = nullptr;
}

}  // namespace
}  // namespace ornik::device::cpu
