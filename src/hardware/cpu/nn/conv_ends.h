// conv_ends.h: what follows a convolution's sums while they are in registers. Internal; for *_vector.cpp alone.
#pragma once

#include <cstdint>

#include "cpu_conv_kernels.h"
#include "hardware/cpu/vector_types.h"

namespace ornik::device::cpu {
namespace {

/// Where the mask is set, a; b elsewhere.
template <typename M, typename V>
ORNIK_EXPAND V chosen(M mask, V a, V b) {
    return (V)(((M)a & mask) | ((M)b & ~mask));
}

/// Sums of one channel at a place of the target. T, or a vector of them.
template <typename T, typename V>
ORNIK_EXPAND V ended(const ConvEnds<T>& ends, V sum, T bias, std::int64_t at) {
    if (ends.bias != nullptr) {
        sum = sum + bias;
    }
    if (ends.residual != nullptr) {
        sum = sum + vec::load<V>(ends.residual + at);
    }
    if (ends.clip == ConvClip::none) {
        return sum;
    }
    const V zero{};
    const V six = V{} + T(6);
    if constexpr (sizeof(V) == sizeof(T)) {
        if (ends.clip == ConvClip::relu) {
            return sum <= zero ? zero : sum;
        }
        const V above = sum < zero ? zero : sum;
        return above > six ? six : above;
    } else {
        if (ends.clip == ConvClip::relu) {
            return chosen(sum <= zero, zero, sum);
        }
        const V above = chosen(sum < zero, zero, sum);
        return chosen(above > six, six, above);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
