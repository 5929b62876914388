// cpu_conv_direct.cpp: convolutions with too few channels on one side for a product.
//
// A packed panel serves every target channel; with a handful of them its packing would cost more than it saves.
// Here the sums read the staged slots where they are.
#include <algorithm>

#include "conv_workers.h"
#include "hardware/cpu/cpu_taps.h"

namespace ornik::device::cpu {

namespace {

// Positions of a tile, and its slots: a block of channels should stay in the caches nearest to the processor.
constexpr std::int64_t least_positions = 256;
constexpr std::int64_t most_positions = 4096;
constexpr std::int64_t tile_slots = 1 << 16;   // of all channels together
constexpr std::int64_t block_slots = 1 << 14;  // of a block of channels

template <typename T>
class DirectSum {
  public:
    DirectSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          bias_(bias),
          target_(target),
          in_place_(pass.fills_target()),
          plan_(pass, tile_for(pass, sum.source_channels)),
          taps_(pass.taps()),
          block_channels_(std::max<std::int64_t>(1, std::min(sum.source_channels, block_slots / plan_.plane))) {
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                step_slots_.push_back(c * plan_.plane + tap);
            }
        }
        gather_weights(weight);
    }

    std::int64_t tiles() const { return plan_.tiles(); }
    static std::int64_t cuts() { return 1; }
    WorkspaceSize size() const {
        const std::int64_t results = plan_.tile.rows * plan_.tile.cols * sum_.target_channels;
        return {block_channels_ * plan_.plane, 0, in_place_ ? 0 : results, results * sum_.source_channels * taps_};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t /*cut*/, const Workspace<T>& workspace) const {
        const ConvPass& pass = plan_.pass;
        const Tile tile(plan_, index);
        const std::int64_t group = part % sum_.groups;
        const T* weights = weights_.data() + group * sum_.source_channels * taps_ * sum_.target_channels;
        T* target = target_ + part * sum_.target_channels * pass.target_plane();
        T* out = in_place_ ? target + tile.row * pass.cols.positions + tile.col : workspace.local.get();
        const std::int64_t out_row = in_place_ ? pass.cols.positions : tile.cols;
        const std::int64_t out_stride = in_place_ ? pass.target_plane() : tile.positions();
        T starts[most_direct_targets] = {};
        for (std::int64_t o = 0; o < sum_.target_channels && bias_ != nullptr; ++o) {
            starts[o] = bias_[group * sum_.target_channels + o];
        }
        // A sum over no channels is the bias: there is always a first block.
        for (std::int64_t first = 0; first == 0 || first < sum_.source_channels; first += block_channels_) {
            const std::int64_t channels = std::min(block_channels_, sum_.source_channels - first);
            const T* planes = source_ + (part * sum_.source_channels + first) * pass.source_plane();
            stage_planes(plan_, tile, planes, channels, workspace.slots.get());
            tap_sums<T>({workspace.slots.get(), plan_.cols.count, step_slots_.data(),
                         weights + first * taps_ * sum_.target_channels, channels * taps_, sum_.target_channels,
                         first == 0 ? starts : nullptr, out, out_stride, out_row, tile.rows, tile.cols});
        }
        for (std::int64_t o = 0; o < sum_.target_channels && !in_place_; ++o) {
            write_positions(pass, tile, out + o * out_stride, target + o * pass.target_plane());
        }
    }

  private:
    static TileShape tile_for(const ConvPass& pass, std::int64_t channels) {
        const std::int64_t fitting = tile_slots / std::max<std::int64_t>(1, channels);
        return choose_tile(pass, std::clamp(fitting, least_positions, most_positions), 1);
    }

    // Per group: (source channel, tap) x target channels.
    void gather_weights(const T* weight) {
        weights_.reserve(static_cast<std::size_t>(sum_.groups * sum_.source_channels * taps_ * sum_.target_channels));
        for (std::int64_t group = 0; group < sum_.groups; ++group) {
            for (std::int64_t c = 0; c < sum_.source_channels; ++c) {
                for (const std::int64_t k : plan_.kernels) {
                    for (std::int64_t o = 0; o < sum_.target_channels; ++o) {
                        weights_.push_back(conjugate_if(
                            sum_.conjugate,
                            weight[group * sum_.group_stride + o * sum_.target_stride + c * sum_.source_stride + k]));
                    }
                }
            }
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* bias_;
    T* target_;
    bool in_place_;
    StagePlan plan_;
    std::int64_t taps_;
    std::int64_t block_channels_;
    std::vector<std::int64_t> step_slots_;  // per (channel of a block, tap)
    std::vector<T> weights_;
};

}  // namespace

template <typename T>
void run_direct_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                    const T* bias, T* target) {
    std::vector<DirectSum<T>> sums;
    for (const ConvPass& pass : passes) {
        sums.emplace_back(pass, sum, source, weight, bias, target);
    }
    run_sums<T>(sum, sums);
}

template <typename T>
void run_direct_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                       bool conjugate_grid, T* weight) {
    const StagePlan plan(pass, choose_tile(pass, most_positions, 1));
    const auto taps = static_cast<std::int64_t>(plan.taps.size());
    parallel_for(geometry.groups, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        const Scratch<T> slots(plan.plane);
        std::vector<T> sums(plan.taps.size());
        for (std::int64_t group = begin; group < end; ++group) {
            std::fill(sums.begin(), sums.end(), T(0));
            for (std::int64_t unit = 0; unit < geometry.batch * plan.tiles(); ++unit) {
                const Tile tile(plan, unit % plan.tiles());
                const std::int64_t part = unit / plan.tiles() * geometry.groups + group;
                stage_planes(plan, tile, image + part * pass.source_plane(), 1, slots.get());
                conjugate(slots.get(), plan.plane);
                const T* gradients = grid + part * pass.target_plane() + tile.row * pass.cols.positions + tile.col;
                tap_dots(slots.get(), plan.cols.count, plan.taps.data(), taps, gradients, pass.cols.positions,
                         tile.rows, tile.cols, sums.data());
            }
            if (conjugate_grid) {
                conjugate(sums.data(), taps);
            }
            for (std::size_t t = 0; t < sums.size(); ++t) {
                weight[group * taps + plan.kernels[t]] = sums[t];
            }
        }
    });
}

#define ORNIK_INSTANTIATE_CONV_DIRECT(T)                                                                          \
    template void run_direct_sum(const std::vector<ConvPass>&, const ConvSum&, const T*, const T*, const T*, T*); \
    template void run_direct_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_DIRECT(float);
ORNIK_INSTANTIATE_CONV_DIRECT(double);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<double>);

}  // namespace ornik::device::cpu
