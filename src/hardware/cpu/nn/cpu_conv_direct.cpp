// cpu_conv_direct.cpp: convolutions with too few channels on one side for a product.
//
// A packed panel serves every target channel; with a handful of them its packing would cost more than it saves.
// Here the sums read the staged slots where they are.
#include <algorithm>

#include "conv_stage.h"
#include "cpu_conv_kernels.h"
#include "hardware/cpu/cpu_taps.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

// Positions of a tile, and slots of one block of its channels.
constexpr std::int64_t least_positions = 256;
constexpr std::int64_t most_positions = 4096;
constexpr std::int64_t most_slots = 1 << 16;

template <typename T>
class DirectSum {
  public:
    DirectSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          weight_(weight),
          bias_(bias),
          target_(target),
          in_place_(pass.fills_target()),
          plan_(pass, tile_for(pass, sum.source_channels)),
          taps_(pass.taps()),
          block_channels_(std::max<std::int64_t>(
              1, std::min(sum.source_channels, most_slots / std::max<std::int64_t>(1, plan_.plane)))) {
        for (std::int64_t c = 0; c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                step_slots_.push_back(c * plan_.plane + tap);
            }
        }
    }

    void run() const {
        const std::int64_t items = sum_.batch * sum_.groups * plan_.tiles();
        const std::int64_t positions = plan_.tile.rows * plan_.tile.cols;
        const std::int64_t work = positions * taps_ * sum_.source_channels * sum_.target_channels;
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, work));
        parallel_for(items, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> slots(block_channels_ * plan_.plane);
            const Scratch<T> local(in_place_ ? 0 : positions * sum_.target_channels);
            const Scratch<T> weights(sum_.source_channels * taps_ * sum_.target_channels);
            std::int64_t group_of_weights = -1;
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t group = item / plan_.tiles() % sum_.groups;
                if (group != group_of_weights) {
                    gather_weights(group, weights.get());
                    group_of_weights = group;
                }
                run_tile(item, slots.get(), weights.get(), local.get());
            }
        });
    }

  private:
    static TileShape tile_for(const ConvPass& pass, std::int64_t channels) {
        const std::int64_t fitting = most_slots / std::max<std::int64_t>(1, channels);
        return choose_tile(pass, std::clamp(fitting, least_positions, most_positions), 1);
    }

    // (source channel, tap) x target channels.
    void gather_weights(std::int64_t group, T* weights) const {
        for (std::int64_t c = 0; c < sum_.source_channels; ++c) {
            for (const std::int64_t k : plan_.kernels) {
                for (std::int64_t o = 0; o < sum_.target_channels; ++o) {
                    *weights++ = conjugate_if(
                        sum_.conjugate,
                        weight_[group * sum_.group_stride + o * sum_.target_stride + c * sum_.source_stride + k]);
                }
            }
        }
    }

    void run_tile(std::int64_t item, T* slots, const T* weights, T* local) const {
        const ConvPass& pass = plan_.pass;
        const Tile tile(plan_, item % plan_.tiles());
        const std::int64_t part = item / plan_.tiles();  // sample and group
        T* target = target_ + part * sum_.target_channels * pass.target_plane();
        T* out = in_place_ ? target + tile.row * pass.cols.positions + tile.col : local;
        const std::int64_t out_row = in_place_ ? pass.cols.positions : tile.cols;
        const std::int64_t out_stride = in_place_ ? pass.target_plane() : tile.positions();
        T starts[most_direct_targets] = {};
        for (std::int64_t o = 0; o < sum_.target_channels && bias_ != nullptr; ++o) {
            starts[o] = bias_[part % sum_.groups * sum_.target_channels + o];
        }
        // A sum over no channels is the bias: there is always a first block.
        for (std::int64_t first = 0; first == 0 || first < sum_.source_channels; first += block_channels_) {
            const std::int64_t channels = std::min(block_channels_, sum_.source_channels - first);
            const T* planes = source_ + (part * sum_.source_channels + first) * pass.source_plane();
            stage_planes(plan_, tile, planes, channels, slots);
            for (std::int64_t r = 0; r < tile.rows; ++r) {
                tap_sums<T>({slots + r * plan_.cols.count, step_slots_.data(),
                             weights + first * taps_ * sum_.target_channels, channels * taps_, sum_.target_channels,
                             first == 0 ? starts : nullptr, out + r * out_row, out_stride, tile.cols});
            }
        }
        for (std::int64_t o = 0; o < sum_.target_channels && !in_place_; ++o) {
            write_positions(pass, tile, local + o * out_stride, target + o * pass.target_plane());
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* weight_;
    const T* bias_;
    T* target_;
    bool in_place_;
    StagePlan plan_;
    std::int64_t taps_;
    std::int64_t block_channels_;
    std::vector<std::int64_t> step_slots_;  // per (channel of a block, tap)
};

}  // namespace

template <typename T>
void run_direct_sum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias,
                    T* target) {
    DirectSum<T>(pass, sum, source, weight, bias, target).run();
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

#define ORNIK_INSTANTIATE_CONV_DIRECT(T)                                                             \
    template void run_direct_sum(const ConvPass&, const ConvSum&, const T*, const T*, const T*, T*); \
    template void run_direct_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_DIRECT(float);
ORNIK_INSTANTIATE_CONV_DIRECT(double);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<double>);

}  // namespace ornik::device::cpu
