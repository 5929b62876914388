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

template <int N, typename T>
Block<T, N> block_sum(const T* slots, const std::int64_t* taps, const T* weights, std::int64_t tap_count, T start) {
    Block<T, N> sum = Block<T, N>::Constant(start);
    for (std::int64_t t = 0; t < tap_count; ++t) {
        sum += weights[t] * load<N>(slots + taps[t]);
    }
    return sum;
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
    constexpr int width = 32 / static_cast<int>(sizeof(T));
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
void tap_sums(const T* slots, const std::int64_t* taps, const T* weights, std::int64_t tap_count, T start,
              std::int64_t count, T* out) {
    constexpr int width = 32 / static_cast<int>(sizeof(T));
    std::int64_t x = 0;
    for (; x + 4 * width <= count; x += 4 * width) {
        Eigen::Map<Block<T, 4 * width>>(out + x) = block_sum<4 * width>(slots + x, taps, weights, tap_count, start);
    }
    for (; x < count; x += width) {
        const Block<T, width> sum = block_sum<width>(slots + x, taps, weights, tap_count, start);
        std::copy_n(sum.data(), std::min<std::int64_t>(width, count - x), out + x);
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
    template void tap_sums(const T*, const std::int64_t*, const T*, std::int64_t, T, std::int64_t, T*);       \
    template void tap_dots(const T*, std::int64_t, const std::int64_t*, std::int64_t, const T*, std::int64_t, \
                           std::int64_t, std::int64_t, T*)

ORNIK_INSTANTIATE_TAPS(float);
ORNIK_INSTANTIATE_TAPS(double);
ORNIK_INSTANTIATE_TAPS(std::complex<float>);
ORNIK_INSTANTIATE_TAPS(std::complex<double>);

}  // namespace ornik::device::cpu
