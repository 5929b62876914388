// in_place.h: what in-place arithmetic needs to know about its operands.
#pragma once

#include <cstdint>

#include "tensor/tensor.h"

namespace ornik {

/// May a result that promotes to `r` be written back into a tensor of dtype `self`? An integer keeps its
/// dtype under a wider integer; a real tensor never becomes complex, an integer never floating, a bool
/// never anything else.
bool keeps_dtype(std::int64_t self, std::int64_t r);

/// True when each element of self may be overwritten as soon as it is computed: the result of an in-place
/// operation then needs no temporary tensor.
bool writes_safely(const Tensor* self, const Tensor* other);

}  // namespace ornik
