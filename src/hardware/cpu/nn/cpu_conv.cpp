// cpu_conv.cpp: dtypes and cases of the convolution kernels.
#include "hardware/cpu/nn/cpu_conv.h"

#include <algorithm>
#include <complex>

#include "cpu_conv_kernels.h"
#include "hardware/cpu/copy/cpu_core.h"
#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

namespace {

// The type that the loops compute in: the same parts in the same order.
template <typename T>
struct ComputeType {
    using type = T;
};
template <typename T>
struct ComputeType<complex_scalar::complex<T>> {
    using type = std::complex<T>;
};

template <typename T>
const T* data(const Tensor* t) {
    return t == nullptr ? nullptr : static_cast<const T*>(t->getRawData());
}

template <typename Function>
void with_compute_type(const Tensor* t, const Function& function) {
    dispatch(FloatOrComplexTypes{}, t->Dtype(),
             [&]<typename T>() { function.template operator()<typename ComputeType<T>::type>(); });
}

// Places that no pass computes hold the bias alone.
template <typename T>
void fill_planes(const T* bias, std::int64_t batch, std::int64_t channels, std::int64_t plane, T* target) {
    parallel_for(batch * channels, 1, std::max<std::int64_t>(2, conv_grain / plane),
                 [&](std::int64_t begin, std::int64_t end) {
                     for (std::int64_t i = begin; i < end; ++i) {
                         std::fill_n(target + i * plane, plane, bias == nullptr ? T(0) : bias[i % channels]);
                     }
                 });
}

// Sums of one plane, in lanes whose number does not depend on the machine.
template <typename T>
T plane_sum(const T* values, std::int64_t count) {
    constexpr std::int64_t lanes = 32;
    T sums[lanes] = {};
    std::int64_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        for (std::int64_t lane = 0; lane < lanes; ++lane) {
            sums[lane] += values[i + lane];
        }
    }
    for (; i < count; ++i) {
        sums[i % lanes] += values[i];
    }
    for (std::int64_t half = lanes / 2; half > 0; half /= 2) {
        for (std::int64_t lane = 0; lane < half; ++lane) {
            sums[lane] += sums[lane + half];
        }
    }
    return sums[0];
}

ConvSum grid_sum(const ConvGeometry& geometry, bool conjugate) {
    const std::int64_t kernel = geometry.rows.kernel * geometry.cols.kernel;
    return {geometry.batch,
            geometry.groups,
            geometry.image_channels,
            geometry.grid_channels,
            kernel,
            geometry.image_channels * geometry.grid_channels * kernel,
            geometry.image_first ? kernel : geometry.image_channels * kernel,
            geometry.image_first ? geometry.grid_channels * kernel : kernel,
            conjugate};
}

template <typename T>
ConvEnds<T> ends_of(const ConvTail& tail, std::int64_t dtype) {
    const bool any = tail.activation != RowEnd::none;
    const ConvClip clip = tail.activation == RowEnd::relu    ? ConvClip::relu
                          : tail.activation == RowEnd::relu6 ? ConvClip::relu6
                                                             : ConvClip::none;
    return {data<T>(tail.bias), data<T>(tail.residual), any ? row_end(dtype, tail.activation) : nullptr, clip};
}

}  // namespace

void conv_to_grid(const ConvGeometry& full, const Tensor* image, const Tensor* weight, const Tensor* bias,
                  bool conjugate, Tensor* grid) {
    if (grid->Size() == 0) {
        return;
    }
    const ConvGeometry geometry = with_long_columns(full);
    const ConvSum sum = grid_sum(geometry, conjugate);
    with_compute_type(image, [&]<typename T>() {
        run_conv_sum<T>({grid_pass(geometry)}, sum, data<T>(image), data<T>(weight), nullptr, {data<T>(bias)},
                        static_cast<T*>(grid->getRawData()));
    });
}

struct FixedConvWeight::Laid {
    explicit Laid(std::int64_t size) : memory(size), bytes(size) {}
    Scratch<unsigned char> memory;
    std::int64_t bytes;
};

FixedConvWeight::FixedConvWeight(const ConvGeometry& geometry, const Tensor* weight) {
    const ConvSum sum = grid_sum(geometry, false);
    with_compute_type(weight, [&]<typename T>() {
        const std::int64_t size = laid_out_size<T>(sum);
        takes_blocks_ = block_kernel<T>(sum) != BlockKernel::none;
        if (size == 0 || sum.kernel_elements == 1) {  // Products of large planes take it as it is.
            plain_.reset(weight->clone());
        }
        if (size == 0) {
            return;
        }
        laid_ = std::make_unique<Laid>(size * static_cast<std::int64_t>(sizeof(T)));
        lay_out_weights(sum, data<T>(weight), reinterpret_cast<T*>(laid_->memory.get()));
    });
}

