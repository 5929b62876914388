// conv_copy.h: short rows from one place to another, in vectors. Internal; for *_vector.cpp alone.
#pragma once

#include <cstdint>
#include <utility>

#include "hardware/cpu/vector_types.h"

namespace ornik::device::cpu {
namespace {

/// to[i] = change(from[i]) for vectors of `from`: whole ones, of which the last two may overlap, or smaller ones.
/// Neither reads nor writes beyond `count` elements; `from` and `to` do not overlap.
template <typename T, int Bytes = vec::vector_bytes, typename Change>
ORNIK_EXPAND void copy_row(const T* from, std::int64_t count, T* to, const Change& change) {
    using V = vec::Vector<T, Bytes>;
    constexpr std::int64_t width = vec::lanes<T, Bytes>;
    if (count >= width) {
        for (std::int64_t i = 0; i + width <= count; i += width) {
            vec::store(change(vec::load<V>(from + i)), to + i);
        }
        const std::int64_t last = count - width;
        vec::store(change(vec::load<V>(from + last)), to + last);
    } else if constexpr (Bytes > 16) {
        copy_row<T, Bytes / 2>(from, count, to, change);
    } else {
        for (std::int64_t i = 0; i < count; ++i) {
            to[i] = change(from[i]);
        }
    }
}

template <typename T>
void copy_row(const T* from, std::int64_t count, T* to) {
    copy_row(from, count, to, [](const auto& v) { return v; });
}

template <typename V, std::size_t... I>
ORNIK_EXPAND V every_second(const V& a, const V& b, std::index_sequence<I...> /*lanes*/) {
    return __builtin_shufflevector(a, b, (2 * I < sizeof...(I) ? 2 * I : 2 * I + 1)...);
}

/// to[i] = from[2 * i], reading nothing beyond the last of them.
template <typename T>
void copy_every_second(const T* from, std::int64_t count, T* to) {
    using V = vec::Vector<T>;
    constexpr std::int64_t width = vec::lanes<T>;
    const auto move = [&](std::int64_t i) {
        const V low = vec::load<V>(from + 2 * i);
        const V high = vec::load<V>(from + 2 * i + width - 1);
        vec::store(every_second(low, high, std::make_index_sequence<width>()), to + i);
    };
    if (count < width) {
        for (std::int64_t i = 0; i < count; ++i) {
            to[i] = from[2 * i];
        }
        return;
    }
    for (std::int64_t i = 0; i + width <= count; i += width) {
        move(i);
    }
    move(count - width);
}

}  // namespace
}  // namespace ornik::device::cpu
