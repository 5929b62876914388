// loss_sums.h: the sums that losses are made of. Internal.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "hardware/parallel.h"
#include "tensor/tensor.h"

namespace ornik::device::cpu {

/// The sum of term(i) for i in [0, n), in double: chunks of a fixed size in parallel, their sums in order.
template <typename Term>
double sum_of_terms(std::int64_t n, std::int64_t chunk, const Term& term) {
    constexpr std::int64_t lanes = 8;  // Independent sums, which the compiler can keep in registers.
    const std::int64_t chunks = (n + chunk - 1) / chunk;
    std::vector<double> partial(static_cast<std::size_t>(chunks));
    parallel_for(chunks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t c = begin; c < end; ++c) {
            double sum[lanes] = {};
            std::int64_t i = c * chunk;
            const std::int64_t last = std::min(n, i + chunk);
            for (; i + lanes <= last; i += lanes) {
                for (std::int64_t l = 0; l < lanes; ++l) {
                    sum[l] += static_cast<double>(term(i + l));
                }
            }
            for (std::int64_t l = 0; i < last; ++i, ++l) {
                sum[l] += static_cast<double>(term(i));
            }
            double total = 0;
            for (const double value : sum) {
                total += value;
            }
            partial[static_cast<std::size_t>(c)] = total;
        }
    });
    double sum = 0;
    for (const double value : partial) {
        sum += value;
    }
    return sum;
}

template <typename T>
const T* data_of(const Tensor* t) {
    return static_cast<const T*>(t->getRawData());
}
template <typename T>
T* data_of(Tensor* t) {
    return static_cast<T*>(t->getRawData());
}

}  // namespace ornik::device::cpu
