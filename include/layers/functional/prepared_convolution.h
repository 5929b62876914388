// prepared_convolution.h: a convolution whose weight is laid out once, as its kernel reads it.
//
//     const PreparedConvolution layer(weight, bias, parameters);
//     std::unique_ptr<Tensor> y = layer(x, LayerEnd::relu, shortcut);
//
// For weights that stay as they are. Bias, addition and activation happen where the sums are made, in no pass of their
// own.
#pragma once

#include <memory>

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

    /// What weight and bias take.
    [[nodiscard]] std::int64_t bytes() const;

  private:
    struct Parts;
    std::unique_ptr<const Parts> parts_;
};

}  // namespace ornik::nn
