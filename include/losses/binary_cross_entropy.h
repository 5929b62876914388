// binary_cross_entropy.h: cross-entropy of probabilities of two classes.
#pragma once

#include "loss.h"

namespace ornik {

/// Mean over all elements of -(t log p + (1 - t) log(1 - p)).
///
/// The prediction p holds probabilities, the target t wanted probabilities (0 or 1 as a rule): one shape, any
/// number of axes, and one dtype, float32 or float64. A p outside [0, 1] is an error; NaN passes through.
/// Certain and wrong predictions stay finite: logarithms below -100 count as -100, and divisors of the gradient
/// below 1e-12 as 1e-12.
class ORNIK_API LBinaryCrossEntropy : public Loss {
  public:
    LBinaryCrossEntropy();
    /// ((1 - t) / (1 - p) - t / p) / elements
    [[nodiscard]] Tensor* loss_backward(Tensor* prediction, Tensor* target) override;
    [[nodiscard]] Tensor* loss_forward(Tensor* prediction, Tensor* target) override;
};

}  // namespace ornik
