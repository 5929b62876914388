// exact.h: what tests compare with where a system's C runtime errs.
#pragma once

#include <cmath>
#include <cstring>

namespace ornik::test {

/// a b + c, rounded once. The runtime of mingw-w64 rounds twice: there in quadruple precision, to an odd last digit,
/// which the conversion back never takes for a tie.
template <typename T>
T fused_once(T a, T b, T c) {
#if defined(_WIN32)
    __extension__ using Quad = __float128;
    __extension__ using Bits = unsigned __int128;
    const Quad product = static_cast<Quad>(a) * static_cast<Quad>(b);
    const Quad added = static_cast<Quad>(c);
    Quad sum = product + added;
    const Quad part = sum - product;
    const Quad rest = (product - (sum - part)) + (added - part);
    Bits bits;
    std::memcpy(&bits, &sum, sizeof bits);
    if ((rest > 0 || rest < 0) && (bits & 1) == 0) {
        bits += (rest > 0) == (sum > 0) ? Bits{1} : ~Bits{0};
        std::memcpy(&sum, &bits, sizeof bits);
    }
    return static_cast<T>(sum);
#else
    return std::fma(a, b, c);
#endif
}

}  // namespace ornik::test
