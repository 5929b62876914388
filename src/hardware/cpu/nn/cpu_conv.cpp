// cpu_conv.cpp: dtypes and cases of the convolution kernels.
#include "hardware/cpu/nn/cpu_conv.h"

#include <algorithm>
#include <complex>

#include "conv_order.h"
#include "cpu_conv_kernels.h"
#include "hardware/cpu/copy/cpu_core.h"
#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_blocks.h"
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
ConvEnds<T> ends_of(const T* bias, const T* residual, RowEnd activation, std::int64_t dtype) {
    const bool any = activation != RowEnd::none;
    const ConvClip clip = activation == RowEnd::relu    ? ConvClip::relu
                          : activation == RowEnd::relu6 ? ConvClip::relu6
                                                        : ConvClip::none;
    return {bias, residual, any ? row_end(dtype, activation) : nullptr, clip};
}
template <typename T>
ConvEnds<T> ends_of(const ConvTail& tail, std::int64_t dtype) {
    return ends_of(data<T>(tail.bias), data<T>(tail.residual), tail.activation, dtype);
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
    template <typename T>
    T* as() const {
        return reinterpret_cast<T*>(memory.get());
    }
    std::int64_t bytes;
};

struct FixedConvWeight::ForBlocks {
    std::int64_t dtype;
    BlockKernel kernel;
    std::unique_ptr<Laid> depth;  // weights of channels apart
    std::unique_ptr<Laid> bias;   // in whole vectors
};

FixedConvWeight::FixedConvWeight(const ConvGeometry& geometry, const Tensor* weight, const Tensor* bias) {
    const ConvSum sum = grid_sum(geometry, false);
    with_compute_type(weight, [&]<typename T>() {
        const std::int64_t size = laid_out_size<T>(sum);
        if constexpr (std::is_floating_point_v<T>) {
            lay_out_for_blocks<T>(sum, weight, bias);
        }
        if (size == 0 || sum.kernel_elements == 1) {  // Products of large planes take it as it is.
            plain_.reset(weight->clone());
        }
        if (size == 0) {
            return;
        }
        laid_ = std::make_unique<Laid>(size * static_cast<std::int64_t>(sizeof(T)));
        finite_ = lay_out_weights(sum, data<T>(weight), laid_->as<T>());
    });
}

FixedConvWeight::~FixedConvWeight() = default;

void FixedConvWeight::to_grid(const ConvGeometry& full, const Tensor* image, const ConvTail& tail, Tensor* grid) const {
    if (grid->Size() == 0) {
        return;
    }
    const ConvGeometry geometry = with_long_columns(full);
    ConvSum sum = grid_sum(geometry, false);
    sum.finite = finite_;
    with_compute_type(image, [&]<typename T>() {
        const T* laid_out = laid_ ? laid_->as<const T>() : nullptr;
        run_conv_sum<T>({grid_pass(geometry)}, sum, data<T>(image), data<T>(plain_.get()), laid_out,
                        ends_of<T>(tail, image->Dtype()), static_cast<T*>(grid->getRawData()));
    });
}

template <typename T>
void FixedConvWeight::lay_out_for_blocks(const ConvSum& sum, const Tensor* weight, const Tensor* bias) {
    constexpr auto item = static_cast<std::int64_t>(sizeof(T));
    const BlockKernel kernel = block_kernel<T>(sum);
    if (kernel == BlockKernel::none) {
        return;
    }
    for_blocks_ = std::make_unique<ForBlocks>(ForBlocks{weight->Dtype(), kernel, nullptr, nullptr});
    if (kernel == BlockKernel::each) {
        for_blocks_->depth = std::make_unique<Laid>(depth_weights_size<T>(sum) * item);
        lay_out_depth_weights(sum, data<T>(weight), for_blocks_->depth->as<T>());
    }
    if (bias != nullptr) {
        const std::int64_t count = round_up(bias->Size(), block_lanes(weight->Dtype()));
        for_blocks_->bias = std::make_unique<Laid>(count * item);
        std::fill_n(for_blocks_->bias->as<T>(), count, T(0));
        std::copy_n(data<T>(bias), bias->Size(), for_blocks_->bias->as<T>());
    }
}

bool FixedConvWeight::takes_blocks() const { return for_blocks_ != nullptr; }
bool FixedConvWeight::keeps_channels_apart() const { return for_blocks_ && for_blocks_->kernel == BlockKernel::each; }

void FixedConvWeight::to_blocks(const ConvGeometry& full, const void* image, bool image_in_planes, const void* residual,
                                RowEnd activation, void* grid) const {
    const ConvGeometry geometry = with_long_columns(full);
    ConvSum sum = grid_sum(geometry, false);
    sum.finite = finite_;
    dispatch(FloatTypes{}, for_blocks_->dtype, [&]<typename T>() {
        const Laid& weights = keeps_channels_apart() ? *for_blocks_->depth : *laid_;
        const T* bias = for_blocks_->bias ? for_blocks_->bias->as<const T>() : nullptr;
        run_block_sum(grid_pass(geometry), sum, static_cast<const T*>(image), image_in_planes, weights.as<const T>(),
                      ends_of(bias, static_cast<const T*>(residual), activation, for_blocks_->dtype),
                      static_cast<T*>(grid));
    });
}

std::int64_t FixedConvWeight::bytes() const {
    const auto of = [](const std::unique_ptr<Laid>& laid) { return laid ? laid->bytes : 0; };
    return of(laid_) + (plain_ ? plain_->Size() * dtype_item_size(plain_->Dtype()) : 0) +
           (for_blocks_ ? of(for_blocks_->depth) + of(for_blocks_->bias) : 0);
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
