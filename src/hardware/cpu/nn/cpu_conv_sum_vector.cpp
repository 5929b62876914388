// cpu_conv_sum_vector.cpp: sums over taps and source channels. No column matrix exists: what is staged of the source
// serves all the taps that reach it.
#include "conv_depth_sum.h"
#include "conv_lane_sum.h"
#include "conv_row_sum.h"
#include "hardware/cpu/product/cpu_product.h"

namespace ornik::device::cpu {

namespace {

template <typename Sum, typename T>
void run_passes(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const Real<T>* weight,
                const Real<T>* laid_out, const ConvEnds<T>& ends, T* target) {
    std::vector<Sum> sums;
    sums.reserve(passes.size());
    for (const ConvPass& pass : passes) {
        sums.emplace_back(pass, sum, source, weight, laid_out, ends, target);
    }
    run_sums<T>(sums);
}

// The weights' parts as real numbers (group, target, part, source, kernel).
template <typename T>
void split_weights(const ConvSum& sum, const T* weight, Real<T>* to) {
    for (std::int64_t row = 0; row < sum.groups * sum.target_channels; ++row) {
        const T* first =
            weight + row / sum.target_channels * sum.group_stride + row % sum.target_channels * sum.target_stride;
        for (std::int64_t part = 0; part < parts<T>; ++part) {
            for (std::int64_t c = 0; c < sum.source_channels; ++c) {
                for (std::int64_t k = 0; k < sum.kernel_elements; ++k) {
                    const T element = conjugate_if(sum.conjugate, first[c * sum.source_stride + k]);
                    *to++ = as_real(&element)[part];
                }
            }
        }
    }
}

// Planes that are so large that products read them where they are. Their chains are those of conv_order.h where both
// have blocks of one depth.
bool is_product(const std::vector<ConvPass>& passes, const ConvSum& sum) {
    constexpr std::int64_t least_positions = 512;
    return passes.size() == 1 && passes[0].is_pointwise() && passes[0].fills_target() && sum.kernel_elements == 1 &&
           passes[0].source_plane() >= least_positions && sum.source_stride == 1 && sum.source_channels > 1 &&
           sum.target_stride == sum.source_channels && sum.target_channels > 1 &&
           conv_block_channels(2 * product_block, 1) == product_block;
}

template <typename T>
void run_products(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const ConvEnds<T>& ends,
                  T* target) {
    const std::int64_t plane = pass.source_plane();
    const auto multiply = [&](std::int64_t part, std::int64_t begin, std::int64_t end) {
        const std::int64_t group = part % sum.groups;
        const std::int64_t first = part * sum.target_channels * plane + begin;
        ProductPlan plan{};
        plan.batch = 1;
        plan.rows = sum.target_channels;
        plan.cols = end - begin;
        plan.depth = sum.source_channels;
        plan.place_b.row_step = plane;
        plan.place_c.row_step = plane;
        ProductEnds after;
        after.row_bias = ends.bias == nullptr ? nullptr : ends.bias + group * sum.target_channels;
        after.residual = ends.residual == nullptr ? nullptr : ends.residual + first;
        after.residual_row = plane;
        after.row = ends.row;
        product(std::is_same_v<T, float> ? dtype::float32 : dtype::float64, plan, weight + group * sum.group_stride,
                source + part * sum.source_channels * plane + begin, target + first, &after);
    };
    const std::int64_t parts = sum.batch * sum.groups;
    if (parts < 2 * usable_processors()) {
        for (std::int64_t part = 0; part < parts; ++part) {
            multiply(part, 0, plane);
        }
        return;
    }
    // All parts at once, a worker taking pieces of their rows.
    constexpr std::int64_t unit = 64;
    const std::int64_t units = (plane + unit - 1) / unit;
    const std::int64_t work = sum.target_channels * sum.source_channels * unit;
    parallel_for(parts * units, 1, std::max<std::int64_t>(2, conv_grain / work),
                 [&](std::int64_t at, std::int64_t end) {
                     while (at < end) {
                         const std::int64_t part = at / units;
                         const std::int64_t last = std::min(end, (part + 1) * units);
                         multiply(part, (at - part * units) * unit, std::min(plane, (last - part * units) * unit));
                         at = last;
                     }
                 });
}

}  // namespace

template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* laid_out, const ConvEnds<T>& ends, T* target) {
    if constexpr (parts<T> == 1) {
        if (is_product(passes, sum)) {
            run_products(passes[0], sum, source, weight, ends, target);
        } else if (LaneSum<T>::suits(sum)) {
            run_passes<LaneSum<T>>(passes, sum, source, weight, laid_out, ends, target);
        } else if (suits_depth_lanes<T>(passes, sum)) {
            run_depth_lanes(passes, sum, source, weight, ends, target);
        } else if (DepthSum<T>::suits(passes, sum)) {
            DepthSum<T>(passes[0], sum, source, weight, ends, target).run();
        } else {
            run_passes<RowSum<T>>(passes, sum, source, weight, nullptr, ends, target);
        }
    } else {
        const std::int64_t row = sum.source_channels * sum.kernel_elements;
        ConvSum split = sum;
        split.target_channels = sum.target_channels * parts<T>;
        split.group_stride = split.target_channels * row;
        split.target_stride = row;
        split.source_stride = sum.kernel_elements;
        const Scratch<Real<T>> weights(sum.groups * split.group_stride);
        split_weights(sum, weight, weights.get());
        run_passes<RowSum<T>>(passes, split, source, weights.get(), nullptr, ends, target);
    }
}

template <typename T>
std::int64_t laid_out_size(const ConvSum& sum) {
    if constexpr (parts<T> == 1) {
        return LaneSum<T>::suits(sum) ? lane_weights<T>(sum, nullptr).size() : 0;
    }
    return 0;
}

template <typename T>
void lay_out_weights(const ConvSum& sum, const T* weight, T* to) {
    if constexpr (parts<T> == 1) {
        lane_weights(sum, weight).write(to);
    }
}

#define ORNIK_INSTANTIATE_CONV_SUM(T)                                                                      \
    template void run_conv_sum(const std::vector<ConvPass>&, const ConvSum&, const T*, const T*, const T*, \
                               const ConvEnds<T>&, T*);                                                    \
    template std::int64_t laid_out_size<T>(const ConvSum&);                                                \
    template void lay_out_weights(const ConvSum&, const T*, T*)

ORNIK_INSTANTIATE_CONV_SUM(float);
ORNIK_INSTANTIATE_CONV_SUM(double);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<float>);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<double>);

}  // namespace ornik::device::cpu
