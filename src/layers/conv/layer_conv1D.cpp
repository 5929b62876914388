#include "layers/conv/layer_conv1D.h"

#include <utility>

#include "conv_views.h"
#include "tensor/nn/tensor_conv.h"

namespace ornik {

LConv1D::LConv1D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                 const std::vector<int>& padding, const std::string& padding_type, bool use_bias, int groups,
                 const std::vector<int>& dilation, std::string name, int first, int second)
    : LConv(use_bias, std::move(name), "conv1d", first, second),
      descriptor_(with_output_channels(output_channels, kernel), strides, padding, padding_type, dilation, groups) {}

Tensor* LConv1D::_forward_dyn(Tensor* weight, Tensor* bias, Tensor* input, int /*unused*/) {
    const Where at = where("ornik::LConv1D::_forward_dyn");
    if (input == nullptr || (input->ndim() != 3 && !(input->ndim() == 4 && input->Shape()[3] == 1))) {
        fail(at, "LConv1D only accept 3D input");
    }
    // The caller's tensors keep their shapes, whatever fails from here on: the extra axis is a view's.
    const std::unique_ptr<Tensor> x = with_last_axis(input);
    const std::unique_ptr<Tensor> w = with_last_axis(weight);
    descriptor_.build_dynamic(x.get(), w.get());
    const std::unique_ptr<Tensor> y(Conv2D_forward(w.get(), use_bias_ ? bias : nullptr, x.get(), descriptor_));
    return view_tensor(y.get(), {y->Shape()[0], y->Shape()[1], y->Shape()[2] * y->Shape()[3]});
}

Tensor* LConv1D::float_backward(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient, int node) {
    const Where at = where("ornik::LConv1D::float_backward");
    if (node < 0 || node > 2) {
        fail(at, "ONLY backward weight input bias grad");
    }
    if (node == 2 && !use_bias_) {
        fail(at, "Invoke grad of bias function with use_bias==False in Conv1D.");
    }
    if (node != 0 && !_trainable) {
        return nullptr;
    }
    const std::unique_ptr<Tensor> g = with_last_axis(output_gradient);
    const auto gradient = [&] {
        switch (node) {
            case 0:
                return Conv2D_x_grad(with_last_axis(weight).get(), g.get(), descriptor_);
            case 1:
                return Conv2D_w_grad(with_last_axis(input).get(), g.get(), descriptor_);
            default:
                return Conv2D_bias_grad(g.get(), descriptor_);
        }
    };
    Tensor* const arguments[] = {input, weight, bias};
    return shaped_as(arguments[node], std::unique_ptr<Tensor>(gradient()));
}

}  // namespace ornik
