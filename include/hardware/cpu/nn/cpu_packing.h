// cpu_packing.h: moves the entries of sequences. Internal.
#pragma once

#include "../../../descriptors/packing.h"
#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// padded [batch, steps, ...] to packed [entries, ...], both contiguous and of one dtype.
void pack(const Tensor* padded, const Packing& packing, Tensor* packed);
/// The inverse; the padding keeps what it holds.
void unpack(const Tensor* packed, const Packing& packing, Tensor* padded);

}  // namespace ornik::device::cpu
