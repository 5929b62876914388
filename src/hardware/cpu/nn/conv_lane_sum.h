// conv_lane_sum.h: sums over taps and source channels with target channels side by side. Internal; for *_vector.cpp
// alone.
//
// A tile's part of the source is staged for a block of channels at a time; then every panel of target channels adds the
// block to its totals, which wait in the cache, a position's channels side by side. They are turned into planes at the
// end. Strides, edges and narrow rows are the staging's business: the sums do not know of them.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

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

    LaneSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          bias_(bias),
          target_(target),
          in_place_(pass.fills_target()),
          plan_(plan_for(pass)),
          samples_(plan_.tiles() > 1 ? 1 : std::clamp<std::int64_t>(most_positions / positions(), 1, sum.batch)),
          sets_((sum.batch + samples_ - 1) / samples_),
          block_channels_(conv_block_channels(sum.source_channels, sum.kernel_elements)),
          weights_(sum, plan_.kernels, sum.kernel_elements, block_channels_, lane_width<T>, panel, weight),
          laid_out_(sets_ * plan_.tiles() > 1 ? std::make_unique<Scratch<T>>(weights_.size()) : nullptr),
          cuts_(sum.target_channels, panel, part_count() * plan_.tiles(), samples_ * positions()) {
        spread_planes();
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                offsets_.push_back(c * plan_.plane + tap);
            }
        }
        if (laid_out_) {
            weights_.write(laid_out_->get());
        }
    }

    std::int64_t part_count() const { return sum_.groups * sets_; }
    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        const std::int64_t totals = samples_ * positions() * cuts_.channels;
        return {samples_ * block_channels_ * plan_.plane, totals + (in_place_ ? 0 : positions() * lane_width<T>),
                laid_out_ ? 0 : weights_.largest_panel(), totals * sum_.source_channels * plan_.pass.taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut_index, const Workspace<T>& workspace) const {
        const std::int64_t group = part % sum_.groups;
        const std::int64_t first_sample = part / sum_.groups * samples_;
        const std::int64_t samples = std::min(samples_, sum_.batch - first_sample);
        const std::int64_t first = cut_index * cuts_.channels;
        const std::int64_t end = std::min(first + cuts_.channels, sum_.target_channels);
        const Tile tile(plan_, index);
        for (std::int64_t block = 0; block < weights_.blocks(); ++block) {
            const std::int64_t channels = weights_.channels_of(block);
            for (std::int64_t s = 0; s < samples; ++s) {
                const std::int64_t plane =
                    ((first_sample + s) * sum_.groups + group) * sum_.source_channels + block * block_channels_;
                stage_planes(plan_, tile, source_ + plane * plan_.pass.source_plane(), channels,
                             workspace.slots.get() + s * sample_slots());
            }
            for (std::int64_t target = first; target < end; target += panel) {
                const T* weights = workspace.weights.get();
                if (laid_out_) {
                    weights = laid_out_->get() + weights_.place(group, block, target);
                } else {
                    weights_.write_panel(group, block, target, workspace.weights.get());
                }
                const std::int64_t width = weights_.width_at(target);
                add_block(tile, samples, width,
                          {workspace.slots.get(), offsets_.data(), weights, weights_.steps_of(block), block == 0,
                           totals(workspace, target - first), width});
            }
        }
        for (std::int64_t target = first; target < end; target += panel) {
            const std::int64_t width = weights_.width_at(target);
            for (std::int64_t s = 0; s < samples; ++s) {
                const T* from = totals(workspace, target - first) + s * tile.positions() * width;
                for (std::int64_t v = 0; v < width && target + v < end; v += lane_width<T>) {
                    const std::int64_t channel = group * sum_.target_channels + target + v;
                    write(tile, from + v, width, std::min<std::int64_t>(lane_width<T>, end - target - v), channel,
                          first_sample + s, workspace);
                }
            }
        }
    }

  private:
    static constexpr std::int64_t panel = lane_vectors * lane_width<T>;
    static constexpr std::int64_t most_positions = 400;  // of a tile
    static constexpr std::int64_t least_positions = 5;   // that keep the processor busy

    static std::int64_t round_up(std::int64_t count, std::int64_t unit) { return (count + unit - 1) / unit * unit; }

    static StagePlan plan_for(const ConvPass& pass) {
        if (pass.is_pointwise() && pass.fills_target()) {
            const ConvPass row = pass.as_one_row();
            return {row, choose_tile(row, most_positions, lane_positions), SlotLayout::shared};
        }
        const TileShape tile = choose_tile(pass, most_positions, 1);
        const std::int64_t pieces = (tile.cols + lane_positions - 1) / lane_positions;
        const bool narrow = tile.rows > 1 && tile.cols / pieces < least_positions;
        return {pass, tile, narrow ? SlotLayout::linear : SlotLayout::shared};
    }

    // Planes an odd number of cache lines apart spread over the cache.
    void spread_planes() {
        constexpr std::int64_t line = 64 / static_cast<std::int64_t>(sizeof(T));
        plan_.plane = (round_up(plan_.plane, line) / line | 1) * line;
    }

    std::int64_t positions() const { return plan_.tile.rows * plan_.tile.cols; }
    std::int64_t sample_slots() const { return block_channels_ * plan_.plane; }
    T* totals(const Workspace<T>& workspace, std::int64_t channel) const {
        return workspace.local.get() + channel * samples_ * positions();
    }

    void add_block(const Tile& tile, std::int64_t samples, std::int64_t width, const LaneChain<T>& first) const {
        const bool gapless = plan_.slot_row == tile.cols;
        const std::int64_t rows = gapless ? 1 : tile.rows;
        const std::int64_t cols = gapless ? tile.positions() : tile.cols;
        LaneChain<T> chain = first;
        for (std::int64_t s = 0; s < samples; ++s) {
            for (std::int64_t r = 0; r < rows; ++r) {
                chain.slots = first.slots + s * sample_slots() + r * plan_.slot_row;
                run_lane_chains(chain, width, cols);
                chain.out += cols * width;
            }
        }
    }

    // Turns the totals of `channels` target channels and adds the bias. from[position * width + channel].
    void write(const Tile& tile, const T* from, std::int64_t width, std::int64_t channels, std::int64_t channel,
               std::int64_t sample, const Workspace<T>& workspace) const {
        const ConvPass& pass = plan_.pass;
        const std::int64_t plane = pass.target_plane();
        const std::int64_t count = tile.positions();
        T* target = target_ + (sample * sum_.groups * sum_.target_channels + channel) * plane;
        T* to = in_place_ ? target + tile.row * pass.cols.positions + tile.col
                          : workspace.local.get() + samples_ * positions() * cuts_.channels;
        const std::int64_t stride = in_place_ ? plane : count;
        const T* bias = bias_ == nullptr ? nullptr : bias_ + channel;
        if (bias == nullptr) {
            turn_columns(from, width, count, channels, to, stride, [](const auto& v, std::int64_t) { return v; });
        } else {
            turn_columns(from, width, count, channels, to, stride,
                         [bias](const auto& v, std::int64_t c) { return v + bias[c]; });
        }
        for (std::int64_t c = 0; c < channels && !in_place_; ++c) {
            write_positions(pass, tile, to + c * stride, target + c * plane);
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* bias_;
    T* target_;
    bool in_place_;
    StagePlan plan_;
    std::int64_t samples_;  // of a tile
    std::int64_t sets_;     // of samples
    std::int64_t block_channels_;
    LaneWeights<T> weights_;
    std::unique_ptr<Scratch<T>> laid_out_;  // The weights, where several tiles need them.
    TargetCuts cuts_;
    std::vector<std::int64_t> offsets_;  // per step of a block
};

}  // namespace
}  // namespace ornik::device::cpu
