#include "hardware/cpu/elements/called_functions.h"
#include "hardware/cpu/elements/elementary_double.h"

namespace ornik::elementary {

float called::exp(float x) { return elementary::exp(x); }
double called::exp(double x) { return elementary::exp(x); }
double called::expm1(double x) { return elementary::expm1(x); }
float called::log(float x) { return elementary::log(x); }
double called::log(double x) { return elementary::log(x); }
double called::log1p(double x) { return log1p_exact(x); }
double called::pow(double x, double y) { return elementary::pow(x, y); }
double called::sin(double x) { return elementary::sin(x); }
double called::cos(double x) { return elementary::cos(x); }
double called::tan(double x) { return elementary::tan(x); }
called::SineCosine called::sin_and_cos(double x) {
    const double a = std::fabs(x);
    if (!(a < HUGE_VAL)) {
        return {NAN, NAN};
    }
    const Turned t = turned(a);
    return {negated_if(sign_bit(x), sin_turned(t, 0)), sin_turned(t, 1)};
}
double called::sinh(double x) { return elementary::sinh(x); }
double called::cosh(double x) { return elementary::cosh(x); }
double called::asinh(double x) { return elementary::asinh(x); }
double called::atan2(double y, double x) { return elementary::atan2(y, x); }
double called::hypot(double x, double y) { return elementary::hypot(x, y); }

double called::log_hypot_near_one(double x, double y) {
    const Pair p = product_of(x, x);
    const Pair q = product_of(y, y);
    const bool swapped = p.high < q.high;
    const Pair rest = sum_of((swapped ? q : p).high, -1.0);
    const Pair sum = sum_of(rest.high, (swapped ? p : q).high);
    return 0.5 * log1p_of({sum.high, sum.low + (rest.low + (p.low + q.low))});
}

}  // namespace ornik::elementary
