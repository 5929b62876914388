// cpu_row_end.h: activations of rows in place, for kernels that end with one. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

enum class RowEnd { none, relu, relu6, sigmoid, tanh, silu, gelu, hardsigmoid, hardswish };

/// Changes `count` elements in place.
using RowFunction = void (*)(void* elements, std::int64_t count);

/// Bit for bit the operation of that name; of float32 or float64. Null for none.
RowFunction row_end(std::int64_t dtype, RowEnd end);

}  // namespace ornik::device::cpu
