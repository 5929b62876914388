// layer_conv.h: what all convolution layers share.
#pragma once

#include "../layer.h"

namespace ornik {

/// Weight (output channels, input channels / groups, kernel rows, kernel cols), bias one value per output
/// channel or null, input (N, C, H, W); one floating or complex dtype, any strides. The latest forward call
/// sets the sizes that gradients go by.
class ORNIK_API LConv : public Layer {
  public:
    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// Makes every argument contiguous and calls _forward_dyn.
    [[nodiscard]] Tensor* forward_dyn(Tensor* weight, Tensor* bias, Tensor* input) override;
    /// Makes every argument that is not null contiguous and calls float_backward.
    [[nodiscard]] Tensor* backward_dyn(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                       int node) override;

    // Arguments are contiguous; the last of _forward_dyn is not used.
    [[nodiscard]] virtual Tensor* _forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int unused) = 0;
    /// The gradient of the input (node 0), the weight (1) or the bias (2); any other node is an error. It has
    /// the shape of its argument; that of a null bias is (output channels). The node is checked first, then
    /// the bias's existence, then _trainable.
    [[nodiscard]] virtual Tensor* float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                                 int node) = 0;

  protected:
    /// `word` names a layer without a name.
    LConv(bool use_bias, std::string name, const char* word, int first, int second);

    bool use_bias_;
};

}  // namespace ornik
