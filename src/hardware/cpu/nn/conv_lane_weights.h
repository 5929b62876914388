// conv_lane_weights.h: the weights of a convolution with target channels side by side. Internal; for *_vector.cpp
// alone.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <numeric>
#include <vector>

#include "conv_lane_kernel.h"
#include "conv_order.h"
#include "conv_transpose.h"
#include "cpu_conv_kernels.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {
namespace {

/// For every group, block of source channels and panel of target channels: what a step (channel of the block, tap)
/// needs, `panel` channels side by side. The last panel of a group may be of fewer vectors; lanes without a channel
/// hold zeros.
template <typename T>
class LaneWeights {
  public:
    /// `kernels` are the positions of the taps in the kernel of `kernel_elements`.
    LaneWeights(const ConvSum& sum, std::vector<std::int64_t> kernels, std::int64_t kernel_elements,
                std::int64_t block_channels, std::int64_t vector, std::int64_t panel, const T* weight)
        : sum_(sum),
          kernels_(std::move(kernels)),
          whole_kernel_(std::is_sorted(kernels_.begin(), kernels_.end()) &&
                        static_cast<std::int64_t>(kernels_.size()) == kernel_elements),
          block_channels_(block_channels),
          blocks_((sum.source_channels + block_channels - 1) / block_channels),
          panel_(panel),
          lanes_((sum.target_channels + vector - 1) / vector * vector),
          weight_(weight) {}

    std::int64_t blocks() const { return blocks_; }
    std::int64_t channels_of(std::int64_t block) const {
        return std::min(block_channels_, sum_.source_channels - block * block_channels_);
    }
    std::int64_t steps_of(std::int64_t block) const {
        return channels_of(block) * static_cast<std::int64_t>(kernels_.size());
    }
    /// Lanes of the panel that starts with target channel `target`.
    std::int64_t width_at(std::int64_t target) const { return std::min(panel_, lanes_ - target); }

    /// All groups together.
    std::int64_t size() const { return sum_.groups * group_size(); }
    /// Of a panel's block.
    std::int64_t largest_panel() const { return std::min(panel_, lanes_) * steps_of(0); }
    /// Where a panel's block lies among them all.
    std::int64_t place(std::int64_t group, std::int64_t block, std::int64_t target) const {
        return group * group_size() + lanes_ * block * steps_of(0) + target * steps_of(block);
    }

    /// The place of what is read after a panel's block: the next panel of the targets from `first` to `end`, the next
    /// block of the first one, or the panel that the next targets start with. Without any, its own.
    std::int64_t place_after(std::int64_t group, std::int64_t block, std::int64_t target, std::int64_t first,
                             std::int64_t end) const {
        if (target + panel_ < end) {
            return place(group, block, target + panel_);
        }
        if (block + 1 < blocks_) {
            return place(group, block + 1, first);
        }
        return end < sum_.target_channels ? place(group, 0, end) : place(group, block, target);
    }

    /// True when a target's weights lie in the order of the steps where they are.
    bool in_order() const { return whole_kernel_ && sum_.source_stride == static_cast<std::int64_t>(kernels_.size()); }

    /// True when none of them is infinite or NaN.
    bool write(T* to) const {
        std::atomic<bool> finite = true;
        const std::int64_t panels = (sum_.target_channels + panel_ - 1) / panel_;
        const std::int64_t items = sum_.groups * blocks_ * panels;
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, largest_panel()));
        parallel_for(items, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t group = item / panels / blocks_;
                const std::int64_t block = item / panels % blocks_;
                const std::int64_t target = item % panels * panel_;
                if (!write_panel(group, block, target, to + place(group, block, target))) {
                    finite = false;
                }
            }
        });
        return finite;
    }

    bool write_panel(std::int64_t group, std::int64_t block, std::int64_t target, T* to) const {
        turn_panel(group, block, target, to);
        return are_finite(to, width_at(target) * steps_of(block));
    }

  private:
    static constexpr std::int64_t channels_ahead = 4;  // whose kernels are brought near
    static constexpr std::int64_t line = 64 / static_cast<std::int64_t>(sizeof(T));

    void turn_panel(std::int64_t group, std::int64_t block, std::int64_t target, T* to) const {
        const std::int64_t width = width_at(target);
        const std::int64_t channels = channels_of(block);
        const std::int64_t rows = std::min(width, sum_.target_channels - target);
        const auto taps = static_cast<std::int64_t>(kernels_.size());
        const T* from = weight_ + group * sum_.group_stride + target * sum_.target_stride +
                        block * block_channels_ * sum_.source_stride;
        std::vector<std::int64_t> starts;
        for (std::int64_t o = 0; o < rows; ++o) {
            starts.push_back(o * sum_.target_stride);
        }
        const auto turn = [&](const T* first, std::int64_t steps, T* out) {
            if (width % vec::lanes<T> == 0) {
                turn_rows(first, starts.data(), rows, width, steps, out, width);
                return;
            }
            for (std::int64_t k = 0; k < steps; ++k) {
                for (std::int64_t o = 0; o < rows; ++o) {
                    out[k * width + o] = first[o * sum_.target_stride + k];
                }
            }
        };
        if (in_order()) {
            turn(from, channels * taps, to);
            return;
        }
        // Kernels of neighbouring targets lie side by side, or each by itself.
        const std::int64_t near = sum_.target_stride == sum_.kernel_elements ? line : sum_.target_stride;
        for (std::int64_t c = 0; c < channels; ++c, to += taps * width) {
            const T* kernel = from + c * sum_.source_stride;
            for (std::int64_t at = 0; at < rows * sum_.target_stride; at += near) {
                vec::prefetch(kernel + channels_ahead * sum_.source_stride + at);
            }
            if (whole_kernel_ && taps > 1) {
                turn(kernel, taps, to);
                continue;
            }
            for (std::int64_t t = 0; t < taps; ++t) {
                const T* element = kernel + kernels_[static_cast<std::size_t>(t)];
                for (std::int64_t o = 0; o < rows; ++o) {
                    to[t * width + o] = element[o * sum_.target_stride];
                }
                std::fill(to + t * width + rows, to + (t + 1) * width, T(0));
            }
        }
    }

    std::int64_t group_size() const {
        return lanes_ * sum_.source_channels * static_cast<std::int64_t>(kernels_.size());
    }

    const ConvSum& sum_;
    std::vector<std::int64_t> kernels_;
    bool whole_kernel_;
    std::int64_t block_channels_;
    std::int64_t blocks_;
    std::int64_t panel_;
    std::int64_t lanes_;
    const T* weight_;
};

/// Of the taps that have these positions in the kernel, for lane chains.
template <typename T>
LaneWeights<T> lane_weights(const ConvSum& sum, std::vector<std::int64_t> kernels, const T* weight) {
    return {sum,
            std::move(kernels),
            sum.kernel_elements,
            conv_block_channels(sum.source_channels, sum.kernel_elements),
            lane_width<T>,
            lane_vectors * lane_width<T>,
            weight};
}

/// Of all the kernel, as a grid pass has its taps.
template <typename T>
LaneWeights<T> lane_weights(const ConvSum& sum, const T* weight) {
    std::vector<std::int64_t> kernels(static_cast<std::size_t>(sum.kernel_elements));
    std::iota(kernels.begin(), kernels.end(), 0);
    return lane_weights(sum, std::move(kernels), weight);
}

}  // namespace
}  // namespace ornik::device::cpu
