// tile_transpose.h: copies a tile of a strided operand so that its other axis becomes the fast one.
// Internal.
#pragma once

#include <cstdint>

namespace ornik {

/// buffer[j * row + i] = source[i][j] for i < n0, j < n1; elements of item_size bytes (1, 2, 4, 8 or 16),
/// source rows row_step bytes apart, buffer rows `row` elements apart. The buffer and all its rows
/// are aligned to 32 bytes.
void transpose_tile(void* buffer, std::int64_t row, const char* source, std::int64_t row_step, std::int64_t item_size,
                    std::int64_t n0, std::int64_t n1);

}  // namespace ornik
