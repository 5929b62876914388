// Compiled as the row kernels are: with every instruction that the build may use.
#include "hardware/instruction_set.h"

namespace ornik {

const char* instruction_set() noexcept {
#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512CD__) && defined(__AVX512DQ__) && \
    defined(__AVX512VL__)
    return "x86-64-v4";
#elif defined(__AVX2__) && defined(__FMA__) && defined(__BMI2__)
    return "x86-64-v3";
#elif defined(__SSE4_2__) && defined(__POPCNT__)
    return "x86-64-v2";
#elif defined(__x86_64__) || defined(_M_X64)
    return "x86-64";
#elif defined(__aarch64__) || defined(_M_ARM64)
    return "aarch64";
#else
    return "unknown";
#endif
}

}  // namespace ornik
