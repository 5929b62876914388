// gappy.h: small matrices with zeros among their elements, and what sparse tensors say of them.
#pragma once

#include "tensor/tensor_sparse.h"
#include "tensor_math/elements.h"

namespace ornik::test {

/// Two of three elements are zero in places, one of three elsewhere; the middle row of five is empty.
template <typename T>
std::vector<T> gappy(const Dims& shape, int first) {
    std::vector<T> values = counted<T>(numel_of(shape), first);
    for (std::int64_t i = 0; i < numel_of(shape); ++i) {
        if (i * i % 7 < 2 || (i / shape[1] == 2 && shape[0] == 5)) {
            values[static_cast<std::size_t>(i)] = T();
        }
    }
    return values;
}

/// sum += a b, or a conj(b).
template <typename T>
T plus_product(T sum, T a, T b, bool conjugate) {
    if constexpr (is_complex<T>) {
        b.imag = conjugate ? -b.imag : b.imag;
    }
    return combine(Op::add, sum, combine(Op::mult, a, b));
}

inline std::size_t at(std::int64_t i, std::int64_t j, std::int64_t cols) {
    return static_cast<std::size_t>(i * cols + j);
}

template <typename T>
std::vector<T> member(const TensorPtr& sparse, std::size_t i) {
    return values_of<T>(sparse->get_csr_members().at(i));
}

/// The elements of a sparse or dense tensor.
template <typename T>
std::vector<T> elements_of(const TensorPtr& t) {
    return values_of<T>(TensorPtr(to_dense(t.get())));
}

}  // namespace ornik::test
