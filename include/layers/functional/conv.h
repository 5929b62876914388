// conv.h: convolutions and their gradients as functions, which keep nothing between calls.
//
//     ornik::nn::ConvParameters parameters;
//     parameters.stride = {2, 2};
//     auto y = ornik::nn::convolution(x, weight, bias, parameters);
//     auto g = ornik::nn::convolution_grad(dy, x, weight, parameters, {true, true, false});
//
// Inputs are (N, C, L) or (N, C, H, W), outputs (N, channels, ...). The weight is (channels, C / groups, kernel),
// or for a transposed convolution (C, channels / groups, kernel); LConvT2D has its first two axes exchanged. One
// floating or complex dtype, any strides. A batch of no samples gives an empty output and gradients of zero.
// Gradients take the conjugate of the other factor.
#pragma once

#include <array>
#include <memory>

#include "../../descriptors/convol_fields.h"

namespace ornik::nn {

/// Entries are for rows and columns; a convolution over one axis looks at the first alone.
struct ConvParameters {
    std::array<std::int64_t, 2> stride{1, 1};
    std::array<PaddingPair, 2> padding{};
    std::array<std::int64_t, 2> dilation{1, 1};
    std::int64_t groups = 1;
    bool transposed = false;
    /// Positions that a transposed convolution adds at the end; less than stride or dilation.
    std::array<std::int64_t, 2> output_padding{};
};

/// The padding that keeps an extent under stride 1; of an odd total the larger half is behind.
constexpr PaddingPair same_padding(std::int64_t kernel, std::int64_t dilation) {
    const std::int64_t total = (kernel - 1) * dilation;
    return {total / 2, total - total / 2};
}

/// Extents of an axis: (in + paddings - (k - 1) dilation - 1) / stride + 1, rounded down; transposed
/// (in - 1) stride - paddings + (k - 1) dilation + output padding + 1. The bias, [channels], may be null.
ORNIK_API std::unique_ptr<Tensor> convolution(Tensor* input, Tensor* weight, Tensor* bias,
                                              const ConvParameters& parameters = {});

ORNIK_API std::unique_ptr<Tensor> convolution_input_grad(Tensor* output_gradient, const Dims& input_shape,
                                                         Tensor* weight, const ConvParameters& parameters = {});
ORNIK_API std::unique_ptr<Tensor> convolution_weight_grad(Tensor* output_gradient, Tensor* input,
                                                          const Dims& weight_shape,
                                                          const ConvParameters& parameters = {});
/// [channels]: the sum over everything else.
ORNIK_API std::unique_ptr<Tensor> convolution_bias_grad(Tensor* output_gradient);

struct ConvGradients {
    std::unique_ptr<Tensor> input;
    std::unique_ptr<Tensor> weight;
    std::unique_ptr<Tensor> bias;
};

/// Those that are wanted, in the order input, weight, bias; the others are null.
ORNIK_API ConvGradients convolution_grad(Tensor* output_gradient, Tensor* input, Tensor* weight,
                                         const ConvParameters& parameters = {},
                                         const std::array<bool, 3>& wanted = {true, true, true});

}  // namespace ornik::nn
