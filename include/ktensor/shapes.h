// shapes.h: tensors under other shapes and dtypes.
#pragma once

#include "ktensor.h"

namespace ornik {

/// The elements converted to another dtype; the tensor itself when it has that dtype.
[[nodiscard]] ORNIK_API KTensor astype(const KTensor& x, std::int64_t dtype);
/// x repeated along leading and size-1 axes: a stride-0 view.
[[nodiscard]] ORNIK_API KTensor broadcast_to(const KTensor& x, const Dims& shape);
/// The reverse: x summed to a shape that broadcasts to its own.
[[nodiscard]] ORNIK_API KTensor sum_to_shape(const KTensor& x, const Dims& shape);

}  // namespace ornik
