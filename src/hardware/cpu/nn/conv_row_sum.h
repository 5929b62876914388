// conv_row_sum.h: sums over taps and source channels with positions side by side, for few target channels and for
// complex elements. Internal; for *_vector.cpp alone.
//
// A tile's part of the source is staged for a block of channels at a time. The tile's rows lie in the slots one behind
// the other: the sums run over them, and over the few slots between them, as over one long row. A plane of complex
// elements counts as a plane of twice as many real ones, a complex target as two real ones (conv_parts.h).
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "conv_lane_weights.h"
#include "conv_order.h"
#include "conv_parts.h"
#include "conv_row_kernel.h"
#include "conv_workers.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class RowSum {
  public:
    /// The weights are real ones; `sum` counts real targets. They are never prepared.
    RowSum(const ConvPass& pass, const ConvSum& sum, const T* source, const Real<T>* weight,
           const Real<T>* /*prepared*/, const ConvEnds<T>& ends, T* target)
        : sum_(sum),
          source_(source),
          weight_(weight),
          ends_(ends),
          target_(target),
          block_channels_(conv_block_channels(sum.source_channels, sum.kernel_elements)),
          plan_(plan_for(pass, block_channels_)),
          weights_(sum, plan_.kernels, sum.kernel_elements, block_channels_, 1, row_targets, weight),
          cuts_(sum.target_channels, row_targets, part_count() * plan_.tiles(), total_row()) {
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                offsets_.push_back((c * plan_.plane + tap) * parts<T>);
            }
        }
        if (!weights_.in_order()) {
            laid_out_ = std::make_unique<Scratch<Real<T>>>(weights_.size());
            weights_.write(laid_out_->get());
        }
    }

    std::int64_t part_count() const { return sum_.batch * sum_.groups; }
    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        const std::int64_t totals = std::min(cuts_.channels, sum_.target_channels) * total_row();
        return {block_channels_ * plan_.plane + plan_.slot_row + vec::lanes<Real<T>>, totals, 0,
                totals * sum_.source_channels * plan_.pass.taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut, const Workspace<T>& workspace) const {
        const std::int64_t group = part % sum_.groups;
        const std::int64_t first = cut * cuts_.channels;
        const std::int64_t end = std::min(first + cuts_.channels, sum_.target_channels);
        const Tile tile(plan_, index);
        Real<T>* const totals = as_real(workspace.local.get());
        const std::int64_t length = ((tile.rows - 1) * plan_.slot_row + tile.cols) * parts<T>;
        const std::int64_t vectors = (length + vec::lanes<Real<T>> - 1) / vec::lanes<Real<T>>;
        // A sum over no channels is the bias.
        if (weights_.blocks() == 0) {
            std::fill_n(totals, (end - first) * total_row(), Real<T>(0));
        }
        for (std::int64_t block = 0; block < weights_.blocks(); ++block) {
            const std::int64_t plane = part * sum_.source_channels + block * block_channels_;
            stage_planes(plan_, tile, source_ + plane * plan_.pass.source_plane(), weights_.channels_of(block),
                         workspace.slots.get());
            for (std::int64_t target = first; target < end; target += row_targets) {
                const std::int64_t width = weights_.width_at(target);
                RowChain<Real<T>> chain{};
                chain.slots = as_real(workspace.slots.get());
                chain.offsets = offsets_.data();
                if (laid_out_) {
                    chain.weights = laid_out_->get() + weights_.place(group, block, target);
                    chain.weight_step = width;
                    chain.weight_stride = 1;
                } else {
                    chain.weights = weight_ + group * sum_.group_stride + target * sum_.target_stride +
                                    block * block_channels_ * sum_.source_stride;
                    chain.weight_step = 1;
                    chain.weight_stride = sum_.target_stride;
                }
                chain.steps = weights_.steps_of(block);
                chain.first = block == 0;
                chain.out = totals + (target - first) * total_row();
                chain.out_stride = total_row();
                run_row_chains(chain, width, vectors);
            }
        }
        for (std::int64_t target = first; target < end; target += parts<T>) {
            write(tile, workspace.local.get() + (target - first) / parts<T> * total_row(), part,
                  (group * sum_.target_channels + target) / parts<T>);
        }
    }

  private:
    static constexpr std::int64_t most_slots = 1 << 14;      // of a tile and block
    static constexpr std::int64_t least_positions = 256;     // of a tile
    static constexpr std::int64_t most_positions = 4096;     // of a tile
    static constexpr std::int64_t worthwhile_positions = 2;  // make up for one slot between rows

    static StagePlan plan_for(const ConvPass& pass, std::int64_t block_channels) {
        const std::int64_t most = std::clamp(most_slots / block_channels, least_positions, most_positions);
        if (pass.is_pointwise() && pass.fills_target()) {
            const ConvPass row = pass.as_one_row();
            return {row, choose_tile(row, most, vec::lanes<Real<T>>), SlotLayout::shared};
        }
        const TileShape tile = choose_tile(pass, most, 1);
        StagePlan plan(pass, tile, SlotLayout::shared);
        if (tile.rows > 1 && (plan.slot_row - tile.cols) * worthwhile_positions > tile.cols) {
            return {pass, tile, SlotLayout::linear};
        }
        return plan;
    }

    // Real totals of one target: whole vectors.
    std::int64_t total_row() const {
        constexpr std::int64_t unit = vec::lanes<Real<T>>;
        return (plan_.tile.rows * plan_.slot_row * parts<T> + unit - 1) / unit * unit;
    }

    void write(const Tile& tile, T* totals, std::int64_t part, std::int64_t channel) const {
        const ConvPass& pass = plan_.pass;
        const T* const bias = ends_.bias;
        const T start = bias == nullptr ? T(0) : bias[channel];
        if constexpr (parts<T> == 2) {
            join_parts(totals, total_row() / 2, plan_.tile.rows * plan_.slot_row);
        }
        const std::int64_t channels = sum_.groups * sum_.target_channels / parts<T>;
        T* target = target_ + (part / sum_.groups * channels + channel) * pass.target_plane();
        for (std::int64_t r = 0; r < tile.rows; ++r) {
            const T* row = totals + r * plan_.slot_row;
            T* to = target + (pass.rows.first + (tile.row + r) * pass.rows.stride) * pass.cols.target +
                    pass.cols.first + tile.col * pass.cols.stride;
            if (pass.cols.stride > 1) {
                for (std::int64_t x = 0; x < tile.cols; ++x) {
                    to[x * pass.cols.stride] = bias == nullptr ? row[x] : row[x] + start;
                }
            } else if (bias == nullptr) {
                copy_row(as_real(row), tile.cols * parts<T>, as_real(to));
            } else if constexpr (parts<T> == 1) {
                copy_row(row, tile.cols, to, [start](const auto& v) { return v + start; });
            } else {
                std::transform(row, row + tile.cols, to, [start](const T& v) { return v + start; });
            }
        }
        if (ends_.finishes() && pass.fills_target()) {
            ends_.finish(target_, target + tile.row * pass.cols.target + tile.col - target_,
                         tile.rows > 1 ? tile.positions() : tile.cols);
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const Real<T>* weight_;
    ConvEnds<T> ends_;
    T* target_;
    std::int64_t block_channels_;
    StagePlan plan_;
    LaneWeights<Real<T>> weights_;
    std::unique_ptr<Scratch<Real<T>>> laid_out_;
    TargetCuts cuts_;
    std::vector<std::int64_t> offsets_;  // per step of a block
};

}  // namespace
}  // namespace ornik::device::cpu
