#include "hardware/cpu/cpu_exp.h"

#include <Eigen/Core>
#include <algorithm>
#include <type_traits>

namespace ornik::device::cpu {

namespace {

// Whole blocks run in registers; the rest is padded to a block.
template <typename T, typename Block>
void by_blocks(const T* in, T* out, std::int64_t n, const Block& block) {
    constexpr std::int64_t width = 64 / static_cast<std::int64_t>(sizeof(T));
    std::int64_t i = 0;
    for (; i + width <= n; i += width) {
        block(in + i, i, width, out + i);
    }
    if (i < n) {
        T padded[width] = {};
        std::copy_n(in + i, n - i, padded);
        block(padded, i, n - i, padded);
        std::copy_n(padded, n - i, out + i);
    }
}

template <typename T>
using Lanes = Eigen::Array<T, 64 / static_cast<int>(sizeof(T)), 1>;

// The matrix library's exponential stops short of underflow: what it gives for a hugely negative number is not 0.
// The choice is a loop of its own, because its conditional expressions do not vectorise.
template <typename T>
void exp_lanes(const Lanes<T>& difference, T* out) {
    constexpr T lowest = std::is_same_v<T, float> ? T(-87.3365447505531) : T(-708.3964185322641);
    const Lanes<T> power = difference.exp();
    for (int i = 0; i < static_cast<int>(power.size()); ++i) {
        out[i] = difference[i] < lowest ? T(0) : power[i];
    }
}

}  // namespace

template <typename T>
void exp_shifted(const T* in, T shift, T* out, std::int64_t n) {
    by_blocks(in, out, n, [shift](const T* source, std::int64_t, std::int64_t, T* target) {
        exp_lanes<T>(Eigen::Map<const Lanes<T>>(source) - shift, target);
    });
}

template <typename T>
void exp_shifted(const T* in, const T* shifts, T* out, std::int64_t n) {
    by_blocks(in, out, n, [shifts](const T* source, std::int64_t at, std::int64_t count, T* target) {
        Lanes<T> shift = Lanes<T>::Zero();
        std::copy_n(shifts + at, count, shift.data());
        exp_lanes<T>(Eigen::Map<const Lanes<T>>(source) - shift, target);
    });
}

template void exp_shifted(const float*, float, float*, std::int64_t);
template void exp_shifted(const double*, double, double*, std::int64_t);
template void exp_shifted(const float*, const float*, float*, std::int64_t);
template void exp_shifted(const double*, const double*, double*, std::int64_t);

}  // namespace ornik::device::cpu
