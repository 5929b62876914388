// cpu_reduce_extreme.h: which of two elements is beyond the other, NaN being beyond everything.
#pragma once

#include "cpu_reduce_walk.h"

namespace ornik::device::cpu {

/// Largest (or smallest) item. Bytes that stand for a bool become 0 and 1.
template <typename T, bool Largest>
struct Extreme {
    static Stored<T> lift(Stored<T> item) {
        if constexpr (std::is_same_v<T, bool>) {
            return item != 0 ? 1 : 0;
        } else {
            return item;
        }
    }
    // No short-circuit: the conditions become masks.
    static Stored<T> join(Stored<T> a, Stored<T> b) {
        return static_cast<Stored<T>>(((Largest ? a >= b : a <= b) | (a != a)) ? a : b);
    }
    static bool beyond(Stored<T> b, Stored<T> a) { return (Largest ? b > a : b < a) || (b != b && a == a); }
};

template <typename T, bool Largest>
using ExtremeFold = Fold<Stored<T>, Stored<T>, Extreme<T, Largest>>;

}  // namespace ornik::device::cpu
