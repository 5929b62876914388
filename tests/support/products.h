// products.h: products of matrices by plain loops.
#pragma once

#include "hardware/cpu/product/cpu_product.h"
#include "tensors.h"

namespace ornik::test {

using device::cpu::ProductPlan;

/// sum + a b; integers wrap.
template <typename T>
T multiply_add(T sum, T a, T b) {
    if constexpr (std::is_same_v<T, bool>) {
        return sum || (a && b);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(static_cast<std::uint64_t>(sum) +
                              static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
    } else {
        return sum + a * b;
    }
}

/// The plan's product in the order of its definition.
template <typename T>
std::vector<T> naive(const ProductPlan& p, const std::vector<T>& a, const std::vector<T>& b, std::vector<T> c) {
    for (std::int64_t n = 0; n < p.batch; ++n) {
        for (std::int64_t i = 0; i < p.rows; ++i) {
            for (std::int64_t j = 0; j < p.cols; ++j) {
                T sum = T(0);
                for (std::int64_t k = 0; k < p.depth; ++k) {
                    const std::int64_t at_a = p.transpose_a ? k * p.rows + i : i * p.depth + k;
                    const std::int64_t at_b = p.transpose_b ? j * p.depth + k : k * p.cols + j;
                    sum = multiply_add<T>(sum, a[static_cast<std::size_t>(n * p.rows * p.depth + at_a)],
                                          b[static_cast<std::size_t>(n * p.depth * p.cols + at_b)]);
                }
                const auto at = static_cast<std::size_t>((n * p.rows + i) * p.cols + j);
                c[at] = p.accumulate ? multiply_add<T>(c[at], T(1), sum) : sum;
            }
        }
    }
    return c;
}

}  // namespace ornik::test
