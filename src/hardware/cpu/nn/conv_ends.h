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

/// T, or a vector of them.
template <typename T, typename V>
ORNIK_EXPAND V clipped(ConvClip clip, V sum) {
    const V zero{};
    const V six = V{} + T(6);
    if constexpr (sizeof(V) == sizeof(T)) {
        if (clip == ConvClip::relu) {
            return sum <= zero ? zero : sum;
        }
        const V above = sum < zero ? zero : sum;
        return above > six ? six : above;
    } else {
        if (clip == ConvClip::relu) {
            return chosen(sum <= zero, zero, sum);
        }
        const V above = chosen(sum < zero, zero, sum);
        return chosen(above > six, six, above);
    }
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
    return ends.clip == ConvClip::none ? sum : clipped<T>(ends.clip, sum);
}

/// What follows sums of vectors of channels side by side, at one place. Null members are left out.
template <typename T>
struct LaneEnds {
    const T* bias = nullptr;
    const T* residual = nullptr;
    ConvClip clip = ConvClip::none;
};

/// sums[v][q] are the sums of vector v at position q; those of a vector have a bias, a residual lies where the sum
/// goes: at v * vector_stride + q * stride.
template <typename T, typename V, std::size_t Vectors, std::size_t Positions>
ORNIK_EXPAND void end_lanes(const LaneEnds<T>& ends, V (&sums)[Vectors][Positions], std::int64_t vector_stride,
                            std::int64_t stride) {
    const auto change = [&](const auto& to) ORNIK_EXPANDED {
        ORNIK_UNROLLED
        for (std::size_t v = 0; v < Vectors; ++v) {
            ORNIK_UNROLLED
            for (std::size_t q = 0; q < Positions; ++q) {
                sums[v][q] = to(sums[v][q], static_cast<std::int64_t>(v), static_cast<std::int64_t>(q));
            }
        }
    };
    if (ends.bias != nullptr) {
        change([&](const V& sum, std::int64_t v, std::int64_t /*q*/)
                   ORNIK_EXPANDED { return sum + vec::load<V>(ends.bias + v * vec::lanes<T>); });
    }
    if (ends.residual != nullptr) {
        change([&](const V& sum, std::int64_t v, std::int64_t q)
                   ORNIK_EXPANDED { return sum + vec::load<V>(ends.residual + v * vector_stride + q * stride); });
    }
    if (ends.clip == ConvClip::relu) {
        change([&](const V& sum, std::int64_t /*v*/, std::int64_t /*q*/)
                   ORNIK_EXPANDED { return clipped<T>(ConvClip::relu, sum); });
    } else if (ends.clip == ConvClip::relu6) {
        change([&](const V& sum, std::int64_t /*v*/, std::int64_t /*q*/)
                   ORNIK_EXPANDED { return clipped<T>(ConvClip::relu6, sum); });
    }
}

}  // namespace
}  // namespace ornik::device::cpu
