// conv_weight_sets.h: the weights of a convolution, rearranged once per call. Internal.
#pragma once

#include <algorithm>
#include <vector>

#include "conv_parts.h"
#include "conv_stage.h"
#include "hardware/cpu/product/cpu_taps.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

/// For every group of the convolution and block of source channels: the real targets (those of complex elements are
/// two) in sets of `together`, what a step (channel of the block, tap) of a set needs side by side. Sets are as
/// tap_sums() takes targets, or whole packets.
template <typename T>
class WeightSets {
  public:
    /// `kernels` are the positions of the taps in the kernel.
    WeightSets(const ConvSum& sum, const std::vector<std::int64_t>& kernels, std::int64_t block_channels,
               std::int64_t together, const T* weight)
        : together_(together),
          block_channels_(block_channels),
          blocks_((sum.source_channels + block_channels - 1) / block_channels),
          set_size_(together * block_channels * static_cast<std::int64_t>(kernels.size())),
          block_size_((sum.target_channels * parts<T> + together - 1) / together * set_size_),
          sets_(sum.groups * blocks_ * block_size_) {
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, block_size_));
        parallel_for(sum.groups * blocks_, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t first = item % blocks_ * block_channels_;
                gather(sum, kernels, weight + item / blocks_ * sum.group_stride + first * sum.source_stride,
                       std::min(block_channels, sum.source_channels - first), sets_.get() + item * block_size_);
            }
        });
    }

    /// The block that starts with source channel `first`.
    const Real<T>* block(std::int64_t group, std::int64_t first) const {
        return sets_.get() + (group * blocks_ + first / block_channels_) * block_size_;
    }
    /// Where a real target's first weight is in a block; the others follow `together` apart.
    std::int64_t target(std::int64_t row) const { return row / together_ * set_size_ + row % together_; }

  private:
    void gather(const ConvSum& sum, const std::vector<std::int64_t>& kernels, const T* weight, std::int64_t channels,
                Real<T>* block) const {
        std::int64_t o = 0;
        if constexpr (parts<T> == 1) {
            const auto taps = static_cast<std::int64_t>(kernels.size());
            const bool in_order = std::is_sorted(kernels.begin(), kernels.end()) && kernels.back() == taps - 1;
            for (; in_order && sum.source_stride == taps && o + together_ <= sum.target_channels; o += together_) {
                turn(weight + o * sum.target_stride, sum.target_stride, channels * taps, block + target(o));
            }
        }
        for (; o < sum.target_channels; ++o) {
            for (std::int64_t part = 0; part < parts<T>; ++part) {
                Real<T>* to = block + target(o * parts<T> + part);
                for (std::int64_t c = 0; c < channels; ++c) {
                    const T* kernel = weight + o * sum.target_stride + c * sum.source_stride;
                    for (const std::int64_t k : kernels) {
                        const T element = conjugate_if(sum.conjugate, kernel[k]);
                        *to = as_real(&element)[part];
                        to += together_;
                    }
                }
            }
        }
    }

    // A set whose weights lie in the order of its steps.
    void turn(const T* weight, std::int64_t target_stride, std::int64_t steps, T* set) const {
        constexpr auto item = static_cast<std::int64_t>(sizeof(T));
        if (together_ * item % piece_bytes == 0) {
            transpose_tile(set, together_, reinterpret_cast<const char*>(weight), target_stride * item, item, together_,
                           steps);
            return;
        }
        for (std::int64_t k = 0; k < steps; ++k) {
            for (std::int64_t o = 0; o < tap_targets; ++o) {
                set[k * tap_targets + o] = weight[o * target_stride + k];
            }
        }
    }

    std::int64_t together_;
    std::int64_t block_channels_;
    std::int64_t blocks_;
    std::int64_t set_size_;
    std::int64_t block_size_;
    Scratch<Real<T>> sets_;
};

}  // namespace ornik::device::cpu
