// cpu_conv_sum_vector.cpp: sums over taps and source channels. No column matrix exists: what is staged of the source
// serves all the taps that reach it.
#include <numeric>

#include "conv_lane_sum.h"
#include "conv_row_sum.h"

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

// The taps of a grid pass.
std::vector<std::int64_t> all_kernels(const ConvSum& sum) {
    std::vector<std::int64_t> kernels(static_cast<std::size_t>(sum.kernel_elements));
    std::iota(kernels.begin(), kernels.end(), 0);
    return kernels;
}

}  // namespace

template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* laid_out, const ConvEnds<T>& ends, T* target) {
    if constexpr (parts<T> == 1) {
        if (LaneSum<T>::suits(sum)) {
            run_passes<LaneSum<T>>(passes, sum, source, weight, laid_out, ends, target);
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
        return LaneSum<T>::suits(sum) ? LaneSum<T>::weights_of(sum, all_kernels(sum), nullptr).size() : 0;
    }
    return 0;
}

template <typename T>
void lay_out_weights(const ConvSum& sum, const T* weight, T* to) {
    if constexpr (parts<T> == 1) {
        LaneSum<T>::weights_of(sum, all_kernels(sum), weight).write(to);
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
