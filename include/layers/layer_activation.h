// layer_activation.h: activations and softmax.
#pragma once

#include "layer.h"

namespace ornik {

/// Element-wise activations and softmax, by name:
///
///   "relu"     max(x, 0); NaN stays NaN. Real dtypes. Takes no parameters.
///   "softmax"  exp(x) / sum of exp(x) along an axis. float32 and float64. One parameter: the axis (a whole
///              number; negative counts from the end); without it the last axis.
class ORNIK_API LActivation : public Layer {
  public:
    /// An unknown activation, or parameters it does not take, is an error.
    LActivation(std::string activation, std::vector<float> parameters, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// Any shape and strides; the result is contiguous.
    Tensor* forward_dyn(Tensor* input) override;
    /// The gradient of the input, from the input, the output that forward_dyn gave for it, and the output's
    /// gradient: all of one shape and dtype.
    Tensor* backward_dyn(Tensor* input, Tensor* output, Tensor* output_gradient) override;

  private:
    std::string activation_;
    std::vector<float> parameters_;
};

}  // namespace ornik
