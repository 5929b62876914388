// cpu_exp.h: exponentials of shifted rows. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

// float and double. Every element takes the same road, whatever its place in the row: equal inputs give equal
// bits. `out` may be `in`. Results are at most 1 ULP from the exact exponential of the rounded difference.

/// out = exp(in - shift)
template <typename T>
void exp_shifted(const T* in, T shift, T* out, std::int64_t n);

/// out[i] = exp(in[i] - shifts[i])
template <typename T>
void exp_shifted(const T* in, const T* shifts, T* out, std::int64_t n);

}  // namespace ornik::device::cpu
