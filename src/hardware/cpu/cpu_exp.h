// cpu_exp.h: exponentials of shifted rows.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

// float and double. Every element takes the same road, whatever its place in the row: equal inputs give
// equal bits. `out` may be `in`.

/// out = exp(in - shift); at most 3 ULP from the exact exponential of the rounded difference.
template <typename T>
void exp_shifted(const T* in, T shift, T* out, std::int64_t n);

/// out = exp(in - shifts), element by element.
template <typename T>
void exp_shifted(const T* in, const T* shifts, T* out, std::int64_t n);

}  // namespace ornik::device::cpu
