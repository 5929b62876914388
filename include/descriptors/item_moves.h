// item_moves.h: elements of any type moved as they are, between strides. Internal.
#pragma once

#include <cstdint>

namespace ornik {

/// Bytes of the largest element type.
inline constexpr std::int64_t largest_item = 16;

/// The item at to + i * to_stride becomes that at from + i * from_stride, for i < n; strides in bytes.
using MoveItems = void (*)(char* to, std::int64_t to_stride, const char* from, std::int64_t from_stride,
                           std::int64_t n);

/// For items of 1, 2, 4, 8 or 16 bytes.
MoveItems item_mover(std::int64_t item_size);

}  // namespace ornik
