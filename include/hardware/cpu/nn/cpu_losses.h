// cpu_losses.h: kernels of the losses. Internal.
//
// Tensors are contiguous unless stated otherwise, float32 or float64, and not empty. Every loss is one element:
// a mean whose terms are added in double, in an order that the shape alone decides.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// True when every index (int64) lies in [0, classes).
bool classes_in_range(const Tensor* indices, std::int64_t classes);

/// False when an element lies below 0 or above 1; NaN is neither.
bool in_unit_interval(const Tensor* probabilities);

// Over classes: predictions count as [batch, classes]. Targets are class indices (int64, one per row, in range)
// or weights shaped as the prediction.

void soft_cross_entropy(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* loss);
void soft_cross_entropy_grad(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* gradient);

void nll_loss(const Tensor* prediction, const Tensor* indices, Tensor* loss);
/// The gradient does not depend on the prediction but for its shape.
void nll_loss_grad(const Tensor* indices, Tensor* gradient);

// Over elements; the gradients take any strides.

void mean_squared_error(const Tensor* prediction, const Tensor* target, Tensor* loss);
void mean_squared_error_grad(const Tensor* prediction, const Tensor* target, Tensor* gradient);

void binary_cross_entropy(const Tensor* prediction, const Tensor* target, Tensor* loss);
void binary_cross_entropy_grad(const Tensor* prediction, const Tensor* target, Tensor* gradient);

}  // namespace ornik::device::cpu
