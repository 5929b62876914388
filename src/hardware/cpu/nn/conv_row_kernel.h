// conv_row_kernel.h: sums of neighbouring positions for a few target channels. Internal; for *_vector.cpp alone.
//
// Lanes are positions, a weight is broadcast. Everything that a chain needs stays in registers.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "hardware/cpu/vector_chain.h"

namespace ornik::device::cpu {
namespace {

constexpr int row_targets = 4;  // of a panel

/// Vectors of positions that go together.
constexpr int row_vectors(int targets) {
    constexpr int few[] = {6, 4, 3, 3};
    constexpr int many[] = {12, 8, 6, 6};
    return (vec::vector_registers == 32 ? many : few)[targets - 1];
}

/// One chain: for target o of a panel and position i
///     sum = sum over k < steps of weights[k * weight_step + o * weight_stride] * slots[offsets[k] + i],
/// stored to out[o * out_stride + i] or added to what is there.
template <typename T>
struct RowChain {
    const T* slots;
    const std::int64_t* offsets;
    const T* weights;
    std::int64_t weight_step;
    std::int64_t weight_stride;
    std::int64_t steps;
    bool first;
    T* out;
    std::int64_t out_stride;
};

template <typename T, int Targets, int Vectors>
[[gnu::noinline]] void row_chain(const RowChain<T>& in) {
    using V = vec::Vector<T>;
    constexpr int width = vec::lanes<T>;
    vec::run_chains<T>([&](auto steps) ORNIK_EXPANDED {
        using Steps = decltype(steps);
        typename Steps::Sum sums[Targets][Vectors];
        ORNIK_UNROLLED
        for (int o = 0; o < Targets; ++o) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                sums[o][v] = steps.from(V{});
            }
        }
        const T* const slots = in.slots;
        const T* weights = in.weights;
        const std::int64_t weight_step = in.weight_step;
        const std::int64_t weight_stride = in.weight_stride;
        const std::int64_t* const end = in.offsets + in.steps;
        for (const std::int64_t* offset = in.offsets; offset < end; ++offset, weights += weight_step) {
            typename Steps::Factor values[Vectors];
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                values[v] = steps.factor(vec::load<V>(slots + *offset + v * width));
            }
            ORNIK_UNROLLED
            for (int o = 0; o < Targets; ++o) {
                const auto weight = steps.weight(weights[o * weight_stride]);
                ORNIK_UNROLLED
                for (int v = 0; v < Vectors; ++v) {
                    steps.add(weight, values[v], sums[o][v]);
                }
            }
        }
        if (!steps.vouches_for(sums)) {
            return false;
        }
        const bool first = in.first;
        ORNIK_UNROLLED
        for (int o = 0; o < Targets; ++o) {
            ORNIK_UNROLLED
            for (int v = 0; v < Vectors; ++v) {
                T* to = in.out + o * in.out_stride + v * width;
                const V sum = steps.value(sums[o][v]);
                vec::store(first ? sum : vec::load<V>(to) + sum, to);
            }
        }
        return true;
    });
}

template <typename T>
using RowChainFunction = void (*)(const RowChain<T>&);

template <typename T, int Targets, int... Vector>
constexpr auto row_chains_of(std::integer_sequence<int, Vector...> /*vectors*/) {
    return std::array<RowChainFunction<T>, sizeof...(Vector)>{&row_chain<T, Targets, Vector + 1>...};
}

/// Adds a block for `count` vectors of positions, cut evenly.
template <typename T, int Targets>
void run_row_chains(RowChain<T> chain, std::int64_t count) {
    constexpr int most = row_vectors(Targets);
    static constexpr auto chains = row_chains_of<T, Targets>(std::make_integer_sequence<int, most>());
    for (std::int64_t pieces = (count + most - 1) / most; pieces > 0; --pieces) {
        const std::int64_t vectors = count / pieces;
        chains[static_cast<std::size_t>(vectors - 1)](chain);
        chain.slots += vectors * vec::lanes<T>;
        chain.out += vectors * vec::lanes<T>;
        count -= vectors;
    }
}

template <typename T>
void run_row_chains(const RowChain<T>& chain, std::int64_t targets, std::int64_t count) {
    switch (targets) {
        case 1:
            return run_row_chains<T, 1>(chain, count);
        case 2:
            return run_row_chains<T, 2>(chain, count);
        case 3:
            return run_row_chains<T, 3>(chain, count);
        default:
            return run_row_chains<T, row_targets>(chain, count);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
