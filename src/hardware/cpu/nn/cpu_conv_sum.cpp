// cpu_conv_sum.cpp: sums over taps and source channels.
//
// The weight is rearranged once per call. Then every tile of positions is computed on its own: its part of the
// source is staged for a block of channels at a time, and summed from the slots straight into the target planes
// where they lie. No column matrix exists: a slot serves all the taps that reach it.
#include <algorithm>
#include <memory>

#include "conv_lane_sum.h"
#include "hardware/cpu/product/cpu_taps.h"

namespace ornik::device::cpu {

namespace {

// Steps of a block of channels, whose slots stay in the nearest cache. Neighbouring taps meet there when they share
// slots.
constexpr std::int64_t shared_steps = 288;
constexpr std::int64_t linear_steps = 144;
constexpr std::int64_t worthwhile_width = 16;  // positions of a row that make up for one unused
constexpr std::int64_t worthwhile_rest = 4;    // the same, of those behind the row's last whole packet
constexpr std::int64_t most_positions = 400;   // of a tile
constexpr std::int64_t packets_together = 3;   // that tap_sums takes at a time

// With few targets, staging costs as much as the sums: large tiles, whose slots stay in the caches.
constexpr std::int64_t few_targets = 4;
constexpr std::int64_t few_least_positions = 256;
constexpr std::int64_t few_most_positions = 4096;
constexpr std::int64_t few_tile_slots = 1 << 16;   // of all channels together
constexpr std::int64_t few_block_slots = 1 << 14;  // of a block of channels

// Positions of a tile that tap_sums() takes together.
struct Positions {
    std::vector<std::int64_t> step_slots;  // per (channel of a block, tap)
    std::vector<TapPacket> packets;        // of a whole tile
    std::vector<TapPacket> last_packets;
};

template <typename T>
class SlotSum {
  public:
    SlotSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          bias_(bias),
          target_(target),
          in_place_(pass.fills_target() && parts<T> == 1),
          plan_(plan_for(pass.is_pointwise() && pass.fills_target() ? pass.as_one_row() : pass, sum, in_place_)),
          block_channels_(channels_per_block()),
          cuts_(sum, plan_.tiles(), tap_targets),
          weights_(std::make_unique<WeightSets<T>>(sum, plan_.kernels, block_channels_, tap_targets, weight)) {
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                whole_.step_slots.push_back((c * plan_.plane + tap) * parts<T>);
                step_weights_.push_back(static_cast<std::int64_t>(step_weights_.size()) * tap_targets);
            }
            for (const std::int64_t tap : plan_.rest_taps) {
                rest_.step_slots.push_back(c * plan_.plane + tap);
            }
        }
        for (std::int64_t o = 0; o < cuts_.channels * parts<T>; ++o) {
            target_weights_.push_back(weights_->target(o));
        }
        zeros_.resize(static_cast<std::size_t>(cuts_.channels * parts<T>));
        const Tile first(plan_, 0);
        const Tile last(plan_, plan_.tiles() - 1);
        whole_.packets = packets_of(first);
        whole_.last_packets = packets_of(last);
        rest_.packets = rest_packets(first);
        rest_.last_packets = rest_packets(last);
    }

    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_.cuts; }
    WorkspaceSize size() const {
        const std::int64_t results = plan_.tile.rows * plan_.tile.cols * cuts_.channels;
        return {block_channels_ * plan_.plane, in_place_ ? cuts_.channels * rest_row() : results * parts<T>,
                results * sum_.source_channels * taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut_index, const Workspace<T>& workspace) const {
        const ConvPass& pass = plan_.pass;
        const Tile tile(plan_, index);
        const std::int64_t cut = cut_index * cuts_.channels;
        const std::int64_t group = part % sum_.groups;
        const std::int64_t channels = std::min(cuts_.channels, sum_.target_channels - cut);
        const bool whole = tile.rows == plan_.tile.rows && tile.cols == plan_.tile.cols;
        T* target = target_ + (part * sum_.target_channels + cut) * pass.target_plane();
        T* out = in_place_ ? target + tile.row * pass.cols.positions + tile.col : workspace.local.get();
        const std::int64_t out_stride = in_place_ ? pass.target_plane() : tile.positions();
        const T* bias = bias_ == nullptr ? nullptr : bias_ + group * sum_.target_channels + cut;
        const Real<T>* starts = bias == nullptr || parts<T> > 1 ? zeros_.data() : as_real(bias);

        // A sum over no channels is the bias: there is always a first block.
        for (std::int64_t first = 0; first == 0 || first < sum_.source_channels; first += block_channels_) {
            const std::int64_t block = std::min(block_channels_, sum_.source_channels - first);
            const T* planes = source_ + (part * sum_.source_channels + first) * pass.source_plane();
            stage_planes(plan_, tile, planes, block, workspace.slots.get());
            const std::int64_t steps = block * taps();
            const Real<T>* weights = weights_->block(group, first) + weights_->target(cut * parts<T>);
            const auto add = [&](const Positions& positions, T* results, std::int64_t stride) {
                const std::vector<TapPacket>& packets = whole ? positions.packets : positions.last_packets;
                tap_sums<Real<T>>({as_real(workspace.slots.get()), positions.step_slots.data(), weights,
                                   step_weights_.data(), target_weights_.data(), steps, channels * parts<T>,
                                   first == 0 ? starts : nullptr, packets.data(),
                                   static_cast<std::int64_t>(packets.size()), as_real(results), stride * parts<T>});
            };
            add(whole_, out, out_stride);
            if (plan_.rest > 0) {
                add(rest_, workspace.local.get(), rest_row());
            }
        }
        if (plan_.rest > 0) {
            for (std::int64_t o = 0; o < channels; ++o) {
                write_rest(tile, workspace.local.get() + o * rest_row(), out + o * out_stride);
            }
        }
        for (std::int64_t o = 0; o < channels && !in_place_; ++o) {
            T* results = out + o * parts<T> * out_stride;
            if constexpr (parts<T> == 2) {
                join_parts(results, out_stride, out_stride, bias == nullptr ? T(0) : bias[o]);
            }
            write_positions(pass, tile, results, target + o * pass.target_plane());
        }
    }

  private:
    std::int64_t taps() const { return static_cast<std::int64_t>(plan_.taps.size()); }

    static StagePlan plan_for(const ConvPass& pass, const ConvSum& sum, bool in_place) {
        if (sum.target_channels * parts<T> <= few_targets) {
            const std::int64_t fitting = few_tile_slots / std::max<std::int64_t>(1, sum.source_channels);
            return {pass, choose_tile(pass, std::clamp(fitting, few_least_positions, few_most_positions), 1),
                    SlotLayout::shared};
        }
        const std::int64_t packet = tap_packet<Real<T>>() / parts<T>;
        const TileShape tile = choose_tile(pass, most_positions, packets_together * packet);
        const std::int64_t rest = tile.cols % packet;
        const std::int64_t unused = (packet - rest) % packet;
        if (tile.rows == 1 || pass.cols.taps.size() == 1 || unused * worthwhile_rest <= rest) {
            return {pass, tile, SlotLayout::shared};
        }
        if (in_place && rest < tile.cols) {
            return {pass, tile, SlotLayout::shared, rest};
        }
        return {pass, tile, unused * worthwhile_width <= tile.cols ? SlotLayout::shared : SlotLayout::linear};
    }

    std::int64_t channels_per_block() const {
        if (sum_.target_channels * parts<T> <= few_targets) {
            return std::max<std::int64_t>(1, std::min(sum_.source_channels, few_block_slots / plan_.plane));
        }
        const std::int64_t steps = plan_.layout == SlotLayout::shared ? shared_steps : linear_steps;
        return equal_blocks(sum_.source_channels, std::max<std::int64_t>(1, steps / taps()));
    }

    std::vector<TapPacket> packets_of(const Tile& tile) const {
        const std::int64_t packet = tap_packet<Real<T>>();
        const bool gapless = plan_.slot_row == tile.cols;
        const std::int64_t rows = gapless ? 1 : tile.rows;
        const std::int64_t cols = (gapless ? tile.positions() : tile.cols) * parts<T>;
        std::vector<TapPacket> packets;
        for (std::int64_t r = 0; r < rows; ++r) {
            for (std::int64_t x = 0; x < cols - plan_.rest; x += packet) {
                packets.push_back({r * plan_.slot_row * parts<T> + x, r * cols + x, std::min(packet, cols - x)});
            }
        }
        return packets;
    }

    // The rest's results lie by themselves, without gaps, in whole packets.
    std::vector<TapPacket> rest_packets(const Tile& tile) const {
        const std::int64_t packet = tap_packet<Real<T>>();
        std::vector<TapPacket> packets;
        for (std::int64_t x = 0; x < tile.rows * plan_.rest; x += packet) {
            packets.push_back({x, x, packet});
        }
        return packets;
    }

    std::int64_t rest_row() const {
        const std::int64_t packet = tap_packet<Real<T>>();
        return (plan_.tile.rows * plan_.rest + packet - 1) / packet * packet;
    }

    // To the ends of a tile's rows.
    void write_rest(const Tile& tile, const T* results, T* out) const {
        for (std::int64_t r = 0; r < tile.rows; ++r) {
            std::copy_n(results + r * plan_.rest, plan_.rest, out + (r + 1) * tile.cols - plan_.rest);
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* bias_;
    T* target_;
    bool in_place_;
    StagePlan plan_;
    std::int64_t block_channels_;
    TargetCuts cuts_;
    std::unique_ptr<WeightSets<T>> weights_;
    std::vector<Real<T>> zeros_;  // per target of a cut
    std::vector<std::int64_t> step_weights_;
    std::vector<std::int64_t> target_weights_;  // per target of a cut
    Positions whole_;
    Positions rest_;
};

}  // namespace

template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* bias, T* target) {
    if constexpr (parts<T> == 1) {
        if (passes.size() == 1 && LaneSum<T>::suits(passes[0], sum)) {
            std::vector<LaneSum<T>> sums;
            sums.emplace_back(passes[0], sum, source, weight, bias, target);
            run_sums<T>(sum, sums);
            return;
        }
    }
    std::vector<SlotSum<T>> sums;
    for (const ConvPass& pass : passes) {
        sums.emplace_back(pass, sum, source, weight, bias, target);
    }
    run_sums<T>(sum, sums);
}

#define ORNIK_INSTANTIATE_CONV_SUM(T) \
    template void run_conv_sum(const std::vector<ConvPass>&, const ConvSum&, const T*, const T*, const T*, T*)

ORNIK_INSTANTIATE_CONV_SUM(float);
ORNIK_INSTANTIATE_CONV_SUM(double);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<float>);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<double>);

}  // namespace ornik::device::cpu
