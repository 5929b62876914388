// conv_block_sum.h: sums over taps and source channels whose results lie in blocks (cpu_blocks.h). Internal; for
// *_vector.cpp alone.
//
// As LaneSum, but that nothing is turned: totals wait where the results are to be. The source lies in blocks, too, of
// which vectors are staged, or is read where it is by kernels of one element; or it lies in planes.
#pragma once

#include <algorithm>
#include <vector>

#include "block_rows.h"
#include "conv_lane_kernel.h"
#include "conv_lane_weights.h"
#include "conv_order.h"
#include "conv_workers.h"

namespace ornik::device::cpu {
namespace {

template <typename T, bool FromPlanes>
class BlockSum {
  public:
    /// `weights` as LaneSum lays them out. A bias fills whole vectors.
    BlockSum(const ConvPass& pass, const ConvSum& sum, const T* source, const LaneWeights<T>& layout, const T* weights,
             const ConvEnds<T>& ends, T* target)
        : sum_(sum),
          source_(source),
          ends_(ends),
          target_(target),
          unstaged_(!FromPlanes && pass.is_pointwise()),
          plan_(plan_for(pass, sum, unstaged_)),
          samples_(tile_samples(sum, plan_.tiles(), positions())),
          block_channels_(conv_block_channels(sum.source_channels, sum.kernel_elements)),
          stage_channels_(FromPlanes ? block_channels_ : round_up(block_channels_, width)),
          layout_(layout),
          weights_(weights),
          cuts_(sum.target_channels, panel, part_count() * plan_.tiles(), samples_ * positions()) {
        offsets_.reserve(static_cast<std::size_t>(block_channels_) * plan_.taps.size());
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                offsets_.push_back(FromPlanes ? c * plan_.plane + tap
                                              : (c / width * plan_.plane + tap) * width + c % width);
            }
        }
    }

    std::int64_t part_count() const { return (sum_.batch + samples_ - 1) / samples_; }
    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        return {unstaged_ ? 0 : samples_ * sample_slots(), 0, 0,
                samples_ * positions() * cuts_.channels * sum_.source_channels * plan_.pass.taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut, const Workspace<T>& workspace) const {
        const Tile tile(plan_, index);
        const std::int64_t first = cut * cuts_.channels;
        const std::int64_t end = std::min(first + cuts_.channels, sum_.target_channels);
        const std::int64_t begin_sample = part * samples_;
        const std::int64_t end_sample = std::min(begin_sample + samples_, sum_.batch);
        const PositionRuns runs(plan_, tile);
        const std::int64_t chains = (end_sample - begin_sample) * runs.rows * lane_pieces(runs.cols);
        for (std::int64_t block = 0; block < layout_.blocks(); ++block) {
            const std::int64_t channel = block * block_channels_;
            if (!unstaged_ && channel % stage_channels_ == 0) {
                for (std::int64_t s = begin_sample; s < end_sample; ++s) {
                    stage(tile, s, channel, workspace.slots.get() + (s - begin_sample) * sample_slots());
                }
            }
            for (std::int64_t target = first; target < end; target += panel) {
                const std::int64_t lanes = layout_.width_at(target);
                const T* weights = weights_ + layout_.place(0, block, target);
                const T* ahead = weights_ + layout_.place_after(0, block, target, first, end);
                const bool last = block + 1 == layout_.blocks();
                LaneChain<T> chain{nullptr,    offsets_.data(),
                                   weights,    layout_.steps_of(block),
                                   block == 0, nullptr,
                                   width,      target_plane() * width,
                                   ahead,      ahead == weights ? 0 : lane_share(lanes, chains)};
                for (std::int64_t s = begin_sample; s < end_sample; ++s) {
                    const T* slots = unstaged_ ? source_of(s, channel) + tile.col * width
                                               : workspace.slots.get() + (s - begin_sample) * sample_slots() +
                                                     (FromPlanes ? 0 : channel % stage_channels_);
                    add_block(tile, slots, s, target, lanes, last, chain);
                }
            }
        }
    }

  private:
    static constexpr std::int64_t width = lane_width<T>;
    static constexpr std::int64_t panel = lane_vectors * width;
    static constexpr int slot = FromPlanes ? 1 : static_cast<int>(width);    // elements
    static constexpr std::int64_t least_positions = lane_positions / 2 + 2;  // that keep the processor busy

    static StagePlan plan_for(const ConvPass& pass, const ConvSum& sum, bool unstaged) {
        const std::int64_t most = most_tile_positions(sum);
        if (unstaged) {
            const ConvPass row = pass.as_one_row();
            StagePlan plan(row, balanced_piece(row, sum, most), SlotLayout::shared);
            plan.plane = row.source_plane();
            return plan;
        }
        const TileShape tile = balanced_tile(pass, sum, most, 1);
        const bool narrow = tile.rows > 1 && tile.cols / lane_pieces(tile.cols) < least_positions;
        return {pass, tile, narrow ? SlotLayout::linear : SlotLayout::shared};
    }

    // Smaller tiles where the larger ones leave processors without work.
    static TileShape balanced_tile(const ConvPass& pass, const ConvSum& sum, std::int64_t most, std::int64_t unit) {
        TileShape best = choose_tile(pass, most, unit);
        std::int64_t least = time_of(pass, sum, best);
        for (most = std::min(most, best.rows * best.cols) / 2; most >= 4 * lane_positions; most /= 2) {
            const TileShape tile = choose_tile(pass, most, unit);
            const std::int64_t time = time_of(pass, sum, tile);
            if (20 * time < 19 * least) {
                best = tile;
                least = time;
            }
        }
        return best;
    }

