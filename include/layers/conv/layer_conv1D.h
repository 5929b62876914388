// layer_conv1D.h: the one-dimensional convolution layer.
#pragma once

#include "../../descriptors/descriptor_conv2D.h"
#include "layer_conv.h"

namespace ornik {

/// A two-dimensional convolution over (N, C, L, 1): the length is the rows axis. Takes inputs (N, C, L) and
/// (N, C, L, 1), weights (output channels, C / groups, k) and the same with a last 1, output gradients
/// likewise; the output is (N, output channels, output length). Gradients have their argument's own shape. A
/// layer that is not trainable gives the gradient of its input and null for the others.
class ORNIK_API LConv1D : public LConv {
  public:
    /// An empty name becomes "conv1d". Vectors hold the value of the length axis and that of the other, (k, 1).
    LConv1D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
            const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
            const std::vector<int>& dilation, std::string name, int first, int second);

    [[nodiscard]] Tensor* _forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int unused) override;
    [[nodiscard]] Tensor* float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                         int node) override;

  private:
    ConvolDescriptor descriptor_;
};

}  // namespace ornik
