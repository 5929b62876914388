// cpu_losses.h: kernels of the losses. Internal.
//
// Tensors are contiguous unless stated otherwise, float32 or float64. A reduced loss is one element: a sum or mean
// whose terms are added in double, in an order that the shape alone decides; an unreduced one has an element per
// term. Gradients are scaled by the upstream gradient: one element, or one per term.
#pragma once

#include <optional>

#include "../../../descriptors/loss_terms.h"
#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// True when every index (int64) lies in [0, classes) or is the one that is ignored.
bool classes_in_range(const Tensor* indices, std::int64_t classes, std::optional<std::int64_t> ignored);

/// False when an element lies below 0 or above 1; NaN is neither.
bool in_unit_interval(const Tensor* probabilities);

// Over classes.

struct ClassLoss {
    const Tensor* prediction;  ///< counts as [batch, classes]
    const Tensor* target;      ///< class indices (int64, one per row, in range) or numbers shaped as the prediction
    bool has_indices = true;
    const Tensor* weight = nullptr;  ///< [classes]
    std::optional<std::int64_t> ignored = std::nullopt;
    double smoothing = 0;
    nn::Reduction reduction = nn::Reduction::mean;
};

void cross_entropy(const ClassLoss& loss, Tensor* out);
/// A null upstream gradient counts as 1; either result may be null.
void cross_entropy_grad(const ClassLoss& loss, const Tensor* upstream, Tensor* prediction_gradient,
                        Tensor* target_gradient);
void nll_loss(const ClassLoss& loss, Tensor* out);
void nll_loss_grad(const ClassLoss& loss, const Tensor* upstream, Tensor* gradient);

// Over elements. `positive_weight` is for the loss that knows it; null counts as 1.

struct ElementTerms {
    nn::ElementLoss loss;
    const Tensor* prediction;
    const Tensor* target;
    const Tensor* positive_weight = nullptr;
    double parameter = 1;
};

void element_loss(const ElementTerms& terms, nn::Reduction reduction, Tensor* out);
/// Any strides. `upstream` as above, null counting as 1; when one per term it has the terms' shape.
void element_loss_grad(const ElementTerms& terms, nn::Reduction reduction, const Tensor* upstream, bool of_target,
                       Tensor* gradient);

}  // namespace ornik::device::cpu
