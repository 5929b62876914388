// prepared_convolution.h: a convolution whose weight is laid out once, as its kernel reads it.
//
//     const PreparedConvolution layer(weight, bias, parameters);
//     std::unique_ptr<Tensor> y = layer(x, LayerEnd::relu, shortcut);
//
// For weights that stay as they are. Bias, addition and activation happen where the sums are made, in no pass of their
// own.
#pragma once

#include <memory>

#include "blocked_image.h"
#include "conv.h"
#include "layer_end.h"

namespace ornik::nn {

class ORNIK_API PreparedConvolution {
  public:
    /// Weight, bias (or null) and parameters of convolution(), any strides. Both are copied: later changes of them are
    /// not seen. Weights of transposed and complex convolutions, and those of few channels a group, are kept as they
    /// are.
    explicit PreparedConvolution(Tensor* weight, Tensor* bias = nullptr, const ConvParameters& parameters = {});
    ~PreparedConvolution();
    PreparedConvolution(PreparedConvolution&& other) noexcept;
    PreparedConvolution& operator=(PreparedConvolution&& other) noexcept;

    /// The end of convolution(input, ...) + residual, which has the result's shape or is null: bit for bit what the
    /// operations give one after the other. Inputs of any batch and extents; threads may share the layer.
    std::unique_ptr<Tensor> operator()(Tensor* input, LayerEnd end = LayerEnd::none, Tensor* residual = nullptr) const;

    /// True for two-dimensional convolutions of float32 and float64, not transposed, of one group or one channel a
    /// group for each of the result, with about a vector of result channels or more: those that gain from blocks.
    [[nodiscard]] bool takes_blocks() const;
    /// The same values for images in blocks; refused unless takes_blocks(). The first layer of a network may read
    /// planes.
    BlockedImage blocked(const BlockedImage& input, LayerEnd end = LayerEnd::none,
                         const BlockedImage* residual = nullptr) const;
    BlockedImage blocked(Tensor* input, LayerEnd end = LayerEnd::none, const BlockedImage* residual = nullptr) const;

    /// What weight and bias take.
    [[nodiscard]] std::int64_t bytes() const;

  private:
    struct Parts;
    std::unique_ptr<const Parts> parts_;
};

}  // namespace ornik::nn
