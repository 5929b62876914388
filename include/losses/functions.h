// functions.h: losses and their gradients as functions.
//
//     auto loss = ornik::nn::cross_entropy(logits, labels);
//     auto g = ornik::nn::cross_entropy_grad(dloss, logits, labels, {}, {true, false}).prediction;
//
// float32 and float64, any strides. A reduced loss has no axes; terms are added in double, in an order that the shape
// alone decides. Gradients take the gradient of the loss, of its shape, which scales them in the same pass; those that
// are not wanted are null. Without terms a sum is 0 and a mean NaN.
#pragma once

#include <array>
#include <memory>

#include "../descriptors/loss_terms.h"
#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik::nn {

struct LossGradients {
    std::unique_ptr<Tensor> prediction;
    std::unique_ptr<Tensor> target;
};

// ---- Over elements: prediction and target of one shape (the losses: descriptors/loss_terms.h) ----

struct ElementLossOptions {
    Reduction reduction = Reduction::mean;  ///< by the number of elements, whatever the weights
    Tensor* weight = nullptr;           ///< of each term; the prediction's shape and dtype, as an expanded view, say
    Tensor* positive_weight = nullptr;  ///< of binary_cross_entropy_with_logits; likewise
    double parameter = 1;               ///< beta (0 and above) or delta (above 0)
};

ORNIK_API std::unique_ptr<Tensor> element_loss(ElementLoss loss, Tensor* prediction, Tensor* target,
                                               const ElementLossOptions& options = {});
/// `wanted`: prediction, target. Weights have no gradient.
ORNIK_API LossGradients element_loss_grad(ElementLoss loss, Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                          const ElementLossOptions& options = {},
                                          const std::array<bool, 2>& wanted = {true, true});

// ---- Over classes: prediction [..., classes]; every position of the leading axes is one member of the batch ----
//
// Class indices are of an integer dtype and the leading axes' shape, with or without a last axis of 1; one outside
// [0, classes) is an error.

struct ClassLossOptions {
    Reduction reduction = Reduction::mean;
    Tensor* weight = nullptr;          ///< [classes], of the prediction's dtype
    std::int64_t ignore_index = -100;  ///< members of this class have no loss and no gradient
    double label_smoothing = 0;        ///< in [0, 1]; cross entropy alone
};

/// With indices, -weight[t] log softmax(x)[t], smoothed by s to (1 - s) of that and s / classes of the sum over c of
/// -weight[c] log softmax(x)[c]; the mean divides by the sum of weight[t] over members that are not ignored. With a
/// target of the prediction's shape and dtype, the sum over c of -weight[c] t'[c] log softmax(x)[c] for the
/// smoothed t' = (1 - s) t + s / classes; the mean divides by the number of members.
ORNIK_API std::unique_ptr<Tensor> cross_entropy(Tensor* prediction, Tensor* target,
                                                const ClassLossOptions& options = {});
/// `wanted`: prediction, target; indices have no gradient.
ORNIK_API LossGradients cross_entropy_grad(Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                           const ClassLossOptions& options = {},
                                           const std::array<bool, 2>& wanted = {true, false});

/// -weight[t] x[t] for log-probabilities x and class indices t; the mean as above.
ORNIK_API std::unique_ptr<Tensor> nll_loss(Tensor* prediction, Tensor* target, const ClassLossOptions& options = {});
ORNIK_API std::unique_ptr<Tensor> nll_loss_grad(Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                                const ClassLossOptions& options = {});

}  // namespace ornik::nn
