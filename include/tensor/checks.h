// checks.h: checks that several front ends share. Internal.
#pragma once

#include "tensor.h"

namespace ornik {

/// Refuses an output whose elements share places (an expanded, stride-0 view): what it would hold depends
/// on who writes last. Tensors without elements pass.
void check_not_expanded(const Where& at, const Tensor* out);

}  // namespace ornik
