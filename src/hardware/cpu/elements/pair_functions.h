// pair_functions.h: operations on two elements that read the same for every type. Included by row kernels.
#pragma once

#include "hardware/cpu/copy/element_convert.h"

namespace ornik::pair_functions {

template <typename T>
inline bool truth(T x) {
    return convert_element<bool>(x);
}

template <typename T>
inline bool equal(T a, T b) {
    return a == b;
}
template <typename T>
inline bool not_equal(T a, T b) {
    return !(a == b);
}
template <typename T>
inline bool greater(T a, T b) {
    return a > b;
}
template <typename T>
inline bool greater_equal(T a, T b) {
    return a >= b;
}
template <typename T>
inline bool less(T a, T b) {
    return a < b;
}
template <typename T>
inline bool less_equal(T a, T b) {
    return a <= b;
}
// Not by && and ||: no branches.
template <typename T>
inline bool logical_and(T a, T b) {
    return (static_cast<int>(truth(a)) & static_cast<int>(truth(b))) != 0;
}
template <typename T>
inline bool logical_or(T a, T b) {
    return (static_cast<int>(truth(a)) | static_cast<int>(truth(b))) != 0;
}
template <typename T>
inline bool logical_xor(T a, T b) {
    return truth(a) != truth(b);
}
/// NaN wins.
template <typename T>
inline T maximum(T a, T b) {
    const T greatest = a > b ? a : b;
    return a == a ? greatest : a;
}
template <typename T>
inline T minimum(T a, T b) {
    const T least = a < b ? a : b;
    return a == a ? least : a;
}

}  // namespace ornik::pair_functions
