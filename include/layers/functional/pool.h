// pool.h: pooling and its gradients as functions, which keep nothing between calls.
//
// Inputs (N, C, L) or (N, C, H, W), any strides; a batch of no samples gives empty results. The gradients need the
// input's shape, not the input.
#pragma once

#include <array>
#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

/// Entries are for rows and columns; pooling along one axis looks at the first alone. Output extents are
/// (in + 2 padding - kernel) / stride + 1, rounded down; the padding is less than the kernel.
struct PoolParameters {
    std::array<std::int64_t, 2> kernel{1, 1};
    std::array<std::int64_t, 2> stride{1, 1};
    std::array<std::int64_t, 2> padding{0, 0};
};

struct MaxPool {
    std::unique_ptr<Tensor> output;
    /// int32: where in its plane each maximum stands.
    std::unique_ptr<Tensor> positions;
};

/// The maximum of each window, padding apart. float32 and float64; NaN counts as largest, of equal elements the first
/// in row-major order.
ORNIK_API MaxPool max_pool(Tensor* input, const PoolParameters& parameters);
/// Every gradient is added at its position.
ORNIK_API std::unique_ptr<Tensor> max_pool_grad(Tensor* output_gradient, Tensor* positions, const Dims& input_shape,
                                                const PoolParameters& parameters);

/// The sum of each window, padding counting as zeros, divided by the kernel's element count. Floating and complex.
ORNIK_API std::unique_ptr<Tensor> average_pool(Tensor* input, const PoolParameters& parameters);
ORNIK_API std::unique_ptr<Tensor> average_pool_grad(Tensor* output_gradient, const Dims& input_shape,
                                                    const PoolParameters& parameters);

/// The mean of each of `output` windows per axis: window o reaches from floor(o in / out) up to ceil((o + 1) in / out).
/// {1, 1} is the mean of the whole plane. Floating and complex.
ORNIK_API std::unique_ptr<Tensor> adaptive_average_pool(Tensor* input, const std::array<std::int64_t, 2>& output);
ORNIK_API std::unique_ptr<Tensor> adaptive_average_pool_grad(Tensor* output_gradient, const Dims& input_shape);

}  // namespace ornik::nn
