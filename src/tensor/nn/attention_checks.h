// attention_checks.h: checks that both forms of attention share. Internal.
#pragma once

#include <initializer_list>

#include "tensor/tensor.h"

namespace ornik {

/// Refuses a null among the tensors, other devices or dtypes than the first one's, and a dtype other than float32
/// and float64.
void check_attention_operands(const Where& at, std::initializer_list<const Tensor*> tensors);

/// Refuses a mask that is neither bool nor of the dtype, is elsewhere, or does not broadcast to `scores`. Null
/// passes.
void check_attention_mask(const Where& at, const Tensor* mask, std::int64_t dtype, std::int64_t device,
                          const Dims& scores);

/// Refuses a gradient of another shape than the output's.
void check_attention_gradient(const Where& at, const Tensor* gradient, const Dims& output);

}  // namespace ornik
