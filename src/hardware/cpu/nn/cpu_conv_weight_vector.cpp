// cpu_conv_weight_vector.cpp: the gradient of a convolution's weight, of real and of complex elements.
#include "conv_group_weight.h"
#include "conv_parts.h"
#include "conv_weight_sum.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
void real_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid, T* weight) {
    if (geometry.image_channels == 1 && geometry.grid_channels == 1) {
        GroupWeight<T>(pass, geometry, image, grid).run(weight);
    } else {
        WeightSum<T>(pass, geometry, image, grid).run(weight);
    }
}

// Two planes of parts for every plane of elements.
template <typename T>
void split_planes(const T* elements, std::int64_t planes, std::int64_t plane, Real<T>* to) {
    parallel_for(planes, 1, std::max<std::int64_t>(2, conv_grain / plane), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t p = begin; p < end; ++p) {
            for (std::int64_t i = 0; i < plane; ++i) {
                to[2 * p * plane + i] = elements[p * plane + i].real();
                to[(2 * p + 1) * plane + i] = elements[p * plane + i].imag();
            }
        }
    });
}

// The sums of all parts with all parts, joined.
template <typename T>
void complex_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                    bool conjugate_grid, T* weight) {
    const std::int64_t image_planes = geometry.batch * geometry.groups * geometry.image_channels;
    const std::int64_t grid_planes = geometry.batch * geometry.groups * geometry.grid_channels;
    const Scratch<Real<T>> images(2 * image_planes * pass.source_plane());
    const Scratch<Real<T>> grids(2 * grid_planes * pass.target_plane());
    split_planes(image, image_planes, pass.source_plane(), images.get());
    split_planes(grid, grid_planes, pass.target_plane(), grids.get());
    ConvGeometry split = geometry;
    split.image_channels *= 2;
    split.grid_channels *= 2;
    split.image_first = false;
    const std::int64_t taps = pass.taps();
    const Scratch<Real<T>> weights(geometry.groups * split.grid_channels * split.image_channels * taps);
    real_weight<Real<T>>(pass, split, images.get(), grids.get(), weights.get());
    const std::int64_t pairs = geometry.grid_channels * geometry.image_channels;
    for (std::int64_t at = 0; at < geometry.groups * pairs * taps; ++at) {
        const std::int64_t pair = at / taps % pairs;
        const std::int64_t o = geometry.image_first ? pair % geometry.grid_channels : pair / geometry.image_channels;
        const std::int64_t c = geometry.image_first ? pair / geometry.grid_channels : pair % geometry.image_channels;
        const std::int64_t row = split.image_channels * taps;
        const Real<T>* real =
            weights.get() + (at / taps / pairs * split.grid_channels + 2 * o) * row + 2 * c * taps + at % taps;
        const Real<T>* imaginary = real + row;
        const Real<T> first = real[0] + imaginary[taps];
        const Real<T> second = imaginary[0] - real[taps];
        weight[at] = T(first, conjugate_grid ? -second : second);
    }
}

}  // namespace

template <typename T>
void run_conv_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                     bool conjugate_grid, T* weight) {
    if constexpr (parts<T> == 1) {
        real_weight(pass, geometry, image, grid, weight);
    } else {
        complex_weight(pass, geometry, image, grid, conjugate_grid, weight);
    }
}

#define ORNIK_INSTANTIATE_CONV_WEIGHT(T) \
    template void run_conv_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_WEIGHT(float);
ORNIK_INSTANTIATE_CONV_WEIGHT(double);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<double>);

}  // namespace ornik::device::cpu
