// cpu_core.h: kernels that move elements: fill, copy, convert, sequences, triangles. Internal.
//
// Arguments have been checked: tensors are on the CPU, outputs are allocated, counts agree.
#pragma once

#include <cstdint>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// out = value, converted to out's dtype.
void fill(Tensor* out, const Scalar& value);

/// out = in, element by element in row-major order, converted to out's dtype where it differs.
void copy(const Tensor* in, Tensor* out);

/// The running sum start, start + step, ... in single precision; out is contiguous and of a real dtype
/// other than bool. `close_at` replaces the last element's value when it is given.
void sequence(Tensor* out, float start, float step, const float* close_at);

/// out[i] = base to the power in[i], in single precision (in double for float64).
void power_of(float base, const Tensor* in, Tensor* out);

/// Keeps of the last two axes of `in` what lies on one side of the diagonal displaced by k; zero elsewhere.
/// Both are contiguous and of one shape.
void triangle(const Tensor* in, Tensor* out, std::int64_t k, bool lower);

/// Ones where column - row == offset, on a contiguous zero matrix.
void unit_diagonal(Tensor* out, std::int64_t offset);

}  // namespace ornik::device::cpu
