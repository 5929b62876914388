// cpu_product_taps.cpp: sums and dot products over the taps of staged slots.
#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Core>
#include <algorithm>
#include <complex>

#include "hardware/cpu/product/cpu_taps.h"

namespace ornik::device::cpu {

namespace {

template <typename T, int N>
using Block = Eigen::Array<T, N, 1>;

template <int N, typename T>
Block<T, N> load(const T* from) {
    return Eigen::Map<const Block<T, N>>(from);
}

template <typename T, int N>
void store(const Block<T, N>& values, T* to) {
    Eigen::Map<Block<T, N>> place{to};
    place = values;
}

#if defined(__AVX512F__)
constexpr int vector_bytes = 64;
#else
constexpr int vector_bytes = 32;
#endif

template <typename T>
constexpr int packet = vector_bytes / static_cast<int>(sizeof(T));

// The places of the next group of targets arrive while the sums of this one are made.
template <typename T>
void prefetch_for_writing([[maybe_unused]] T* to) {
#if defined(__GNUC__)
    __builtin_prefetch(to, 1);
#endif
}

// Packets that are summed together.
template <int Packets>
struct TapSet {
    std::int64_t slots[Packets];
    std::int64_t outs[Packets];
    std::int64_t counts[Packets];

    explicit TapSet(const TapPacket* packets) {
        for (int p = 0; p < Packets; ++p) {
            slots[p] = packets[p].slot;
            outs[p] = packets[p].out;
            counts[p] = packets[p].count;
        }
    }
};

// The targets [target, target + Targets) of whole packets; results of target o are at out + o * stride + outs[]. All
// sums stay in registers, and the operands of one step with them: twelve sums, three packets and a weight where there
// are sixteen registers. Inlined into the loops over sets it would share its registers with theirs.
template <int Targets, int Packets, typename T>
[[gnu::noinline]] void sum_whole(const TapSums<T>& in, std::int64_t target, const TapSet<Packets>& set,
                                 const std::int64_t* outs, T* out, std::int64_t stride) {
    using Packet = Block<T, packet<T>>;
    const T* weights[Targets];
    Packet sums[Targets][Packets];
    for (int o = 0; o < Targets; ++o) {
        weights[o] = in.weights + in.target_weights[target + o];
    }
    if (in.starts == nullptr) {
        for (int o = 0; o < Targets; ++o) {
            for (int p = 0; p < Packets; ++p) {
                sums[o][p] = load<packet<T>>(out + o * stride + outs[p]);
            }
        }
    } else {
        for (int o = 0; o < Targets; ++o) {
            for (int p = 0; p < Packets; ++p) {
                sums[o][p] = Packet::Constant(in.starts[target + o]);
            }
        }
    }
    for (int o = Targets; o < 2 * Targets; ++o) {
        for (int p = 0; p < Packets; ++p) {
            prefetch_for_writing(out + o * stride + outs[p]);
        }
    }
    for (std::int64_t k = 0; k < in.steps; ++k) {
        const T* slots = in.slots + in.step_slots[k];
        const std::int64_t weight_step = in.step_weights[k];
        Packet values[Packets];
        for (int p = 0; p < Packets; ++p) {
            values[p] = load<packet<T>>(slots + set.slots[p]);
        }
        for (int o = 0; o < Targets; ++o) {
            const Packet weight = Packet::Constant(weights[o][weight_step]);
            for (int p = 0; p < Packets; ++p) {
                sums[o][p] += weight * values[p];
            }
        }
    }
    for (int o = 0; o < Targets; ++o) {
        for (int p = 0; p < Packets; ++p) {
            store(sums[o][p], out + o * stride + outs[p]);
        }
    }
}

template <int Targets, int Packets, typename T>
void sum_set(const TapSums<T>& in, std::int64_t target, const TapSet<Packets>& set) {
    T* out = in.out + target * in.out_stride;
    if (std::all_of(set.counts, set.counts + Packets, [](std::int64_t count) { return count == packet<T>; })) {
        sum_whole<Targets>(in, target, set, set.outs, out, in.out_stride);
        return;
    }
    // Cut packets are completed in a copy.
    constexpr std::int64_t copied_row = Packets * packet<T>;
    T copies[Targets][copied_row] = {};
    std::int64_t copied[Packets];
    for (int p = 0; p < Packets; ++p) {
        copied[p] = p * packet<T>;
        for (int o = 0; o < Targets && in.starts == nullptr; ++o) {
            std::copy_n(out + o * in.out_stride + set.outs[p], set.counts[p], copies[o] + copied[p]);
        }
    }
    sum_whole<Targets>(in, target, set, copied, copies[0], copied_row);
    for (int p = 0; p < Packets; ++p) {
        for (int o = 0; o < Targets; ++o) {
            std::copy_n(copies[o] + copied[p], set.counts[p], out + o * in.out_stride + set.outs[p]);
        }
    }
}

// A set's slots stay near for all targets.
template <int Packets, typename T>
void sum_targets(const TapSums<T>& in, const TapSet<Packets>& set) {
    std::int64_t target = 0;
    for (; target + tap_targets <= in.targets; target += tap_targets) {
        sum_set<tap_targets>(in, target, set);
    }
    switch (in.targets - target) {
        case 1:
            return sum_set<1>(in, target, set);
        case 2:
            return sum_set<2>(in, target, set);
        case 3:
            return sum_set<3>(in, target, set);
        default:
            return;
    }
}

// Sets of three, but no set of one if it can be helped: its few sums would wait for each other.
template <int Packets, typename T>
void sum_sets(const TapSums<T>& in, std::int64_t first) {
    std::int64_t left = in.packet_count - first;
    for (; left >= Packets && (Packets != 3 || left != 4); left -= Packets, first += Packets) {
        sum_targets(in, TapSet<Packets>(in.packets + first));
    }
    if constexpr (Packets > 1) {
        sum_sets<Packets - 1>(in, first);
    }
}

// The same for one target, whose sets are larger.
template <int Packets, typename T>
void sum_single(const TapSums<T>& in, std::int64_t first) {
    for (; in.packet_count - first >= Packets; first += Packets) {
        sum_set<1>(in, 0, TapSet<Packets>(in.packets + first));
    }
    if constexpr (Packets > 1) {
        sum_single<Packets / 2>(in, first);
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
std::int64_t tap_packet() {
    return packet<T>;
}

template <typename T>
void tap_sums(const TapSums<T>& sums) {
    if (sums.targets == 1) {
        sum_single<8>(sums, 0);
    } else {
        sum_sets<3>(sums, 0);
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

template std::int64_t tap_packet<float>();
template std::int64_t tap_packet<double>();
template void tap_sums(const TapSums<float>&);
template void tap_sums(const TapSums<double>&);

#define ORNIK_INSTANTIATE_DOTS(T)                                                                             \
    template void tap_dots(const T*, std::int64_t, const std::int64_t*, std::int64_t, const T*, std::int64_t, \
                           std::int64_t, std::int64_t, T*)

ORNIK_INSTANTIATE_DOTS(float);
ORNIK_INSTANTIATE_DOTS(double);
ORNIK_INSTANTIATE_DOTS(std::complex<float>);
ORNIK_INSTANTIATE_DOTS(std::complex<double>);

}  // namespace ornik::device::cpu
