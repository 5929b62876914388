// cpu_taps.h: the inner loops of convolutions that keep their channels apart. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// Most target channels that tap_sums computes at once.
inline constexpr std::int64_t most_direct_targets = 4;

/// out[o * out_stride + r * out_row + x] = start of o + sum over k < steps of weights[k * targets + o] *
/// slots[step_slots[k] + r * slot_row + x] for r < rows, x < count and every target o. Without starts, what is in
/// out is the start.
template <typename T>
struct TapSums {
    const T* slots;
    std::int64_t slot_row;
    const std::int64_t* step_slots;
    const T* weights;
    std::int64_t steps;
    std::int64_t targets;
    const T* starts;
    T* out;
    std::int64_t out_stride;
    std::int64_t out_row;
    std::int64_t rows;
    std::int64_t count;
};

/// May read up to 256 bytes of slots beyond what count asks for. float, double and their std::complex.
template <typename T>
void tap_sums(const TapSums<T>& sums);

/// sums[t] += sum over r < rows, x < count of values[r * value_row + x] * slots[taps[t] + r * slot_row + x].
template <typename T>
void tap_dots(const T* slots, std::int64_t slot_row, const std::int64_t* taps, std::int64_t tap_count, const T* values,
              std::int64_t value_row, std::int64_t rows, std::int64_t count, T* sums);

}  // namespace ornik::device::cpu
