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

/// Rows that know of their ends have no fewer positions: a step at an end leaves the processor busy.
constexpr int least_row = 7;
/// Do chains know of the ends of their rows? Those of few positions have too few rows to themselves.
constexpr bool has_row_ends = vec::has_forms && lane_positions >= 2 * least_row;

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
    const std::uint8_t* beyond = nullptr;  // the RowEnds that a step finds beyond the source, for chains of rows
};
inline LaneSteps all_steps(const std::int64_t* offsets, std::int64_t count) { return {offsets, count, 0, count, 0}; }

/// Ends of a row of positions, as bits.
enum RowEnds : unsigned { no_end = 0, left_end = 1, right_end = 2, both_ends = 3 };

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
    unsigned row_ends = no_end;      // that leave out the steps beyond the source

    /// Goes on to what lies so many positions of `Step` slots behind.
    template <int Step>
    void pass(std::int64_t positions) {
        slots += positions * Step;
        out += positions * out_stride;
        if (ends.residual != nullptr) {
            ends.residual += positions * out_stride;
        }
        ahead += steps.count * ahead_step;
    }
};

/// As whole numbers, -0 is less than all others.
template <typename V, std::size_t Vectors, std::size_t Positions>
ORNIK_EXPAND bool any_negative_zero(const V (&sums)[Vectors][Positions]) {
    using Whole = decltype(V{} < V{});
    Whole least{};
    ORNIK_UNROLLED
    for (std::size_t v = 0; v < Vectors; ++v) {
        ORNIK_UNROLLED
        for (std::size_t q = 0; q < Positions; ++q) {
            const auto whole = (Whole)sums[v][q];
            least = whole < least ? whole : least;
        }
    }
    const auto found = least == (Whole)(-V{});
    return vec::any_from((vec::Vector<std::uint32_t, sizeof(V)>)found, 1);
}

/// `Row` is 0, or the length of the rows that the positions make up.
template <typename T, int Vectors, int Step, int Positions, int Row>
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
        [[maybe_unused]] const std::uint8_t* at_ends = in.steps.beyond;
        [[maybe_unused]] const unsigned row_ends = in.row_ends;
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
                const auto add = [&](int q) ORNIK_EXPANDED {
                    const auto value = steps.weight(values[q * Step]);
                    ORNIK_UNROLLED
                    for (int v = 0; v < Vectors; ++v) {
                        steps.add(value, weight[v], sums[v][q]);
                    }
                };
                if constexpr (Row == 0) {
                    ORNIK_UNROLLED
                    for (int q = 0; q < Positions; ++q) {
                        add(q);
                    }
                } else {
                    const unsigned beyond = *at_ends++ & row_ends;
                    if ((beyond & left_end) == 0) {
                        ORNIK_UNROLLED
                        for (int q = 0; q < Positions; q += Row) {
                            add(q);
                        }
                    }
                    ORNIK_UNROLLED
                    for (int q = 0; q < Positions; ++q) {
                        if (q % Row != 0 && q % Row != Row - 1) {
                            add(q);
                        }
                    }
                    if ((beyond & right_end) == 0) {
                        ORNIK_UNROLLED
                        for (int q = Row - 1; q < Positions; q += Row) {
                            add(q);
                        }
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
            whole.row_ends = no_end;
            lane_chain<T, Vectors, Step, Positions, Row>(whole);
            return true;
        }
        T* const out = in.out;
        if (!in.first) {
            ORNIK_UNROLLED
            for (int q = 0; q < Positions; ++q) {
                ORNIK_UNROLLED
                for (int v = 0; v < Vectors; ++v) {
                    totals[v][q] = vec::load<V>(out + v * in.vector_stride + q * in.out_stride) + totals[v][q];
                }
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

/// True when none is infinite or NaN: products with 0 add up to 0, then.
template <typename T>
bool are_finite(const T* weights, std::int64_t count) {
    using V = vec::Vector<T>;
    V zeros{};
    for (; count >= vec::lanes<T>; count -= vec::lanes<T>, weights += vec::lanes<T>) {
        zeros += vec::load<V>(weights) * V{};
    }
    T zero = T(0);
    for (std::int64_t i = 0; i < vec::lanes<T>; ++i) {
        zero += zeros[static_cast<std::size_t>(i)] + (i < count ? weights[i] * T(0) : T(0));
    }
    return zero == T(0);
}

template <typename T>
using LaneChainFunction = void (*)(const LaneChain<T>&);

/// Of chains of so many positions, which are a row or a part of one if `Ends` says so.
template <typename T, int Vectors, int Step, bool Ends, int... Position>
constexpr std::array<LaneChainFunction<T>, sizeof...(Position)> lane_chains_of(
    std::integer_sequence<int, Position...> /*positions*/) {
    return {&lane_chain < T, Vectors, Step, Position + 1, Ends && Position + 1 >= least_row ? Position + 1 : 0 > ...};
}

/// Runs the chains of `count` neighbouring positions, cut evenly. `row_ends` are theirs, of chains that have some.
template <typename T, int Vectors, int Step, bool Ends>
void run_lane_chains(LaneChain<T>& chain, std::int64_t count, unsigned row_ends) {
    static constexpr auto chains =
        lane_chains_of<T, Vectors, Step, Ends>(std::make_integer_sequence<int, lane_positions>());
    chain.row_ends = row_ends & left_end;
    for (std::int64_t pieces = lane_pieces(count); pieces > 0; --pieces) {
        const std::int64_t piece = (count + pieces - 1) / pieces;
        if (pieces == 1) {
            chain.row_ends |= row_ends & right_end;
        }
        chains[static_cast<std::size_t>(piece - 1)](chain);
        chain.template pass<Step>(piece);
        chain.row_ends = no_end;
        count -= piece;
    }
}

/// For panels of one vector or two. The chain goes on behind the positions.
template <typename T, int Step = 1, bool Ends = false>
void run_lane_chains(LaneChain<T>& chain, std::int64_t width, std::int64_t count, unsigned row_ends = no_end) {
    if (width > lane_width<T>) {
        run_lane_chains<T, lane_vectors, Step, Ends>(chain, count, row_ends);
    } else {
        run_lane_chains<T, 1, Step, false>(chain, count, no_end);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
