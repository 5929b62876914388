// cpu_taps.h: sums over the taps of staged slots, for few and for many channels. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// Up to tap_packet<T>() positions whose slots and results lie side by side.
struct TapPacket {
    std::int64_t slot;
    std::int64_t out;
    std::int64_t count;
};

/// Positions that one vector of the processor holds.
template <typename T>
std::int64_t tap_packet();

/// Targets that are computed together; their weights are best near each other.
inline constexpr std::int64_t tap_targets = 4;

/// For every target o and position i of a packet
///     out[o * out_stride + packet.out + i] = start of o + sum over k < steps of
///         weights[target_weights[o] + step_weights[k]] * slots[step_slots[k] + packet.slot + i],
/// the terms added in order. Without starts, what is in out is the start.
template <typename T>
struct TapSums {
    const T* slots;
    const std::int64_t* step_slots;
    const T* weights;
    const std::int64_t* step_weights;
    const std::int64_t* target_weights;
    std::int64_t steps;
    std::int64_t targets;
    const T* starts;
    const TapPacket* packets;
    std::int64_t packet_count;
    T* out;
    std::int64_t out_stride;
};

/// May read up to one vector of slots beyond what packets ask for. float and double.
template <typename T>
void tap_sums(const TapSums<T>& sums);

/// float, double and their std::complex: sums[t] += sum over r < rows, x < count of values[r * value_row + x] *
/// slots[taps[t] + r * slot_row + x].
template <typename T>
void tap_dots(const T* slots, std::int64_t slot_row, const std::int64_t* taps, std::int64_t tap_count, const T* values,
              std::int64_t value_row, std::int64_t rows, std::int64_t count, T* sums);

}  // namespace ornik::device::cpu
