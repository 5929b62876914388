// vector_transpose.h: squares of elements, transposed in registers. Internal.
#pragma once

#include <cstddef>
#include <utility>

#include "vector_types.h"

#if defined(__GNUC__)
namespace ornik::device::cpu::vec {

/// Rows i and i + Step of a square exchange their blocks of Step lanes.
template <std::size_t Step, typename V, std::size_t... I>
ORNIK_EXPAND void exchange(V& a, V& b, std::index_sequence<I...> /*lanes*/) {
    constexpr std::size_t count = sizeof...(I);
    const V first = __builtin_shufflevector(a, b, ((I & Step) == 0 ? I : count + I - Step)...);
    b = __builtin_shufflevector(a, b, ((I & Step) == 0 ? I + Step : count + I)...);
    a = first;
}

/// For all steps up to half of the square.
template <std::size_t Step, std::size_t Count, typename V>
ORNIK_EXPAND void exchange_all(V (&rows)[Count]) {
    if constexpr (Step < Count) {
        ORNIK_UNROLLED for (std::size_t i = 0; i < Count; ++i) {
            if ((i & Step) == 0) {
                exchange<Step>(rows[i], rows[i + Step], std::make_index_sequence<Count>{});
            }
        }
        exchange_all<2 * Step>(rows);
    }
}

/// Row i of the square becomes its column i.
template <std::size_t Count, typename V>
ORNIK_EXPAND void transpose_square(V (&rows)[Count]) {
    exchange_all<1>(rows);
}

}  // namespace ornik::device::cpu::vec
#endif
