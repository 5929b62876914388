// The fused multiply-add as functions, which files for processors without it call (elementary.h): of numbers, and of
// vectors of them under the names by which vectorised loops call it. With the instruction, they are for the files that
// all levels share.
#include "hardware/cpu/vector_types.h"

#if defined(__GNUC__) && !defined(__clang__) && defined(__SSE2__) && defined(__ELF__)
using namespace ornik::device::cpu::vec;
using Floats = VectorOf<float, 16>::type;
using Doubles = VectorOf<double, 16>::type;

#define ORNIK_CALLED [[gnu::visibility("hidden")]]
extern "C" {

ORNIK_CALLED float ornik_fused_float(float a, float b, float c);
ORNIK_CALLED double ornik_fused_double(double a, double b, double c);
ORNIK_CALLED Floats _ZGVbN4vvv_ornik_fused_float(Floats a, Floats b, Floats c);
ORNIK_CALLED Doubles _ZGVbN2vvv_ornik_fused_double(Doubles a, Doubles b, Doubles c);

float ornik_fused_float(float a, float b, float c) { return fused(a, b, c); }
double ornik_fused_double(double a, double b, double c) {
    return fused(Doubles{a, a}, Doubles{b, b}, Doubles{c, c})[0];
}
Floats _ZGVbN4vvv_ornik_fused_float(Floats a, Floats b, Floats c) { return fused(a, b, c); }
Doubles _ZGVbN2vvv_ornik_fused_double(Doubles a, Doubles b, Doubles c) { return fused(a, b, c); }

}  // extern "C"
#endif
