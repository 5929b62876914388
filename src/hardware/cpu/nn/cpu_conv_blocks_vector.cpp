// cpu_conv_blocks_vector.cpp: convolutions of blocked images, and of planes whose channels stay apart as such.
#include "conv_block_depth.h"
#include "conv_block_sum.h"
#include "conv_depth_lanes.h"

namespace ornik::device::cpu {

namespace {

template <typename T, bool FromPlanes>
void sum_all(const ConvPass& pass, const ConvSum& sum, const T* source, const T* laid_out, const ConvEnds<T>& ends,
             T* target) {
    const LaneWeights<T> layout = lane_weights<T>(sum, nullptr);
    std::vector<BlockSum<T, FromPlanes>> sums;
    sums.emplace_back(pass, sum, source, layout, laid_out, ends, target);
    run_sums<T>(sums);
}

}  // namespace

template <typename T>
BlockKernel block_kernel(const ConvSum& sum) {
    if constexpr (std::is_floating_point_v<T>) {
        const std::int64_t channels = sum.groups * sum.target_channels;
        if (4 * channels >= 3 * round_up(channels, lane_width<T>)) {
            if (sum.groups == 1) {
                return BlockKernel::all;
            }
            if (sum.source_channels == 1 && sum.target_channels == 1) {
                return BlockKernel::each;
            }
        }
    }
    return BlockKernel::none;
}

template <typename T>
void run_block_sum(const ConvPass& pass, const ConvSum& sum, const T* source, bool from_planes, const T* laid_out,
                   const ConvEnds<T>& ends, T* target) {
    if (block_kernel<T>(sum) == BlockKernel::each) {
        BlockDepth<T>(pass, sum.batch, lane_groups<T>(sum.groups), source, laid_out, ends, target).run();
    } else if (from_planes) {
        sum_all<T, true>(pass, sum, source, laid_out, ends, target);
    } else {
        sum_all<T, false>(pass, sum, source, laid_out, ends, target);
    }
}

template <typename T>
std::int64_t depth_weights_size(const ConvSum& sum) {
    return round_up(sum.groups, lane_width<T>) * sum.kernel_elements;
}

template <typename T>
void lay_out_depth_weights(const ConvSum& sum, const T* weight, T* to) {
    constexpr std::int64_t width = lane_width<T>;
    std::fill_n(to, depth_weights_size<T>(sum), T(0));
    for (std::int64_t c = 0; c < sum.groups; ++c) {
        for (std::int64_t k = 0; k < sum.kernel_elements; ++k) {
            to[(c / width * sum.kernel_elements + k) * width + c % width] = weight[c * sum.group_stride + k];
        }
    }
}

template <typename T>
bool suits_depth_lanes(const std::vector<ConvPass>& passes, const ConvSum& sum) {
    return DepthLanes<T>::suits(passes, sum);
}

template <typename T>
void run_depth_lanes(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                     const ConvEnds<T>& ends, T* target) {
    DepthLanes<T>(passes, sum, source, weight, ends, target).run();
}

template BlockKernel block_kernel<std::complex<float>>(const ConvSum&);
template BlockKernel block_kernel<std::complex<double>>(const ConvSum&);

#define ORNIK_INSTANTIATE_BLOCKS(T)                                                                                 \
    template BlockKernel block_kernel<T>(const ConvSum&);                                                           \
    template void run_block_sum(const ConvPass&, const ConvSum&, const T*, bool, const T*, const ConvEnds<T>&, T*); \
    template std::int64_t depth_weights_size<T>(const ConvSum&);                                                    \
    template bool suits_depth_lanes<T>(const std::vector<ConvPass>&, const ConvSum&);                               \
    template void run_depth_lanes(const std::vector<ConvPass>&, const ConvSum&, const T*, const T*,                 \
                                  const ConvEnds<T>&, T*);                                                          \
    template void lay_out_depth_weights(const ConvSum&, const T*, T*)

ORNIK_INSTANTIATE_BLOCKS(float);
ORNIK_INSTANTIATE_BLOCKS(double);

}  // namespace ornik::device::cpu
