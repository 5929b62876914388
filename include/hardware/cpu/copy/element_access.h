// element_access.h: element loops over plain row-major arrays that several matrix kernels share. Internal.
#pragma once

#include <algorithm>

#include "../../../tensor/tensor.h"
#include "../../parallel.h"
#include "../elements/element_math.h"

namespace ornik {

/// Elements touched that are worth a second thread.
inline constexpr std::int64_t row_loop_grain = 1 << 15;

/// Calls body(row) for all rows, in parallel when rows x work_per_row is worth it.
template <typename Body>
void for_rows(std::int64_t rows, std::int64_t work_per_row, const Body& body) {
    const std::int64_t grain = row_loop_grain / std::max<std::int64_t>(work_per_row, 1) + 1;
    parallel_for(rows, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t row = begin; row < end; ++row) {
            body(row);
        }
    });
}

/// Read access to contiguous elements. Bytes of a bool array may be other than 0 and 1: any non-zero byte is
/// true.
template <typename T>
class Elements {
  public:
    explicit Elements(const void* data) : data_(static_cast<const Stored*>(data)) {}
    explicit Elements(const Tensor* t) : Elements(static_cast<const void*>(t->getRawData())) {}

    T operator[](std::int64_t i) const {
        if constexpr (std::is_same_v<T, bool>) {
            return data_[i] != 0;
        } else {
            return data_[i];
        }
    }

  private:
    using Stored = std::conditional_t<std::is_same_v<T, bool>, unsigned char, T>;
    const Stored* data_;
};

template <typename T>
inline T conjugate(T value) {
    if constexpr (is_complex_element<T>) {
        return conj(value);
    } else {
        return value;
    }
}

/// sum[j] += factor * items[first + j] for j < n. Sum and items do not overlap.
template <typename T>
inline void add_scaled_row(T factor, const Elements<T>& items, std::int64_t first, std::int64_t n, T* sum) {
    for (std::int64_t j = 0; j < n; ++j) {
        sum[j] = element::add(sum[j], element::mult(factor, items[first + j]));
    }
}

/// The sum over j < n, in order, of a[first_a + j] conj(b[first_b + j]).
template <typename T>
inline T inner_product(const Elements<T>& a, std::int64_t first_a, const Elements<T>& b, std::int64_t first_b,
                       std::int64_t n) {
    T sum{};
    for (std::int64_t j = 0; j < n; ++j) {
        sum = element::add(sum, element::mult(a[first_a + j], conjugate(b[first_b + j])));
    }
    return sum;
}

}  // namespace ornik
