// overlap.h: do two strided tensors share memory? Internal.
#pragma once

#include "tensor.h"

namespace ornik {

enum class Overlap {
    none,     ///< no byte in common
    same,     ///< element i of one is element i of the other
    partial,  ///< some byte in common, at different elements
};

/// Exact for views as slicing, transposing and broadcasting make them: two columns of one matrix do not
/// overlap. Contrived strides that would take too long to decide count as partial.
Overlap memory_overlap(const Tensor* a, const Tensor* b);

}  // namespace ornik
