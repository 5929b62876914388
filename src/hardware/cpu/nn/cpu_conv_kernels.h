// cpu_conv_kernels.h: what cpu_conv.cpp hands to the loops: pointers of one element type.
//
// T is float, double or std::complex of either.
#pragma once

#include <complex>
#include <type_traits>

#include "conv_pass.h"
#include "hardware/cpu/elements/cpu_row_end.h"

namespace ornik::device::cpu {

/// Channels of one group, and where a group's weight elements lie: (source channel, target channel) at
/// group * group_stride + target * target_stride + source * source_stride, kernel positions side by side.
struct ConvSum {
    std::int64_t batch;
    std::int64_t groups;
    std::int64_t source_channels;
    std::int64_t target_channels;
    std::int64_t kernel_elements;
    std::int64_t group_stride;
    std::int64_t target_stride;
    std::int64_t source_stride;
    bool conjugate;
};

/// Activations that kernels apply in registers.
enum class ConvClip { none, relu, relu6 };

/// What follows the sums of a target: bias, one per channel, is added, then a residual of the target's places, then a
/// function is applied to rows. Each rounds as it does alone. Null members are left out.
template <typename T>
struct ConvEnds {
    const T* bias = nullptr;
    const T* residual = nullptr;
    RowFunction row = nullptr;
    ConvClip clip = ConvClip::none;  // what row does, if it is one of these

    /// What follows the bias, for `count` neighbouring elements of the target from `offset` on.
    void finish(T* target, std::int64_t offset, std::int64_t count) const {
        T* const to = target + offset;
        if (residual != nullptr) {
            const T* from = residual + offset;
            for (std::int64_t i = 0; i < count; ++i) {
                to[i] = to[i] + from[i];
            }
        }
        if (row != nullptr) {
            row(to, count);
        }
    }
    bool finishes() const { return residual != nullptr || row != nullptr; }
};

/// Computes the positions of all passes. `laid_out` is what lay_out_weights() wrote, or null. The ends but for the bias
/// are for passes that fill their target.
template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* laid_out, const ConvEnds<T>& ends, T* target);

/// Sums over taps alone with channels side by side: whether passes are for them, and all of them.
template <typename T>
bool suits_depth_lanes(const std::vector<ConvPass>& passes, const ConvSum& sum);
template <typename T>
void run_depth_lanes(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                     const ConvEnds<T>& ends, T* target);

/// The elements that the weights of a grid pass take as its kernel reads them; 0 where it reads them as they are.
template <typename T>
std::int64_t laid_out_size(const ConvSum& sum);
template <typename T>
void lay_out_weights(const ConvSum& sum, const T* weight, T* to);

/// What sums blocked images: of all channels, or of each alone.
enum class BlockKernel { none, all, each };
template <typename T>
BlockKernel block_kernel(const ConvSum& sum);

/// One pass of a grid. The target and its residual lie in blocks, the source does unless it lies in planes; a bias
/// fills whole vectors. `laid_out` are the weights of lay_out_weights(), for channels alone those of
/// lay_out_depth_weights(), whose source is in blocks.
template <typename T>
void run_block_sum(const ConvPass& pass, const ConvSum& sum, const T* source, bool from_planes, const T* laid_out,
                   const ConvEnds<T>& ends, T* target);
template <typename T>
std::int64_t depth_weights_size(const ConvSum& sum);
template <typename T>
void lay_out_depth_weights(const ConvSum& sum, const T* weight, T* to);

/// weight = sum over samples and positions of grid * conj(image); `pass` is the geometry's grid pass.
template <typename T>
void run_conv_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                     bool conjugate_grid, T* weight);

template <typename T>
T conjugate_if(bool conjugate, T value) {
    if constexpr (std::is_floating_point_v<T>) {
        return value;
    } else {
        return conjugate ? std::conj(value) : value;
    }
}

/// Multiplications that are worth a second thread.
inline constexpr std::int64_t conv_grain = 1 << 16;

}  // namespace ornik::device::cpu