FixedConvWeight::~FixedConvWeight() = default;

void FixedConvWeight::to_grid(const ConvGeometry& full, const Tensor* image, const ConvTail& tail, Tensor* grid) const {
    if (grid->Size() == 0) {
        return;
    }
    const ConvGeometry geometry = with_long_columns(full);
    const ConvSum sum = grid_sum(geometry, false);
    with_compute_type(image, [&]<typename T>() {
        const T* laid_out = laid_ ? reinterpret_cast<const T*>(laid_->memory.get()) : nullptr;
        run_conv_sum<T>({grid_pass(geometry)}, sum, data<T>(image), data<T>(plain_.get()), laid_out,
                        ends_of<T>(tail, image->Dtype()), static_cast<T*>(grid->getRawData()));
    });
}

std::int64_t FixedConvWeight::bytes() const {
    return (laid_ ? laid_->bytes : 0) + (plain_ ? plain_->Size() * dtype_item_size(plain_->Dtype()) : 0);
}

void conv_finish(const ConvTail& tail, Tensor* result) {
    with_compute_type(result, [&]<typename T>() {
        const ConvEnds<T> ends = ends_of<T>(tail, result->Dtype());
        if (ends.finishes()) {
            parallel_for(result->Size(), 1024, conv_grain, [&](std::int64_t begin, std::int64_t end) {
                ends.finish(static_cast<T*>(result->getRawData()), begin, end - begin);
            });
        }
    });
}

void conv_to_image(const ConvGeometry& full, const Tensor* grid, const Tensor* weight, const Tensor* bias,
                   bool conjugate, Tensor* image) {
    if (image->Size() == 0) {
        return;
    }
    const ConvGeometry geometry = with_long_columns(full);
    const std::int64_t kernel = geometry.rows.kernel * geometry.cols.kernel;
    const std::int64_t per_group = geometry.image_channels * geometry.grid_channels * kernel;
    const ConvSum sum{geometry.batch,
                      geometry.groups,
                      geometry.grid_channels,
                      geometry.image_channels,
                      kernel,
                      per_group,
                      geometry.image_first ? geometry.grid_channels * kernel : kernel,
                      geometry.image_first ? kernel : geometry.image_channels * kernel,
                      conjugate};
    const std::vector<ConvPass> passes = image_passes(geometry);
    const std::int64_t plane = geometry.rows.image * geometry.cols.image;
    std::int64_t computed = 0;
    for (const ConvPass& pass : passes) {
        computed += pass.rows.positions * pass.cols.positions;
    }
    with_compute_type(grid, [&]<typename T>() {
        T* target = static_cast<T*>(image->getRawData());
        if (computed < plane) {
            fill_planes(data<T>(bias), geometry.batch, geometry.groups * geometry.image_channels, plane, target);
        }
        run_conv_sum<T>(passes, sum, data<T>(grid), data<T>(weight), nullptr, {data<T>(bias)}, target);
    });
}

void conv_weight(const ConvGeometry& full, const Tensor* image, const Tensor* grid, bool conjugate_grid,
                 Tensor* weight) {
    if (weight->Size() == 0) {
        return;
    }
    if (image->Size() == 0 || grid->Size() == 0) {
        fill(weight, 0.0F);
        return;
    }
    const ConvGeometry geometry = with_long_columns(full);
    with_compute_type(image, [&]<typename T>() {
        run_conv_weight(grid_pass(geometry), geometry, data<T>(image), data<T>(grid), conjugate_grid,
                        static_cast<T*>(weight->getRawData()));
    });
}

void conv_sum_channels(const Tensor* t, std::int64_t batch, std::int64_t channels, std::int64_t positions,
                       Tensor* sums) {
    with_compute_type(t, [&]<typename T>() {
        const std::int64_t work = batch * positions;
        parallel_for(channels, 1, std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, work)),
                     [&](std::int64_t begin, std::int64_t end) {
                         for (std::int64_t c = begin; c < end; ++c) {
                             T sum{};
                             for (std::int64_t n = 0; n < batch; ++n) {
                                 sum += plane_sum(data<T>(t) + (n * channels + c) * positions, positions);
                             }
                             static_cast<T*>(sums->getRawData())[c] = sum;
                         }
                     });
    });
}

}  // namespace ornik::device::cpu
