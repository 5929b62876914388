// initialization.h: first values of parameters, from the default generator.
#pragma once

#include "../ktensor/ktensor.h"

namespace ornik::init {

/// Uniform in [-bound, bound).
[[nodiscard]] ORNIK_API KTensor uniform(const Dims& shape, double bound, std::int64_t dtype = dtype::float32);
/// 1 / sqrt(fan_in), 0 for no inputs: the bound of linear maps and convolutions.
[[nodiscard]] ORNIK_API double fan_in_bound(std::int64_t fan_in);
/// sqrt(6 / (rows + columns)) (Glorot and Bengio, 2010).
[[nodiscard]] ORNIK_API double xavier_bound(std::int64_t rows, std::int64_t columns);

}  // namespace ornik::init
