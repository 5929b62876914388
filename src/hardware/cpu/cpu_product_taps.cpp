// cpu_product_taps.cpp: sums and dot products over the taps of one channel.
#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Core>
#include <algorithm>
#include <complex>

#include "hardware/cpu/cpu_taps.h"

namespace ornik::device::cpu {

namespace {

template <typename T, int N>
using Block = Eigen::Array<T, N, 1>;

template <int N, typename T>
Block<T, N> load(const T* from) {
    return Eigen::Map<const Block<T, N>>(from);
}

template <typename T>
constexpr int packet = 32 / static_cast<int>(sizeof(T));

// Positions [x, x + Packets * packet) of one row of Targets channels; the sums stay in registers.
template <typename T, int Targets, int Packets>
void sum_block(const TapSums<T>& in, std::int64_t r, std::int64_t x) {
    using Packet = Block<T, packet<T>>;
    Packet sums[Targets][Packets];
    const std::int64_t count = std::min<std::int64_t>(in.count - x, Packets * packet<T>);
    const bool whole = count == Packets * packet<T>;
    for (int o = 0; o < Targets; ++o) {
        const T* out = in.out + o * in.out_stride + r * in.out_row + x;
        T copy[Packets * packet<T>];
        if (in.starts == nullptr && !whole) {
            std::fill(std::copy_n(out, count, copy), std::end(copy), T(0));
            out = copy;
        }
        for (int p = 0; p < Packets; ++p) {
            sums[o][p] = in.starts == nullptr ? load<packet<T>>(out + p * packet<T>) : Packet::Constant(in.starts[o]);
        }
    }
    for (std::int64_t k = 0; k < in.steps; ++k) {
        const T* from = in.slots + in.step_slots[k] + r * in.slot_row + x;
        const T* weights = in.weights + k * Targets;
        for (int p = 0; p < Packets; ++p) {
            const Packet value = load<packet<T>>(from + p * packet<T>);
            for (int o = 0; o < Targets; ++o) {
                sums[o][p] += weights[o] * value;
            }
        }
    }
    for (int o = 0; o < Targets; ++o) {
        T* out = in.out + o * in.out_stride + r * in.out_row + x;
        for (int p = 0; p < Packets; ++p) {
            if (whole) {
                Eigen::Map<Packet>(out + p * packet<T>) = sums[o][p];
            } else {
                const Packet last = sums[o][p];
                std::copy_n(last.data(), std::clamp<std::int64_t>(count - p * packet<T>, 0, packet<T>),
                            out + p * packet<T>);
            }
        }
    }
}

// Whole blocks, then one of as many packets as are left.
template <typename T, int Targets, int Packets>
void sum_blocks(const TapSums<T>& in, std::int64_t x) {
    std::int64_t next = x;
    for (; in.count - next > (Packets - 1) * packet<T>; next += Packets * packet<T>) {
        for (std::int64_t r = 0; r < in.rows; ++r) {
            sum_block<T, Targets, Packets>(in, r, next);
        }
    }
    if constexpr (Packets > 1) {
        sum_blocks<T, Targets, Packets - 1>(in, next);
    }
}

// Taps that one sweep over the values serves: their sums stay in registers.
constexpr int dot_taps = 9;

// Rows of values against rows of slots.
template <typename T>
struct DotRows {
    const T* slots;
    std::int64_t slot_row;
    const T* values;
    std::int64_t value_row;
    std::int64_t rows;
    std::int64_t count;
};

template <typename T, int Taps>
void dots(const DotRows<T>& in, const std::int64_t* taps, T* sums) {
    constexpr int width = packet<T>;
    Block<T, width> lanes[Taps];
    for (auto& lane : lanes) {
        lane.setZero();
    }
    for (std::int64_t r = 0; r < in.rows; ++r) {
        const T* values = in.values + r * in.value_row;
        const T* slots = in.slots + r * in.slot_row;
        std::int64_t x = 0;
        for (; x + width <= in.count; x += width) {
            const Block<T, width> value = load<width>(values + x);
            for (int t = 0; t < Taps; ++t) {
                lanes[t] += value * load<width>(slots + taps[t] + x);
            }
        }
        for (; x < in.count; ++x) {
            for (int t = 0; t < Taps; ++t) {
                sums[t] += values[x] * slots[taps[t] + x];
            }
        }
    }
    for (int t = 0; t < Taps; ++t) {
        sums[t] += lanes[t].sum();
    }
}

}  // namespace

template <typename T>
void tap_sums(const TapSums<T>& sums) {
    switch (sums.targets) {
        case 1:
            return sum_blocks<T, 1, 8>(sums, 0);
        case 2:
            return sum_blocks<T, 2, 4>(sums, 0);
        case 3:
            return sum_blocks<T, 3, 4>(sums, 0);
        default:
            return sum_blocks<T, 4, 2>(sums, 0);
    }
}

template <typename T>
void tap_dots(const T* slots, std::int64_t slot_row, const std::int64_t* taps, std::int64_t tap_count, const T* values,
              std::int64_t value_row, std::int64_t rows, std::int64_t count, T* sums) {
    const DotRows<T> in{slots, slot_row, values, value_row, rows, count};
    std::int64_t t = 0;
    for (; t + dot_taps <= tap_count; t += dot_taps) {
        dots<T, dot_taps>(in, taps + t, sums + t);
    }
    for (; t + 3 <= tap_count; t += 3) {
        dots<T, 3>(in, taps + t, sums + t);
    }
    for (; t < tap_count; ++t) {
        dots<T, 1>(in, taps + t, sums + t);
    }
}

#define ORNIK_INSTANTIATE_TAPS(T)                                                                             \
    template void tap_sums(const TapSums<T>&);                                                                \
    template void tap_dots(const T*, std::int64_t, const std::int64_t*, std::int64_t, const T*, std::int64_t, \
                           std::int64_t, std::int64_t, T*)

ORNIK_INSTANTIATE_TAPS(float);
ORNIK_INSTANTIATE_TAPS(double);
ORNIK_INSTANTIATE_TAPS(std::complex<float>);
ORNIK_INSTANTIATE_TAPS(std::complex<double>);

}  // namespace ornik::device::cpu
