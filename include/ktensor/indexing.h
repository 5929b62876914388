// indexing.h: reading and writing elements at computed places.
#pragma once

#include "ktensor.h"

namespace ornik {

/// result[i][j][k] = x[i][index[i][j][k]][k] for axis 1; shaped as index, whose other extents may be smaller than x's.
[[nodiscard]] ORNIK_API KTensor gather(const KTensor& x, int axis, const KTensor& index);
/// x, with source[i][j][k] added at [i][index[i][j][k]][k] for axis 1; source is shaped as index.
[[nodiscard]] ORNIK_API KTensor scatter_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source);

}  // namespace ornik
