// arithmetic.h: sums, differences, products and quotients.
//
// Operands broadcast: shapes are aligned at their last axes, and an extent of 1 yields to the other one. Two tensors
// give the wider of their kinds (the tables in docs/overview.md), a quotient is floating or complex. A number never
// widens a tensor of its own kind: a float32 tensor and 2.0 give float32. The forms in place keep the dtype of the
// tensor that they are called on, and its shape; both have to hold the result.
#pragma once

#include <vector>

#include "ktensor.h"

namespace ornik {

[[nodiscard]] ORNIK_API KTensor add(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor sub(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor mul(const KTensor& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor div(const KTensor& a, const KTensor& b);

[[nodiscard]] ORNIK_API KTensor add(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor sub(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor mul(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor div(const KTensor& a, const Scalar& b);
[[nodiscard]] ORNIK_API KTensor sub(const Scalar& a, const KTensor& b);
[[nodiscard]] ORNIK_API KTensor div(const Scalar& a, const KTensor& b);
/// The sum of one tensor or more, from left to right, in one pass where they have one shape.
[[nodiscard]] ORNIK_API KTensor add_all(const std::vector<KTensor>& terms);

// In place; each returns its target.

ORNIK_API KTensor& add_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& sub_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& mul_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& div_(KTensor& a, const KTensor& b);
ORNIK_API KTensor& add_(KTensor& a, const Scalar& b);
ORNIK_API KTensor& sub_(KTensor& a, const Scalar& b);
ORNIK_API KTensor& mul_(KTensor& a, const Scalar& b);
ORNIK_API KTensor& div_(KTensor& a, const Scalar& b);

[[nodiscard]] inline KTensor operator+(const KTensor& a, const KTensor& b) { return add(a, b); }
[[nodiscard]] inline KTensor operator-(const KTensor& a, const KTensor& b) { return sub(a, b); }
[[nodiscard]] inline KTensor operator*(const KTensor& a, const KTensor& b) { return mul(a, b); }
[[nodiscard]] inline KTensor operator/(const KTensor& a, const KTensor& b) { return div(a, b); }
[[nodiscard]] inline KTensor operator+(const KTensor& a, const Scalar& b) { return add(a, b); }
[[nodiscard]] inline KTensor operator-(const KTensor& a, const Scalar& b) { return sub(a, b); }
[[nodiscard]] inline KTensor operator*(const KTensor& a, const Scalar& b) { return mul(a, b); }
[[nodiscard]] inline KTensor operator/(const KTensor& a, const Scalar& b) { return div(a, b); }
[[nodiscard]] inline KTensor operator+(const Scalar& a, const KTensor& b) { return add(b, a); }
[[nodiscard]] inline KTensor operator-(const Scalar& a, const KTensor& b) { return sub(a, b); }
[[nodiscard]] inline KTensor operator*(const Scalar& a, const KTensor& b) { return mul(b, a); }
[[nodiscard]] inline KTensor operator/(const Scalar& a, const KTensor& b) { return div(a, b); }
inline KTensor& operator+=(KTensor& a, const KTensor& b) { return add_(a, b); }
inline KTensor& operator-=(KTensor& a, const KTensor& b) { return sub_(a, b); }
inline KTensor& operator*=(KTensor& a, const KTensor& b) { return mul_(a, b); }
inline KTensor& operator/=(KTensor& a, const KTensor& b) { return div_(a, b); }
inline KTensor& operator+=(KTensor& a, const Scalar& b) { return add_(a, b); }
inline KTensor& operator-=(KTensor& a, const Scalar& b) { return sub_(a, b); }
inline KTensor& operator*=(KTensor& a, const Scalar& b) { return mul_(a, b); }
inline KTensor& operator/=(KTensor& a, const Scalar& b) { return div_(a, b); }

}  // namespace ornik
