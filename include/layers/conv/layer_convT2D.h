// layer_convT2D.h: the transposed two-dimensional convolution layer.
#pragma once

#include "../../descriptors/descriptor_convT2D.h"
#include "layer_conv.h"

namespace ornik {

/// Paddings and output sizes: descriptors/descriptor_convT2D.h. A bias given to a layer without one is an
/// error. A layer that is not trainable refuses the gradients of input and bias and gives null for the weight's.
class ORNIK_API LConvT2D : public LConv {
  public:
    /// An empty name becomes "convT2d". Vectors hold rows and columns.
    LConvT2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
             const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
             const std::vector<int>& dilation, const std::vector<int>& output_padding, std::string name, int first,
             int second);

    [[nodiscard]] Tensor* _forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int unused) override;
    [[nodiscard]] Tensor* float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                         int node) override;
    [[nodiscard]] Tensor* ConvT2D_float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                                 int node);

  private:
    ConvolDescriptorT2D descriptor_;
};

}  // namespace ornik
