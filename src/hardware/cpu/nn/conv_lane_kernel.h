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

/// Steps over the taps of some channels: runs of them, behind each of which so many weights are left out.
struct LaneSteps {
    const std::int64_t* offsets;  // of the slots, per step
    std::int64_t count;
    std::int64_t first;  // weights left out before the first step
    std::int64_t run;
    std::int64_t gap;
};
inline LaneSteps all_steps(const std::int64_t* offsets, std::int64_t count) { return {offsets, count, 0, count, 0}; }

/// One chain: for position q, vector v and lane i of `width`, that of `Vectors` vectors,
///     sum = sum over steps k of weights[w(k) * width + v * lanes + i] * slots[offsets[k] + q * Step],
/// stored to out[v * vector_stride + q * out_stride + i], or added to what is there, and ended. Weights `ahead` are
/// brought near meanwhile, `ahead_step` of them with every step.
template <typename T>
struct LaneChain {
    const T* slots;
    LaneSteps steps;
    const T* weights;
    bool first;
    T* out;
    std::int64_t out_stride;
    std::int64_t vector_stride;
    const T* ahead;
    std::int64_t ahead_step;
    LaneEnds<T> ends{};
    const LaneSteps* all = nullptr;  // taken by sums of -0, where some are left out

    /// Goes on to what is stored so many positions behind.
    void pass(std::int64_t positions) {
        out += positions * out_stride;
        if (ends.residual != nullptr) {
            ends.residual += positions * out_stride;
        }
    }
};

template <typename V, std::size_t Vectors, std::size_t Positions>
ORNIK_EXPAND bool any_negative_zero(const V (&sums)[Vectors][Positions]) {
    using Mask = decltype(V{} < V{});
    const auto sign = (Mask)(-V{});
    Mask found{};
    ORNIK_UNROLLED
    for (std::size_t v = 0; v < Vectors; ++v) {
        ORNIK_UNROLLED
        for (std::size_t q = 0; q < Positions; ++q) {
            found |= (Mask)sums[v][q] == sign;
        }
    }
    bool any = false;
    for (std::size_t i = 0; i < sizeof(V) / sizeof(found[0]); ++i) {
        any = any || found[i] != 0;
    }
    return any;
}

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
        const T* weights = in.weights + in.steps.first * width;
        const T* const slots = in.slots;
        const T* ahead = in.ahead;
        const std::int64_t ahead_step = in.ahead_step;
        const std::int64_t* offset = in.steps.offsets;
        const std::int64_t* const end = offset + in.steps.count;
        for (; offset < end; weights += in.steps.gap * width) {
            for (const std::int64_t* const stop = offset + in.steps.run; offset < stop;
                 ++offset, weights += width, ahead += ahead_step) {
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
        }
        if (!steps.vouches_for(sums)) {
            return false;
        }
        V totals[Vectors][Positions];
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                totals[v][q] = steps.value(sums[v][q]);
            }
        }
        if (in.all != nullptr && any_negative_zero(totals)) {
            LaneChain<T> whole = in;
            whole.steps = *in.all;
            whole.all = nullptr;
            lane_chain<T, Vectors, Step, Positions>(whole);
            return true;
        }
        T* const out = in.out;
        const bool first = in.first;
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                const T* to = out + v * in.vector_stride + q * in.out_stride;
                totals[v][q] = first ? totals[v][q] : vec::load<V>(to) + totals[v][q];
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
        chain.ahead += chain.steps.count * chain.ahead_step;
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
