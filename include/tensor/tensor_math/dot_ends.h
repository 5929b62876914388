// dot_ends.h: a matrix product with what follows its sums. Internal.
#pragma once

#include "../../hardware/cpu/product/cpu_product.h"
#include "../tensor.h"

namespace ornik {

/// Tensor::dot without accumulation, C contiguous; floating or complex.
void dot_with_ends(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, const device::cpu::ProductEnds& ends);

}  // namespace ornik
