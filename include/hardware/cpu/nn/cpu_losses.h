// cpu_losses.h: kernels of the losses. Internal.
//
// Tensors are contiguous; predictions count as [batch, classes]. Targets are class indices (int64, one per
// row, in range) or weights shaped as the prediction.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// True when every index lies in [0, classes).
bool classes_in_range(const Tensor* indices, std::int64_t classes);

/// The mean over the rows, summed in row order.
void soft_cross_entropy(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* loss);
void soft_cross_entropy_grad(const Tensor* prediction, const Tensor* target, bool has_indices, Tensor* gradient);

}  // namespace ornik::device::cpu
