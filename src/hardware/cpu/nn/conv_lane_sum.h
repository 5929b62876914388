// conv_lane_sum.h: sums over taps and source channels with target channels side by side. Internal; for *_vector.cpp
// alone.
//
// A tile's part of the source is staged for a block of channels at a time, or beforehand where many cuts of the target
// channels read it; then every panel of target channels adds the block to its totals, which wait in the cache, a
// position's channels side by side. They are turned into planes at the end. Strides, edges and narrow rows are the
// staging's business: the sums do not know of them.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "conv_edge_rows.h"
#include "conv_ends.h"
#include "conv_lane_kernel.h"
#include "conv_lane_weights.h"
#include "conv_order.h"
#include "conv_transpose.h"
#include "conv_workers.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class LaneSum {
  public:
    /// Too few channels leave lanes empty.
    static bool suits(const ConvSum& sum) {
        const std::int64_t lanes = round_up(sum.target_channels, lane_width<T>);
        return sum.source_channels > 0 && 4 * sum.target_channels >= 3 * lanes;
    }

    /// `prepared` are weights_of() laid out already, or null.
    LaneSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* prepared,
            const ConvEnds<T>& ends, T* target)
        : sum_(sum),
          source_(source),
          ends_(ends),
          target_(target),
          in_place_(pass.fills_target()),
          plan_(plan_for(pass, sum)),
          unstaged_(is_unstaged(pass, plan_)),
          samples_(tile_samples(sum, plan_.tiles(), positions())),
          sets_((sum.batch + samples_ - 1) / samples_),
          block_channels_(conv_block_channels(sum.source_channels, sum.kernel_elements)),
          weights_(lane_weights(sum, plan_.kernels, weight)),
          prepared_(prepared),
          laid_out_(prepared == nullptr && sets_ * plan_.tiles() > 1 ? std::make_unique<Scratch<T>>(weights_.size())
                                                                     : nullptr),
          cuts_(sum.target_channels, panel, part_count() * plan_.tiles(), samples_ * positions()),
          edges_(plan_, offsets()),
          finite_(sum.finite) {
        if (laid_out_) {
            finite_ = weights_.write(laid_out_->get());
            prepared_ = laid_out_->get();
        }
        if (!unstaged_ && cuts_.cuts >= many_cuts && staged_count() * staged_size() <= most_staged) {
            stage_all();
        }
    }

    std::int64_t part_count() const { return sum_.groups * sets_; }
    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        const std::int64_t totals =
            weights_.blocks() > 1 ? samples_ * positions() * cuts_.channels : most_written() * panel;
        return {unstaged_ || staged_ ? 0 : samples_ * sample_slots(),
                totals + (in_place_ ? 0 : most_written() * lane_width<T>),
                prepared_ != nullptr ? 0 : weights_.largest_panel(),
                samples_ * positions() * cuts_.channels * sum_.source_channels * plan_.pass.taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut_index, const Workspace<T>& workspace) const {
        const std::int64_t group = part % sum_.groups;
        const std::int64_t first_sample = part / sum_.groups * samples_;
        const std::int64_t samples = std::min(samples_, sum_.batch - first_sample);
        const std::int64_t first = cut_index * cuts_.channels;
        const std::int64_t end = std::min(first + cuts_.channels, sum_.target_channels);
        const Tile tile(plan_, index);
        for (std::int64_t block = 0; block < weights_.blocks(); ++block) {
            const T* planes =
                source_ + ((first_sample * sum_.groups + group) * sum_.source_channels + block * block_channels_) *
                              plan_.pass.source_plane();
            const std::int64_t sample_step = sum_.groups * sum_.source_channels * plan_.pass.source_plane();
            for (std::int64_t s = 0; s < samples && !unstaged_ && !staged_; ++s) {
                stage_planes(plan_, tile, planes + s * sample_step, weights_.channels_of(block),
                             workspace.slots.get() + s * sample_slots());
            }
            for (std::int64_t target = first; target < end; target += panel) {
                bool finite = finite_;
                const T* weights = workspace.weights.get();
                const T* ahead = weights;
                if (prepared_ != nullptr) {
                    weights = prepared_ + weights_.place(group, block, target);
                    ahead = prepared_ + weights_.place_after(group, block, target, first, end);
                } else {
                    finite = weights_.write_panel(group, block, target, workspace.weights.get());
                }
                const Panel out{block,
                                target,
                                std::min(target + panel, end) - target,
                                totals(workspace, target - first),
                                weights,
                                finite,
                                ahead,
                                ahead == weights ? 0 : lane_share(weights_.width_at(target), samples * chains(tile))};
                for (std::int64_t s = 0; s < samples; ++s) {
                    const std::int64_t sample = (first_sample + s) * sum_.groups + group;
                    const T* slots = unstaged_ ? planes + s * sample_step + tile.col
                                     : staged_ ? staged_->get() + staged_at(sample, index, block)
                                               : workspace.slots.get() + s * sample_slots();
                    add_block(tile, slots, s, sample, out, workspace);
                }
            }
        }
    }

  private:
    static constexpr std::int64_t panel = lane_vectors * lane_width<T>;
    static constexpr std::int64_t least_positions = 5;  // that keep the processor busy
    static constexpr std::int64_t many_cuts = 4;
    static constexpr std::int64_t most_staged = (std::int64_t{2} << 20) / static_cast<std::int64_t>(sizeof(T));
    static constexpr std::int64_t written_positions = 8 * lane_positions;  // together, while they are near

    // Target channels of one block.
    struct Panel {
        std::int64_t block;
        std::int64_t target;
        std::int64_t channels;
        T* totals;
        const T* weights;
        bool finite;
        const T* ahead;
        std::int64_t ahead_step;
    };

    // A small source is read where it is.
    static bool is_unstaged(const ConvPass& pass, const StagePlan& plan) {
        return pass.is_pointwise() && pass.fills_target() && plan.tiles() == 1 && spread_enough(pass.source_plane());
    }

    static StagePlan plan_for(const ConvPass& pass, const ConvSum& sum) {
        StagePlan plan = tiled_plan(pass, sum);
        plan.plane = is_unstaged(pass, plan) ? pass.source_plane() : spread(plan.plane);
        return plan;
    }

    static StagePlan tiled_plan(const ConvPass& pass, const ConvSum& sum) {
        const std::int64_t most = most_tile_positions(sum);
        if (pass.is_pointwise() && pass.fills_target()) {
            const ConvPass row = pass.as_one_row();
            return {row, choose_tile(row, most, lane_positions), SlotLayout::shared};
        }
        const TileShape tile = shared_out(pass, sum, choose_tile(pass, most, 1));
        const bool narrow = tile.rows > 1 && tile.cols / lane_pieces(tile.cols) < least_positions;
        return {pass, tile, narrow ? SlotLayout::linear : SlotLayout::shared};
    }

    // Tiles of fewer rows where a few more of them part evenly between the workers.
    static TileShape shared_out(const ConvPass& pass, const ConvSum& sum, TileShape tile) {
        const std::int64_t rows = pass.rows.positions;
        const std::int64_t tiles = (rows + tile.rows - 1) / tile.rows;
        for (std::int64_t more = tiles; more > 1 && 4 * more <= 5 * tiles; ++more) {
            if (sum.batch * sum.groups * more % parallel_workers() == 0) {
                tile.rows = (rows + more - 1) / more;
                break;
            }
        }
        return tile;
    }

    static constexpr std::int64_t line = 64 / static_cast<std::int64_t>(sizeof(T));
    // Planes an odd number of cache lines apart spread over the cache.
    static std::int64_t spread(std::int64_t plane) { return (round_up(plane, line) / line | 1) * line; }
    // Planes that a large power of two divides meet in few sets of the cache.
    static bool spread_enough(std::int64_t plane) { return plane % (8 * line) != 0; }

    // Per step of a block.
    std::vector<std::int64_t> offsets() const {
        std::vector<std::int64_t> result;
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                result.push_back(c * plan_.plane + tap);
            }
        }
        return result;
    }

    std::int64_t positions() const { return plan_.tile.rows * plan_.tile.cols; }
    std::int64_t sample_slots() const { return block_channels_ * plan_.plane; }
    // Of a sample, tile and block, with room for what is written too far.
    std::int64_t staged_size() const { return sample_slots() + line; }
    std::int64_t staged_count() const { return sum_.batch * sum_.groups * plan_.tiles() * weights_.blocks(); }
    std::int64_t staged_at(std::int64_t sample, std::int64_t tile, std::int64_t block) const {
        return ((sample * plan_.tiles() + tile) * weights_.blocks() + block) * staged_size();
    }
    void stage_all() {
        staged_ = std::make_unique<Scratch<T>>(staged_count() * staged_size());
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / 4 / staged_size());
        parallel_for(staged_count(), 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t block = item % weights_.blocks();
                const std::int64_t tile = item / weights_.blocks() % plan_.tiles();
                const std::int64_t sample = item / weights_.blocks() / plan_.tiles();
                const std::int64_t channel = sample * sum_.source_channels + block * block_channels_;
                stage_planes(plan_, Tile(plan_, tile), source_ + channel * plan_.pass.source_plane(),
                             weights_.channels_of(block), staged_->get() + item * staged_size());
            }
        });
    }
    // About the chains of a panel and sample.
    std::int64_t chains(const Tile& tile) const {
        const PositionRuns runs(plan_, tile);
        return runs.rows * lane_pieces(runs.cols);
    }
    // Whole rows of a tile, or a part of its only one.
    std::int64_t written_rows() const { return std::max<std::int64_t>(1, written_positions / plan_.tile.cols); }
    std::int64_t written_cols() const {
        return plan_.tile.rows > 1 ? plan_.tile.cols : std::min(plan_.tile.cols, written_positions);
    }
    std::int64_t most_written() const { return std::min(written_rows(), plan_.tile.rows) * written_cols(); }
    T* totals(const Workspace<T>& workspace, std::int64_t channel) const {
        return workspace.local.get() + (weights_.blocks() > 1 ? channel * samples_ * positions() : 0);
    }

    // The tile of one sample, which is written as soon as it is whole.
    void add_block(const Tile& tile, const T* slots, std::int64_t s, std::int64_t part, const Panel& out,
                   const Workspace<T>& workspace) const {
        const std::int64_t width = weights_.width_at(out.target);
        const std::int64_t channels = weights_.channels_of(out.block);
        LaneChain<T> chain{nullptr,       edges_.all(channels),
                           out.weights,   out.block == 0,
                           nullptr,       width,
                           lane_width<T>, out.ahead + s * chains(tile) * weights_.steps_of(out.block) * out.ahead_step,
                           out.ahead_step};
        for (std::int64_t row = 0; row < tile.rows; row += written_rows()) {
            for (std::int64_t col = 0; col < tile.cols; col += written_cols()) {
                Tile piece = tile;
                piece.row += row;
                piece.col += col;
                piece.rows = std::min(written_rows(), tile.rows - row);
                piece.cols = std::min(written_cols(), tile.cols - col);
                T* totals = out.totals;
                if (weights_.blocks() > 1) {
                    totals += (s * tile.positions() + row * tile.cols + col) * width;
                }
                chain.out = totals;
                if (in_place_ && out.block + 1 == weights_.blocks()) {
                    prefetch(piece, part, out);
                }
                run_edge_rows(chain, plan_, piece, edges_, channels, out.finite, slots + row * plan_.slot_row + col,
                              width);
                if (out.block + 1 == weights_.blocks()) {
                    for (std::int64_t v = 0; v < out.channels; v += lane_width<T>) {
                        write(piece, totals + v, width, std::min<std::int64_t>(lane_width<T>, out.channels - v), part,
                              out.target + v, workspace);
                    }
                }
            }
        }
    }

    // The places of the results arrive while the sums are made.
    void prefetch(const Tile& tile, std::int64_t part, const Panel& out) const {
        const T* to = target_ + (part * sum_.target_channels + out.target) * plan_.pass.target_plane() +
                      tile.row * plan_.pass.cols.positions + tile.col;
        for (std::int64_t c = 0; c < out.channels; ++c) {
            for (std::int64_t p = 0; p < tile.positions(); p += line) {
                vec::prefetch_for_writing(to + c * plan_.pass.target_plane() + p);
            }
        }
    }

    // Turns the totals of `channels` target channels and adds what follows them. from[position * width + channel].
    void write(const Tile& tile, const T* from, std::int64_t width, std::int64_t channels, std::int64_t part,
               std::int64_t channel, const Workspace<T>& workspace) const {
        const ConvPass& pass = plan_.pass;
        const std::int64_t plane = pass.target_plane();
        const std::int64_t count = tile.positions();
        T* target = target_ + (part * sum_.target_channels + channel) * plane;
        T* to = in_place_ ? target + tile.row * pass.cols.positions + tile.col
                          : workspace.local.get() + size().local - most_written() * lane_width<T>;
        const std::int64_t stride = in_place_ ? plane : count;
        const T none[lane_width<T>] = {};
        const T* bias = ends_.bias == nullptr ? none : ends_.bias + part % sum_.groups * sum_.target_channels + channel;
        // Elsewhere only the bias is near.
        const ConvEnds<T> now = in_place_ ? ends_ : ConvEnds<T>{ends_.bias};
        const std::int64_t first = in_place_ ? to - target_ : 0;
        turn_columns(from, width, count, channels, to, stride, [&](const auto& v, std::int64_t c, std::int64_t k) {
            return ended(now, v, bias[c], first + c * stride + k);
        });
        for (std::int64_t c = 0; c < channels && !in_place_; ++c) {
            write_positions(pass, tile, to + c * stride, target + c * plane);
        }
        for (std::int64_t c = 0; c < channels && in_place_ && ends_.row != nullptr && ends_.clip == ConvClip::none;
             ++c) {
            ends_.row(to + c * stride, count);
        }
    }

    const ConvSum& sum_;
    const T* source_;
    ConvEnds<T> ends_;
    T* target_;
    bool in_place_;
    StagePlan plan_;
    bool unstaged_;
    std::int64_t samples_;  // of a tile
    std::int64_t sets_;     // of samples
    std::int64_t block_channels_;
    LaneWeights<T> weights_;
    const T* prepared_;                     // The weights, laid out, or null.
    std::unique_ptr<Scratch<T>> laid_out_;  // Here, where several tiles need them.
    std::unique_ptr<Scratch<T>> staged_;    // The source of all tiles, or null.
    TargetCuts cuts_;
    EdgeRows edges_;
    bool finite_;  // the weights, as far as they are laid out
};

}  // namespace
}  // namespace ornik::device::cpu
