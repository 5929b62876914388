// matrices.h: small matrices with zeros among their elements, and sums of products.
#pragma once

#include "tensor/tensor_sparse.h"
#include "tensor_math/elements.h"

namespace ornik::test {

inline std::size_t at(std::int64_t i, std::int64_t j, std::int64_t cols) {
    return static_cast<std::size_t>(i * cols + j);
}

/// Two of seven elements are zero, and all of row 2 of five.
template <typename T>
std::vector<T> gappy(const Dims& shape, int first) {
    std::vector<T> values = counted<T>(numel_of(shape), first);
    for (std::int64_t i = 0; i < numel_of(shape); ++i) {
        if (i * i % 7 == 1 || (i / shape[1] == 2 && shape[0] == 5)) {
            values[at(0, i, 0)] = T();
        }
    }
    return values;
}

/// sum += a b, or a conj(b); within a std::vector<bool>, too.
template <typename T>
void add_product(std::vector<T>& sums, std::size_t i, T a, T b, bool conjugate) {
    if constexpr (is_complex<T>) {
        b.imag = conjugate ? -b.imag : b.imag;
    }
    sums[i] = combine<T>(Op::add, sums[i], combine(Op::mult, a, b));
}

/// The elements of a sparse or dense tensor.
template <typename T>
std::vector<T> elements_of(const TensorPtr& t) {
    return values_of<T>(TensorPtr(to_dense(t.get())));
}

}  // namespace ornik::test
