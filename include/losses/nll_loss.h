// nll_loss.h: negative log-likelihood.
#pragma once

#include "loss.h"

namespace ornik {

/// Mean over the batch of -x[class].
///
/// The prediction x holds log-probabilities, [..., classes], float32 or float64; every position of the leading
/// axes is one member of the batch. The target holds class indices: an integer dtype, of the leading axes'
/// shape, with or without a last axis of 1. An index outside [0, classes) is an error.
class ORNIK_API LNLL_Loss : public Loss {
  public:
    LNLL_Loss();
    /// -1 / batch at the class of each member, 0 elsewhere.
    [[nodiscard]] Tensor* loss_backward(Tensor* prediction, Tensor* target) override;
    [[nodiscard]] Tensor* loss_forward(Tensor* prediction, Tensor* target) override;
};

}  // namespace ornik
