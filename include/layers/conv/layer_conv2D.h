// layer_conv2D.h: the two-dimensional convolution layer.
#pragma once

#include "../../descriptors/descriptor_conv2D.h"
#include "layer_conv.h"

namespace ornik {

/// Paddings and output sizes: descriptors/descriptor_conv2D.h. A layer that is not trainable refuses the
/// gradients of input and bias and gives null for the weight's.
class ORNIK_API LConv2D : public LConv {
  public:
    /// An empty name becomes "conv2d". Vectors hold rows and columns; `padding` serves the type "custom" alone.
    LConv2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
            const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
            const std::vector<int>& dilation, std::string name, int first, int second);

    [[nodiscard]] Tensor* _forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int unused) override;
    [[nodiscard]] Tensor* float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                         int node) override;

  private:
    ConvolDescriptor descriptor_;
};

}  // namespace ornik
