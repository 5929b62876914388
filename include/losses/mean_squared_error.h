// mean_squared_error.h: the mean of squared differences.
#pragma once

#include "loss.h"

namespace ornik {

/// Mean over all elements of (x - t)^2. Prediction x and target t have one shape, any number of axes, and one
/// dtype: float32 or float64.
class ORNIK_API LMeanSquaredError : public Loss {
  public:
    LMeanSquaredError();
    /// 2 (x - t) / elements
    [[nodiscard]] Tensor* loss_backward(Tensor* prediction, Tensor* target) override;
    [[nodiscard]] Tensor* loss_forward(Tensor* prediction, Tensor* target) override;
};

}  // namespace ornik
