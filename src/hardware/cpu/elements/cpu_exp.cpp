#include "hardware/cpu/elements/cpu_exp.h"

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/elements/elementary.h"

namespace ornik::device::cpu {

template <typename T>
void exp_shifted(const T* in, T shift, T* out, std::int64_t n) {
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = elementary::exp(in[i] - shift);
    }
}

template <typename T>
void exp_shifted(const T* in, const T* shifts, T* out, std::int64_t n) {
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = elementary::exp(in[i] - shifts[i]);
    }
}

template void exp_shifted(const float*, float, float*, std::int64_t);
template void exp_shifted(const double*, double, double*, std::int64_t);
template void exp_shifted(const float*, const float*, float*, std::int64_t);
template void exp_shifted(const double*, const double*, double*, std::int64_t);

}  // namespace ornik::device::cpu
