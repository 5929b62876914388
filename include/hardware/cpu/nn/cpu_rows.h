// cpu_rows.h: kernels over the rows of contiguous tensors. Internal.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out[j] = sum over i of in[i, j]; in is [rows, cols], out has cols elements. Floating and complex. Rows
/// are added in chunks of a fixed size, and the chunks in order: the bits do not depend on the team size.
void sum_rows(const Tensor* in, Tensor* out);

}  // namespace ornik::device::cpu
