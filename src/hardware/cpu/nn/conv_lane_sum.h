// conv_lane_sum.h: sums over taps and source channels for small planes. Internal.
//
// Rows of few positions fill vectors badly. Here vectors hold target channels instead: a position is what tap_sums()
// calls a target, a slot of the source its weight. The results of a plane, channels side by side, are turned at the
// end.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "conv_weight_sets.h"
#include "conv_workers.h"
#include "hardware/cpu/product/cpu_taps.h"

namespace ornik::device::cpu {

template <typename T>
class LaneSum {
  public:
    static bool suits(const ConvPass& pass, const ConvSum& sum) {
        const std::int64_t packet = tap_packet<T>();
        const std::int64_t width = pass.is_pointwise() ? pass.target_plane() : pass.cols.positions;
        const std::int64_t unused = round_up(sum.target_channels, packet) - sum.target_channels;
        return pass.fills_target() && pass.target_plane() <= most_positions && width % packet != 0 &&
               sum.target_channels >= least_targets && unused * worthwhile_targets <= sum.target_channels &&
               sum.source_channels * pass.taps() >= least_steps;
    }

    LaneSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          bias_(bias),
          target_(target),
          plan_(pass, {pass.rows.positions, pass.cols.positions}, SlotLayout::shared),
          block_channels_(equal_blocks(sum.source_channels, std::max<std::int64_t>(1, block_steps / pass.taps()))),
          cuts_(sum, plan_.tiles(), tap_packet<T>()),
          weights_(std::make_unique<WeightSets<T>>(sum, plan_.kernels, block_channels_, tap_packet<T>(), weight)) {
        const std::int64_t packet = tap_packet<T>();
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                step_slots_.push_back(c * plan_.plane + tap);
                step_weights_.push_back(static_cast<std::int64_t>(step_weights_.size()) * packet);
            }
        }
        for (std::int64_t r = 0; r < pass.rows.positions; ++r) {
            for (std::int64_t x = 0; x < pass.cols.positions; ++x) {
                position_slots_.push_back(r * plan_.slot_row + x);
            }
        }
        for (std::int64_t o = 0; o < cuts_.channels; o += packet) {
            packets_.push_back({weights_->target(o), o, packet});
        }
    }

    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        return {block_channels_ * plan_.plane, (positions() + turned_row()) * cuts_.channels,
                positions() * cuts_.channels * sum_.source_channels * plan_.pass.taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut_index, const Workspace<T>& workspace) const {
        const std::int64_t group = part % sum_.groups;
        const std::int64_t cut = cut_index * cuts_.channels;
        const std::int64_t channels = std::min(cuts_.channels, sum_.target_channels - cut);
        const std::int64_t packets = round_up(channels, tap_packet<T>()) / tap_packet<T>();
        T* results = workspace.local.get();
        start(bias_ == nullptr ? nullptr : bias_ + group * sum_.target_channels + cut, channels, results);
        for (std::int64_t first = 0; first < sum_.source_channels; first += block_channels_) {
            const std::int64_t block = std::min(block_channels_, sum_.source_channels - first);
            const T* planes = source_ + (part * sum_.source_channels + first) * plan_.pass.source_plane();
            stage_planes(plan_, Tile(plan_, index), planes, block, workspace.slots.get());
            tap_sums<T>({weights_->block(group, first) + weights_->target(cut), step_weights_.data(),
                         workspace.slots.get(), step_slots_.data(), position_slots_.data(), block * plan_.pass.taps(),
                         positions(), nullptr, packets_.data(), packets, results, cuts_.channels});
        }
        T* turned = results + positions() * cuts_.channels;
        constexpr auto item = static_cast<std::int64_t>(sizeof(T));
        transpose_tile(turned, turned_row(), reinterpret_cast<const char*>(results), cuts_.channels * item, item,
                       positions(), channels);
        for (std::int64_t o = 0; o < channels; ++o) {
            std::copy_n(turned + o * turned_row(), positions(),
                        target_ + (part * sum_.target_channels + cut + o) * positions());
        }
    }

  private:
    static constexpr std::int64_t most_positions = 256;  // whose results for one cut stay in the second level of cache
    static constexpr std::int64_t least_targets = 16;    // sets of vectors hold two or three packets of them
    static constexpr std::int64_t worthwhile_targets = 8;  // make up for an unused place of a vector
    static constexpr std::int64_t least_steps = 128;       // fewer do not pay for turning the results
    static constexpr std::int64_t block_steps = 288;       // whose weights for a set of packets stay in the first level

    static std::int64_t round_up(std::int64_t count, std::int64_t unit) { return (count + unit - 1) / unit * unit; }

    std::int64_t positions() const { return plan_.pass.target_plane(); }
    std::int64_t turned_row() const { return round_up(positions(), piece<T>); }  // aligned

    // The bias, for every position.
    void start(const T* bias, std::int64_t channels, T* results) const {
        for (std::int64_t p = 0; p < positions(); ++p) {
            T* row = results + p * cuts_.channels;
            if (bias == nullptr) {
                std::fill_n(row, cuts_.channels, T(0));
            } else {
                std::fill(std::copy_n(bias, channels, row), row + cuts_.channels, T(0));
            }
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* bias_;
    T* target_;
    StagePlan plan_;
    std::int64_t block_channels_;
    TargetCuts cuts_;
    std::unique_ptr<WeightSets<T>> weights_;
    std::vector<std::int64_t> step_slots_;      // per (channel of a block, tap)
    std::vector<std::int64_t> step_weights_;    // the same
    std::vector<std::int64_t> position_slots_;  // per position
    std::vector<TapPacket> packets_;            // target channels of a cut
};

}  // namespace ornik::device::cpu
