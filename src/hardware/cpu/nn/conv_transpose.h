// conv_transpose.h: squares of elements, transposed in registers. Internal; for *_vector.cpp alone.
#pragma once

#include <cstddef>
#include <utility>

#include "hardware/cpu/vector_types.h"

namespace ornik::device::cpu {
namespace {

// One step of the exchange: `a` and `b` are rows i and i + Apart; blocks of Apart columns change places.
template <std::size_t Apart, typename V, std::size_t... I>
ORNIK_EXPAND void exchange(V& a, V& b, std::index_sequence<I...> /*lanes*/) {
    constexpr std::size_t count = sizeof...(I);
    const V low = __builtin_shufflevector(a, b, ((I & Apart) == 0 ? I : count + I - Apart)...);
    b = __builtin_shufflevector(a, b, ((I & Apart) == 0 ? I + Apart : count + I)...);
    a = low;
}

/// Row i of the square becomes its column i.
template <typename T, std::size_t Apart = vec::lanes<T> / 2>
ORNIK_EXPAND void transpose_square(vec::Vector<T> (&rows)[vec::lanes<T>]) {
    constexpr std::size_t count = vec::lanes<T>;
#pragma GCC unroll 16
    for (std::size_t i = 0; i < count; ++i) {
        if ((i & Apart) == 0) {
            exchange<Apart>(rows[i], rows[i + Apart], std::make_index_sequence<count>());
        }
    }
    if constexpr (Apart > 1) {
        transpose_square<T, Apart / 2>(rows);
    }
}

}  // namespace
}  // namespace ornik::device::cpu
