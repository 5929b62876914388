#include "layers/conv/layer_convT2D.h"

#include <utility>

#include "conv_views.h"
#include "tensor/nn/tensor_conv.h"

namespace ornik {

LConvT2D::LConvT2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                   const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
                   const std::vector<int>& dilation, const std::vector<int>& output_padding, std::string name,
                   int first, int second)
    : LConv(use_bias, std::move(name), "convT2d", first, second),
      descriptor_(output_channels, kernel, strides, padding, padding_type, dilation, output_padding, groups) {}

Tensor* LConvT2D::_forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int /*unused*/) {
    descriptor_.build_dynamic(input, weight);
    return ConvT2D_forward(weight, bias, input, descriptor_, use_bias_);
}

Tensor* LConvT2D::float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient, int node) {
    return ConvT2D_float_backward(weight, bias, input, output_gradient, node);
}

Tensor* LConvT2D::ConvT2D_float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                         int node) {
    const Where at = where("ornik::LConvT2D::ConvT2D_float_backward");
    switch (node) {
        case 0:
            if (!_trainable) {
                fail(at, "Invokes grad function of input with ConvT2D is not _trainable.");
            }
            return ConvT2D_x_grad(weight, output_gradient, descriptor_);
        case 1:
            return _trainable ? ConvT2D_w_grad(input, output_gradient, descriptor_) : nullptr;
        case 2:
            if (!use_bias_) {
                fail(at, "Invokes grad function of bias with use_bias == False in ConvT2D.");
            }
            if (!_trainable) {
                fail(at, "Invokes grad function of bias with ConvT2D is not _trainable.");
            }
            return shaped_as(bias, std::unique_ptr<Tensor>(ConvT2D_bias_grad(output_gradient, descriptor_, use_bias_)));
        default:
            fail(at, "ONLY backward weight,input or bias's grad");
    }
}

}  // namespace ornik
