// cpu_conv_kernels.h: what cpu_conv.cpp hands to the loops: pointers of one element type.
//
// T is float, double or std::complex of either.
#pragma once

#include <complex>
#include <type_traits>

#include "conv_pass.h"

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

/// Computes the positions of all passes; bias may be null.
template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* bias, T* target);

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
