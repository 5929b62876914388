// layer_activation.h: activations and softmax.
#pragma once

#include "layer.h"

namespace ornik {

/// Element-wise activations and softmax, by name:
///
///   "relu"         max(x, 0); NaN stays NaN. Real dtypes.
///   "leaky_relu"   x above 0, a x else. One parameter: a, 0.01 without it.
///   "elu"          x above 0, a (exp(x) - 1) else. One parameter: a, 1 without it.
///   "selu"         1.0507 x above 0, 1.0507 * 1.67326 (exp(x) - 1) else (Klambauer and others, 2017)
///   "gelu"         x times the normal distribution function at x, not its approximation by tanh
///   "silu"         x sigmoid(x)
///   "sigmoid"      1 / (1 + exp(-x)); complex dtypes, too
///   "tanh"         complex dtypes, too
///   "softplus"     log(1 + exp(x))
///   "softmax"      exp(x) / sum of exp(x) along an axis. One parameter: the axis (a whole number; negative
///                  counts from the end); without it the last axis.
///   "log_softmax"  its logarithm; the same parameter
///
/// float32 and float64 where nothing else is said; no parameters where none is named.
class ORNIK_API LActivation : public Layer {
  public:
    /// An unknown activation, or parameters it does not take, is an error.
    LActivation(std::string activation, std::vector<float> parameters, std::string name, int first, int second);

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// Any shape and strides; the result is contiguous.
    [[nodiscard]] Tensor* forward_dyn(Tensor* input) override;
    /// The gradient of the input, from the input, the output that forward_dyn gave for it, and the output's
    /// gradient: all of one shape and dtype.
    [[nodiscard]] Tensor* backward_dyn(Tensor* input, Tensor* output, Tensor* output_gradient) override;

  private:
    std::string activation_;
    std::vector<float> parameters_;
};

}  // namespace ornik
