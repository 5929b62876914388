// element_load.h: how the element-wise engine reads and loops over elements. Internal.
#pragma once

#include <type_traits>

// Tells the compiler that iterations do not depend on each other: an output either is an input, at the
// same places, or lies apart from it.
#if defined(__clang__)
#define ORNIK_INDEPENDENT_ITERATIONS _Pragma("clang loop vectorize(assume_safety)")
#elif defined(__GNUC__)
#define ORNIK_INDEPENDENT_ITERATIONS _Pragma("GCC ivdep")
#else
#define ORNIK_INDEPENDENT_ITERATIONS
#endif

namespace ornik::detail {

template <typename T>
inline T load(const char* address) {
    if constexpr (std::is_same_v<T, bool>) {
        // Any non-zero byte is true: storage may hold bytes that are no valid bool.
        return *reinterpret_cast<const unsigned char*>(address) != 0;
    } else {
        return *reinterpret_cast<const T*>(address);
    }
}

}  // namespace ornik::detail
