// shape_rules.h: how a requested shape or order of axes is resolved. Pure functions.
#pragma once

#include <cstdint>
#include <vector>

#include "../export.h"
#include "error.h"

namespace ornik {

/// Row-major strides of a shape: [12, 4, 1] for [2, 3, 4]; [] for [].
ORNIK_API Dims shape2stride(const Dims& shape);

/// `shape` with its one -1, if any, replaced by what is left of the `numel` elements of `input_shape`. Fails
/// for entries below -1, for several -1, and when the counts differ; the count of the result is formed in 32
/// bits, so that shapes of 2^31 elements and more never pass.
ORNIK_API Dims infer_final_reshape(const Dims& shape, const Dims& input_shape, std::int64_t numel);

/// The shape of a tensor of `shape` repeated `reps` times; the shorter list is padded with leading 1s. Each
/// extent is a 32-bit product.
ORNIK_API Dims infer_tile_shape(const Dims& shape, const std::vector<int>& reps);

/// values[order[0]], values[order[1]], ...; both lists have one length.
ORNIK_API Dims gather_dims(const Dims& values, const std::vector<int>& order);

}  // namespace ornik
