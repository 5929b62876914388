#include "cpu_exp.h"

#include <Eigen/Core>
#include <algorithm>

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

}  // namespace

template <typename T>
void exp_shifted(const T* in, T shift, T* out, std::int64_t n) {
    by_blocks(in, out, n, [shift](const T* source, std::int64_t, std::int64_t, T* target) {
        Eigen::Map<Lanes<T>> result(target);
        result = (Eigen::Map<const Lanes<T>>(source) - shift).exp();
    });
}

template <typename T>
void exp_shifted(const T* in, const T* shifts, T* out, std::int64_t n) {
    by_blocks(in, out, n, [shifts](const T* source, std::int64_t at, std::int64_t count, T* target) {
        Lanes<T> shift = Lanes<T>::Zero();
        std::copy_n(shifts + at, count, shift.data());
        Eigen::Map<Lanes<T>> result(target);
        result = (Eigen::Map<const Lanes<T>>(source) - shift).exp();
    });
}

template void exp_shifted(const float*, float, float*, std::int64_t);
template void exp_shifted(const double*, double, double*, std::int64_t);
template void exp_shifted(const float*, const float*, float*, std::int64_t);
template void exp_shifted(const double*, const double*, double*, std::int64_t);

}  // namespace ornik::device::cpu
