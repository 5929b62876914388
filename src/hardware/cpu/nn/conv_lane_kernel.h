// conv_lane_kernel.h: sums of a few positions for two vectors of target channels. Internal; for *_vector.cpp alone.
//
// Lanes are target channels, a position's source value is broadcast. Everything that a chain needs stays in registers.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "hardware/cpu/vector_chain.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
constexpr int lane_width = vec::lanes<T>;
constexpr int lane_vectors = 2;  // of a panel
/// Positions that go together: their sums, two weights and a source value fill the registers.
constexpr int lane_positions = vec::vector_registers == 32 ? 14 : 6;

/// One chain: for position q and lane i
///     sum = sum over k < steps of weights[k * width + i] * slots[offsets[k] + q],
/// stored to out[q * out_stride + i] or added to what is there; width is that of `Vectors` vectors.
template <typename T>
struct LaneChain {
    const T* slots;
    const std::int64_t* offsets;
    const T* weights;
    std::int64_t steps;
    bool first;
    T* out;
    std::int64_t out_stride;
};

template <typename T, int Vectors, int Positions>
[[gnu::noinline]] void lane_chain(const LaneChain<T>& in) {
    using V = vec::Vector<T>;
    constexpr int width = Vectors * lane_width<T>;
    vec::run_chains<T>([&](auto steps) ORNIK_EXPANDED {
        using Steps = decltype(steps);
        typename Steps::Sum sums[Vectors][Positions];
        ORNIK_UNROLLED
        for (int v = 0; v < Vectors; ++v) {
            ORNIK_UNROLLED
            for (int q = 0; q < Positions; ++q) {
                sums[v][q] = steps.from(V{});
            }
        }
        const T* weights = in.weights;
        const T* const slots = in.slots;
        const std::int64_t* const end = in.offsets + in.steps;
        for (const std::int64_t* offset = in.offsets; offset < end; ++offset, weights += width) {
            const T* values = slots + *offset;
            typename Steps::Factor weight[Vectors];
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                weight[v] = steps.factor(vec::load<V>(weights + v * lane_width<T>));
            }
            ORNIK_UNROLLED
            for (int q = 0; q < Positions; ++q) {
                const auto value = steps.weight(values[q]);
                ORNIK_UNROLLED
                for (int v = 0; v < Vectors; ++v) {
                    steps.add(value, weight[v], sums[v][q]);
                }
            }
        }
        if (!steps.vouches_for(sums)) {
            return false;
        }
        T* const out = in.out;
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                T* to = out + q * in.out_stride + v * lane_width<T>;
                const V sum = steps.value(sums[v][q]);
                vec::store(in.first ? sum : vec::load<V>(to) + sum, to);
            }
        }
        return true;
    });
}

template <typename T>
using LaneChainFunction = void (*)(const LaneChain<T>&);

template <typename T, int Vectors, int... Position>
constexpr std::array<LaneChainFunction<T>, sizeof...(Position)> lane_chains_of(
    std::integer_sequence<int, Position...> /*positions*/) {
    return {&lane_chain<T, Vectors, Position + 1>...};
}

/// Runs the chains of `count` neighbouring positions, cut evenly.
template <typename T, int Vectors>
void run_lane_chains(LaneChain<T> chain, std::int64_t count) {
    static constexpr auto chains = lane_chains_of<T, Vectors>(std::make_integer_sequence<int, lane_positions>());
    for (std::int64_t pieces = (count + lane_positions - 1) / lane_positions; pieces > 0; --pieces) {
        const std::int64_t piece = (count + pieces - 1) / pieces;
        chains[static_cast<std::size_t>(piece - 1)](chain);
        chain.slots += piece;
        chain.out += piece * chain.out_stride;
        count -= piece;
    }
}

/// For panels of one vector or two.
template <typename T>
void run_lane_chains(const LaneChain<T>& chain, std::int64_t width, std::int64_t count) {
    if (width > lane_width<T>) {
        run_lane_chains<T, lane_vectors>(chain, count);
    } else {
        run_lane_chains<T, 1>(chain, count);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
