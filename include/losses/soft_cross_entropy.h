// soft_cross_entropy.h: cross-entropy over softmax.
#pragma once

#include "loss.h"

namespace ornik {

/// Mean over the batch of -sum over c of t[c] log softmax(x)[c], computed through log-sum-exp.
///
/// The prediction x holds logits, [..., classes], float32 or float64; every position of the leading axes is
/// one member of the batch. The target holds either class indices (an integer dtype, of the leading axes'
/// shape, with or without a last axis of 1) or weights t of the prediction's shape and dtype. An index
/// outside [0, classes) is an error.
class ORNIK_API LSoftCrossEntropy : public Loss {
  public:
    LSoftCrossEntropy();
    /// (softmax(x) sum(t) - t) / batch
    [[nodiscard]] Tensor* loss_backward(Tensor* prediction, Tensor* target) override;
    [[nodiscard]] Tensor* loss_forward(Tensor* prediction, Tensor* target) override;
};

}  // namespace ornik
