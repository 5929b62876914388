// cpu_softmax.h: softmax and its logarithm along one axis. Internal.
//
// float32 and float64, any strides; all operands of one dtype and shape, with at least one axis; `out` shares no
// memory with the others.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = exp(in - max) / sum of that.
void softmax(const Tensor* in, Tensor* out, int axis);
/// Gradient of softmax from its output y: out = y (g - sum(g y)).
void softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis);

/// out = in - max - log(sum of exp(in - max)).
void log_softmax(const Tensor* in, Tensor* out, int axis);
/// Gradient of log_softmax from its output y: out = g - exp(y) sum(g).
void log_softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis);

}  // namespace ornik::device::cpu
