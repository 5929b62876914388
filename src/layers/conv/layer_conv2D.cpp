#include "layers/conv/layer_conv2D.h"

#include <utility>

#include "conv_views.h"
#include "tensor/nn/tensor_conv.h"

namespace ornik {

LConv2D::LConv2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                 const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
                 const std::vector<int>& dilation, std::string name, int first, int second)
    : LConv(use_bias, std::move(name), "conv2d", first, second),
      descriptor_(with_output_channels(output_channels, kernel), strides, padding, padding_type, dilation, groups) {}

Tensor* LConv2D::_forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int /*unused*/) {
    descriptor_.build_dynamic(input, weight);
    return Conv2D_forward(weight, use_bias_ ? bias : nullptr, input, descriptor_);
}

Tensor* LConv2D::float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient, int node) {
    const Where at = where("ornik::LConv2D::float_backward");
    switch (node) {
        case 0:
            if (!_trainable) {
                fail(at, "Invokes grad function of input with Conv2D is not _trainable.");
            }
            return Conv2D_x_grad(weight, output_gradient, descriptor_);
        case 1:
            return _trainable ? Conv2D_w_grad(input, output_gradient, descriptor_) : nullptr;
        case 2:
            if (!use_bias_) {
                fail(at, "Invokes grad function of bias with use_bias == False in Conv2D.");
            }
            if (!_trainable) {
                fail(at, "Invokes grad function of bias with Conv2D is not _trainable.");
            }
            return shaped_as(bias, std::unique_ptr<Tensor>(Conv2D_bias_grad(output_gradient, descriptor_)));
        default:
            fail(at, "ONLY backward weight, input or bias's grad");
    }
}

}  // namespace ornik
