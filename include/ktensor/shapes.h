// shapes.h: tensors under other shapes and dtypes.
//
// Views share the storage: a write through one is seen by the others. Negative axes count from the end.
#pragma once

#include <vector>

#include "ktensor.h"

namespace ornik {

/// The elements converted to another dtype; the tensor itself when it has that dtype. Complex numbers give their real
/// part to real dtypes; floating numbers are cut off to integers, and clamped to their range.
[[nodiscard]] ORNIK_API KTensor astype(const KTensor& x, std::int64_t dtype);
/// A copy, row-major.
[[nodiscard]] ORNIK_API KTensor clone(const KTensor& x);
/// The tensor itself when its elements stand in row-major order without gaps, else a copy.
[[nodiscard]] ORNIK_API KTensor contiguous(const KTensor& x);
/// Writes the elements of `source`, broadcast and converted, into x.
ORNIK_API KTensor& copy_(KTensor& x, const KTensor& source);
/// Every element becomes the value, converted to x's dtype, or 0. What x was computed from gets no gradient through it.
ORNIK_API KTensor& fill_(KTensor& x, const Scalar& value);
ORNIK_API KTensor& zero_(KTensor& x);

/// x repeated along leading and size-1 axes: a stride-0 view.
[[nodiscard]] ORNIK_API KTensor broadcast_to(const KTensor& x, const Dims& shape);
/// The reverse: x summed to a shape that broadcasts to its own.
[[nodiscard]] ORNIK_API KTensor sum_to_shape(const KTensor& x, const Dims& shape);

/// The same elements in the same order; one extent may be -1 and is inferred. A view where the strides admit one, else
/// a copy. `view` refuses to copy.
[[nodiscard]] ORNIK_API KTensor reshape(const KTensor& x, const Dims& shape);
[[nodiscard]] ORNIK_API KTensor view(const KTensor& x, const Dims& shape);
/// Axes start .. end, both included, become one.
[[nodiscard]] ORNIK_API KTensor flatten(const KTensor& x, int start = 0, int end = -1);

// Views.

/// Axis i of the result is axis axes[i] of x.
[[nodiscard]] ORNIK_API KTensor permute(const KTensor& x, const std::vector<int>& axes);
/// The last two axes change places; x has at least two.
[[nodiscard]] ORNIK_API KTensor transpose(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor swapaxes(const KTensor& x, int a, int b);
/// Without the axes of extent 1, or without the listed ones, which have extent 1.
[[nodiscard]] ORNIK_API KTensor squeeze(const KTensor& x);
[[nodiscard]] ORNIK_API KTensor squeeze(const KTensor& x, const std::vector<int>& axes);
/// With an axis of extent 1 at position `axis` of the result.
[[nodiscard]] ORNIK_API KTensor unsqueeze(const KTensor& x, int axis);

/// A complex tensor [...] as a real view [..., 2] of its parts: real part first.
[[nodiscard]] ORNIK_API KTensor view_as_real(const KTensor& x);
/// The inverse, of a float32 or float64 tensor whose last axis holds two neighbours.
[[nodiscard]] ORNIK_API KTensor view_as_complex(const KTensor& x);

/// A copy with the elements in reverse order along every listed axis.
[[nodiscard]] ORNIK_API KTensor flip(const KTensor& x, const std::vector<int>& axes);

}  // namespace ornik
