// cpu_complex_parts_vector.cpp: functions of many complex numbers, of which real and imaginary parts lie apart.
//
// The formulas of complex_functions.h, step by step, without their special cases: loops over them become vector code.
#include "descriptors/element_load.h"
#include "hardware/cpu/elements/called_functions.h"
#include "hardware/cpu/elements/elementary_double.h"

namespace ornik::elementary {

namespace {

struct Parts {
    double re, im;
};
ORNIK_IN_PLACE Parts times_i(Parts z) { return {-z.im, z.re}; }
ORNIK_IN_PLACE Parts over_i(Parts z) { return {z.im, -z.re}; }

/// Neither of them beyond it, nor NaN.
ORNIK_IN_PLACE bool within(Parts z, double limit) { return (std::fabs(z.re) <= limit) & (std::fabs(z.im) <= limit); }
/// The larger one is at least so much.
ORNIK_IN_PLACE bool at_least(Parts z, double limit) { return (std::fabs(z.re) >= limit) | (std::fabs(z.im) >= limit); }

/// Of a z that is neither very large nor very small.
ORNIK_IN_PLACE Parts root(Parts z) {
    const double width = std::fabs(z.re);
    const double height = std::fabs(z.im);
    // The exponent without its last bit, biased by 1024.
    const std::uint64_t exponent =
        ((std::bit_cast<std::uint64_t>(width < height ? height : width) >> 52) + 1) & ~std::uint64_t{1};
    const auto away = std::bit_cast<double>((2047 - exponent) << 52);
    const auto back = std::bit_cast<double>((511 + (exponent >> 1)) << 52);
    const double x = z.re * away;
    const double y = z.im * away;
    const double root = std::sqrt(0.5 * (std::fabs(x) + hypot(x, y)));
    const double other = 0.5 * std::fabs(y) / root;
    return {(x < 0.0 ? other : root) * back, std::copysign((x < 0.0 ? root : other) * back, y)};
}
/// Whether root() serves for 1 - z and 1 + z.
ORNIK_IN_PLACE bool is_moderate(Parts z) {
    const bool small = within(z, 0x1p900);
    const bool below = at_least({1.0 - z.re, z.im}, 0x1p-900);
    const bool above = at_least({1.0 + z.re, z.im}, 0x1p-900);
    return small & below & above;
}

struct Exp {
    ORNIK_IN_PLACE static bool takes(Parts z) { return (std::fabs(z.re) < 700.0) & (std::fabs(z.im) <= 0x1p19); }
    ORNIK_IN_PLACE static Parts value(Parts z) {
        const double power = exp(z.re);
        const Turned t = turned_near(std::fabs(z.im));
        return {power * sin_turned(t, 1), power * negated_if(sign_bit(z.im), sin_turned(t, 0))};
    }
};
struct Asin {
    ORNIK_IN_PLACE static bool takes(Parts z) { return is_moderate(z); }
    ORNIK_IN_PLACE static Parts value(Parts z) {
        const Parts below = root({1.0 - z.re, -z.im});
        const Parts above = root({1.0 + z.re, z.im});
        return {atan2(z.re, below.re * above.re - below.im * above.im),
                std::copysign(asinh(below.re * above.im - below.im * above.re), z.im)};
    }
};
struct Acos {
    ORNIK_IN_PLACE static bool takes(Parts z) { return is_moderate(z); }
    ORNIK_IN_PLACE static Parts value(Parts z) {
        const Parts below = root({1.0 - z.re, -z.im});
        const Parts above = root({1.0 + z.re, z.im});
        return {2.0 * atan2(below.re, above.re),
                std::copysign(asinh(above.re * below.im - above.im * below.re), -z.im)};
    }
};
struct Acosh {
    ORNIK_IN_PLACE static bool takes(Parts z) { return is_moderate(z); }
    ORNIK_IN_PLACE static Parts value(Parts z) {
        const Parts below = root({z.re - 1.0, z.im});
        const Parts above = root({z.re + 1.0, z.im});
        return {asinh(below.re * above.re + below.im * above.im), 2.0 * atan2(below.im, above.re)};
    }
};
struct Atanh {
    ORNIK_IN_PLACE static bool takes(Parts z) {
        const bool small = within(z, 0x1p59);
        const bool apart = at_least({1.0 - std::fabs(z.re), z.im}, 0x1p-300);
        return small & apart;
    }
    ORNIK_IN_PLACE static Parts value(Parts z) {
        const double x = std::fabs(z.re);
        const double y = std::fabs(z.im);
        return {std::copysign(0.25 * log1p_exact(4.0 * x / ((1.0 - x) * (1.0 - x) + y * y)), z.re),
                std::copysign(0.5 * atan2(2.0 * y, (1.0 - x) * (1.0 + x) - y * y), z.im)};
    }
};
/// Of i z, over i.
template <typename Function>
struct Turning {
    ORNIK_IN_PLACE static bool takes(Parts z) { return Function::takes(times_i(z)); }
    ORNIK_IN_PLACE static Parts value(Parts z) { return over_i(Function::value(times_i(z))); }
};

template <typename Function>
bool run(std::int64_t n, double* re, double* im) {
    int others = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        others |= static_cast<int>(!Function::takes({re[i], im[i]}));
    }
    if (others != 0) {
        return false;
    }
    ORNIK_INDEPENDENT_ITERATIONS
    for (std::int64_t i = 0; i < n; ++i) {
        const Parts z = Function::value({re[i], im[i]});
        re[i] = z.re;
        im[i] = z.im;
    }
    return true;
}

}  // namespace

bool called::exp_parts(std::int64_t n, double* re, double* im) { return run<Exp>(n, re, im); }
bool called::asin_parts(std::int64_t n, double* re, double* im) { return run<Asin>(n, re, im); }
bool called::acos_parts(std::int64_t n, double* re, double* im) { return run<Acos>(n, re, im); }
bool called::atan_parts(std::int64_t n, double* re, double* im) { return run<Turning<Atanh>>(n, re, im); }
bool called::asinh_parts(std::int64_t n, double* re, double* im) { return run<Turning<Asin>>(n, re, im); }
bool called::acosh_parts(std::int64_t n, double* re, double* im) { return run<Acosh>(n, re, im); }
bool called::atanh_parts(std::int64_t n, double* re, double* im) { return run<Atanh>(n, re, im); }

}  // namespace ornik::elementary
