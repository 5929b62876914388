// conv_lane_kernel.h: sums of a few positions for two vectors of target channels. Internal; for *_vector.cpp alone.
//
// Lanes are target channels, a position's source value is broadcast. Everything that a chain needs stays in registers.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "conv_ends.h"
#include "hardware/cpu/vector_chain.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
constexpr int lane_width = vec::lanes<T>;
/// Vectors that hold so many channels.
template <typename T>
constexpr std::int64_t lane_groups(std::int64_t channels) {
    return (channels + lane_width<T> - 1) / lane_width<T>;
}
constexpr int lane_vectors = 2;  // of a panel
/// Positions that go together: their sums, two weights and a source value fill the registers.
constexpr int lane_positions = vec::vector_registers == 32 ? 14 : 6;

constexpr std::int64_t lane_pieces(std::int64_t positions) { return (positions + lane_positions - 1) / lane_positions; }

/// The weights of a step, spread over so many chains.
constexpr std::int64_t lane_share(std::int64_t width, std::int64_t chains) { return (width + chains - 1) / chains; }

/// One chain: for position q, vector v and lane i of `width`, that of `Vectors` vectors,
///     sum = sum over k < steps of weights[k * width + v * lanes + i] * slots[offsets[k] + q * Step],
/// stored to out[v * vector_stride + q * out_stride + i], or added to what is there, and ended. Weights `ahead` are
/// brought near meanwhile, `ahead_step` of them with every step.
template <typename T>
struct LaneChain {
    const T* slots;
    const std::int64_t* offsets;
    const T* weights;
    std::int64_t steps;
    bool first;
    T* out;
    std::int64_t out_stride;
    std::int64_t vector_stride;
    const T* ahead;
    std::int64_t ahead_step;
    LaneEnds<T> ends{};

    /// Goes on to what is stored so many positions behind.
    void pass(std::int64_t positions) {
        out += positions * out_stride;
        if (ends.residual != nullptr) {
            ends.residual += positions * out_stride;
        }
    }
};

template <typename T, int Vectors, int Step, int Positions>
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
        const T* ahead = in.ahead;
        const std::int64_t ahead_step = in.ahead_step;
        const std::int64_t* const end = in.offsets + in.steps;
        for (const std::int64_t* offset = in.offsets; offset < end; ++offset, weights += width, ahead += ahead_step) {
            const T* values = slots + *offset;
            vec::prefetch_near(ahead);
            typename Steps::Factor weight[Vectors];
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                weight[v] = steps.factor(vec::load<V>(weights + v * lane_width<T>));
            }
            ORNIK_UNROLLED
            for (int q = 0; q < Positions; ++q) {
                const auto value = steps.weight(values[q * Step]);
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
        V totals[Vectors][Positions];
        const bool first = in.first;
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                const V sum = steps.value(sums[v][q]);
                const T* to = out + v * in.vector_stride + q * in.out_stride;
                totals[v][q] = first ? sum : vec::load<V>(to) + sum;
            }
        }
        end_lanes(in.ends, totals, in.vector_stride, in.out_stride);
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                vec::store(totals[v][q], out + v * in.vector_stride + q * in.out_stride);
            }
        }
        return true;
    });
}

template <typename T>
using LaneChainFunction = void (*)(const LaneChain<T>&);

template <typename T, int Vectors, int Step, int... Position>
constexpr std::array<LaneChainFunction<T>, sizeof...(Position)> lane_chains_of(
    std::integer_sequence<int, Position...> /*positions*/) {
    return {&lane_chain<T, Vectors, Step, Position + 1>...};
}

/// Runs the chains of `count` neighbouring positions, cut evenly.
template <typename T, int Vectors, int Step>
void run_lane_chains(LaneChain<T>& chain, std::int64_t count) {
    static constexpr auto chains = lane_chains_of<T, Vectors, Step>(std::make_integer_sequence<int, lane_positions>());
    for (std::int64_t pieces = lane_pieces(count); pieces > 0; --pieces) {
        const std::int64_t piece = (count + pieces - 1) / pieces;
        chains[static_cast<std::size_t>(piece - 1)](chain);
        chain.slots += piece * Step;
        chain.pass(piece);
        chain.ahead += chain.steps * chain.ahead_step;
        count -= piece;
    }
}

/// For panels of one vector or two. The chain goes on behind the positions.
template <typename T, int Step = 1>
void run_lane_chains(LaneChain<T>& chain, std::int64_t width, std::int64_t count) {
    if (width > lane_width<T>) {
        run_lane_chains<T, lane_vectors, Step>(chain, count);
    } else {
        run_lane_chains<T, 1, Step>(chain, count);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