    // The same of a row, in equal pieces: as many for every thread where threads are likely to have written what they
    // are to read.
    static TileShape balanced_piece(const ConvPass& pass, const ConvSum& sum, std::int64_t most) {
        const std::int64_t length = pass.cols.positions;
        const std::int64_t unit = are_parted_by_rows(sum.batch, length) ? parallel_workers() : 1;
        const auto piece = [&](std::int64_t pieces) { return TileShape{1, (length + pieces - 1) / pieces}; };
        std::int64_t pieces = round_up((length + most - 1) / most, unit);
        TileShape best = piece(pieces);
        std::int64_t least = time_of(pass, sum, best);
        const std::int64_t last = std::min(pieces + 4 * unit, length / lane_positions);
        for (pieces += unit; pieces <= last; pieces += unit) {
            const std::int64_t time = time_of(pass, sum, piece(pieces));
            if (20 * time < 19 * least) {
                best = piece(pieces);
                least = time;
            }
        }
        return best;
    }

    // Of the busiest worker, about, in half chains; a panel that is new to the nearest cache counts as one.
    static std::int64_t time_of(const ConvPass& pass, const ConvSum& sum, const TileShape& tile) {
        const std::int64_t size = tile.rows * tile.cols;
        const std::int64_t tiles =
            (pass.rows.positions + tile.rows - 1) / tile.rows * ((pass.cols.positions + tile.cols - 1) / tile.cols);
        const std::int64_t samples = tile_samples(sum, tiles, size);
        const std::int64_t parts = (sum.batch + samples - 1) / samples * tiles;
        const TargetCuts cuts(sum.target_channels, panel, parts, samples * size);
        const std::int64_t rounds = (parts * cuts.cuts + parallel_workers() - 1) / parallel_workers();
        return rounds * cuts.channels / panel * (2 * samples * lane_pieces(size) + 1);
    }

    std::int64_t positions() const { return plan_.tile.rows * plan_.tile.cols; }
    std::int64_t sample_slots() const { return round_up(stage_channels_ * plan_.plane, 64); }
    std::int64_t target_plane() const { return plan_.pass.target_plane(); }

    // In a source of blocks, the channel is the first of a group or lies in the first one.
    const T* source_of(std::int64_t sample, std::int64_t channel) const {
        const std::int64_t groups = lane_groups<T>(sum_.source_channels);
        return FromPlanes ? source_ + (sample * sum_.source_channels + channel) * plan_.pass.source_plane()
                          : source_ + ((sample * groups + channel / width) * plan_.pass.source_plane()) * width +
                                channel % width;
    }

    void stage(const Tile& tile, std::int64_t sample, std::int64_t channel, T* slots) const {
        const std::int64_t channels = std::min(stage_channels_, sum_.source_channels - channel);
        const T* source = source_of(sample, channel);
        if constexpr (FromPlanes) {
            stage_planes(plan_, tile, source, channels, slots);
        } else {
            stage_vectors(tile, source, lane_groups<T>(channels), slots);
        }
    }

    void stage_vectors(const Tile& tile, const T* source, std::int64_t groups, T* slots) const {
        using V = vec::Vector<T>;
        const std::int64_t step = plan_.pass.cols.step * width;
        for (std::int64_t g = 0; g < groups; ++g) {
            const T* const plane = source + g * plan_.pass.source_plane() * width;
            for (const StageSpan& span : plan_.spans(tile.index)) {
                T* to = slots + (g * plan_.plane + span.slot) * width;
                const T* from = plane + span.source * width;
                const auto fill = [&to](std::int64_t count) {
                    for (; count > 0; --count, to += width) {
                        vec::store(V{}, to);
                    }
                };
                fill(span.begin);
                for (std::int64_t k = 0; k < span.count; ++k, to += width, from += step) {
                    vec::store(vec::load<V>(from), to);
                }
                fill(span.length - span.begin - span.count);
            }
        }
    }

    void add_block(const Tile& tile, const T* slots, std::int64_t sample, std::int64_t target, std::int64_t lanes,
                   bool last, LaneChain<T>& chain) const {
        const std::int64_t groups = lane_groups<T>(sum_.target_channels);
        const std::int64_t place =
            ((sample * groups + target / width) * target_plane() + tile.row * plan_.pass.cols.positions + tile.col) *
            width;
        chain.out = target_ + place;
        if (last) {
            chain.ends = {ends_.bias == nullptr ? nullptr : ends_.bias + target,
                          ends_.residual == nullptr ? nullptr : ends_.residual + place, ends_.clip};
        }
        const PositionRuns runs(plan_, tile);
        for (std::int64_t r = 0; r < runs.rows; ++r) {
            chain.slots = slots + r * plan_.slot_row * slot;
            run_lane_chains<T, slot>(chain, lanes, runs.cols);
        }
        if (last && ends_.row != nullptr && ends_.clip == ConvClip::none) {
            for (std::int64_t v = 0; v < lanes; v += width) {
                ends_.row(target_ + place + v * target_plane(), tile.positions() * width);
            }
        }
    }

    const ConvSum& sum_;
    const T* source_;
    ConvEnds<T> ends_;
    T* target_;
    bool unstaged_;
    StagePlan plan_;
    std::int64_t samples_;  // of a tile
    std::int64_t block_channels_;
    std::int64_t stage_channels_;
    const LaneWeights<T>& layout_;
    const T* weights_;
    TargetCuts cuts_;
    std::vector<std::int64_t> offsets_;  // per step of a block
};

}  // namespace
}  // namespace ornik::device::cpu
