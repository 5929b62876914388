// cpu_attention.h: the softmax of attention, scale and mask included. Internal.
//
// float32 and float64; rows are runs along the last axis.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// In place: every row becomes softmax(scale row + mask). Scores are contiguous. The mask is null or has the
/// scores' shape, any strides, and either their dtype (added) or bool (false: counts as -infinity). A row of
/// -infinities becomes a row of zeros. `causal`: row i of a matrix sees its first i + 1 columns alone.
void attention_softmax(Tensor* scores, double scale, const Tensor* mask, bool causal = false);

/// In place: the gradient of the softmax y becomes that of the scores, scale y (g - sum(g y)). Contiguous.
void attention_softmax_grad(const Tensor* y, Tensor* gradient, double scale);

}  // namespace ornik::device::cpu
