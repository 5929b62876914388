// cpu_taps.h: the inner loops of convolutions that keep their channels apart. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// out[x] = start + sum over t of weights[t] * slots[taps[t] + x], x < count. May read up to 128 bytes beyond
/// what count asks for. float, double and their std::complex.
template <typename T>
void tap_sums(const T* slots, const std::int64_t* taps, const T* weights, std::int64_t tap_count, T start,
              std::int64_t count, T* out);

/// sums[t] += sum over r < rows, x < count of values[r * value_row + x] * slots[taps[t] + r * slot_row + x].
template <typename T>
void tap_dots(const T* slots, std::int64_t slot_row, const std::int64_t* taps, std::int64_t tap_count, const T* values,
              std::int64_t value_row, std::int64_t rows, std::int64_t count, T* sums);

}  // namespace ornik::device::cpu
