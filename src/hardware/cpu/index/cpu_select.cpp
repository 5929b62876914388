// cpu_select.cpp: choice between two operands, closeness, and gradients of binary operations.
#include "../elements/complex_functions.h"
#include "../elements/pair_functions.h"
#include "../elements/row_kernels.h"

namespace ornik::device::cpu {

namespace {

using complex_functions::narrow;
using complex_functions::Own;
using complex_functions::wide;
using complex_functions::Wide;

struct select_function {
    template <typename T>
    ORNIK_IN_PLACE T operator()(bool condition, T a, T b) const {
        return condition ? a : b;
    }
};

double magnitude(double x) { return std::fabs(x); }
double magnitude(Wide x) { return complex_functions::wide_functions::abs(x); }
double power(double x, double y) { return elementary::called::pow(x, y); }
Wide power(Wide x, Wide y) { return complex_functions::wide_functions::pow(x, y); }
double logarithm(double x) { return elementary::called::log(x); }
Wide logarithm(Wide x) { return complex_functions::wide_functions::log(x); }

double as_wide(double x) { return x; }
template <typename T>
Wide as_wide(Own<T> z) {
    return wide(z);
}

// ---- Gradients: (a, b, grad) ----

double conj_of(double x) { return x; }
Wide conj_of(Wide z) { return std::conj(z); }
template <typename T>
T narrow_to(double x) {
    return static_cast<T>(x);
}
template <typename T>
T narrow_to(Wide z) {
    return narrow<decltype(T::real)>(z);
}

struct pow_dx_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        const auto base = as_wide(a);
        const auto exponent = as_wide(b);
        using W = std::remove_cv_t<decltype(base)>;
        // A power 0 is flat even at 0, where the formula has no value.
        return exponent == W(0) ? T(0) : narrow_to<T>(as_wide(grad) * conj_of(exponent * power(base, exponent - W(1))));
    }
};
struct pow_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        const auto base = as_wide(a);
        const auto exponent = as_wide(b);
        using W = std::remove_cv_t<decltype(base)>;
        // Powers of 0 stay 0 around a positive exponent.
        return base == W(0) && std::real(exponent) >= 0
                   ? T(0)
                   : narrow_to<T>(as_wide(grad) * conj_of(power(base, exponent) * logarithm(base)));
    }
};
struct atan2_dx_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return static_cast<T>(as_wide(grad) * b / (as_wide(a) * a + as_wide(b) * b));
    }
};
struct atan2_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return static_cast<T>(-as_wide(grad) * a / (as_wide(a) * a + as_wide(b) * b));
    }
};
// `rounded`, the quotient a / b as a whole number, unless rounding the quotient took it past the one that goes with
// the remainder; `exact` is that one before its own rounding. Beyond 2^50 or so both are as good.
template <typename T>
T whole_quotient(T rounded, T exact) {
    const T whole = std::nearbyint(exact);
    const bool beyond = !(std::fabs(rounded) < T(0.25) / std::numeric_limits<T>::epsilon());
    return beyond || whole != whole || whole == rounded ? rounded : whole;
}
struct fmod_dx_grad {
    template <typename T>
    T operator()(T /*a*/, T /*b*/, T grad) const {
        return grad;
    }
};
struct fmod_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return -grad * whole_quotient(std::trunc(a / b), (a - std::fmod(a, b)) / b);
    }
};
using remainder_dx_grad = fmod_dx_grad;
struct remainder_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        const T rest = std::fmod(a, b);
        const T below = rest != T(0) && (rest < T(0)) != (b < T(0)) ? T(1) : T(0);
        return -grad * whole_quotient(std::floor(a / b), (a - rest) / b - below);
    }
};
// The operand that was taken gets the gradient, half each when both are equal; one that is no number was.
template <typename T>
T share(bool taken, T a, T b, T grad) {
    return a == b ? grad / T(2) : (taken || a != a ? grad : T(0));
}
struct maximum_dx_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return share(a > b, a, b, grad);
    }
};
struct maximum_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return share(b > a, b, a, grad);
    }
};
struct minimum_dx_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return share(a < b, a, b, grad);
    }
};
struct minimum_dy_grad {
    template <typename T>
    T operator()(T a, T b, T grad) const {
        return share(b < a, b, a, grad);
    }
};

template <typename Grad, typename Types>
void run_grad(const MultiTensorIterationHelper& elements, std::int64_t dtype) {
    dispatch(Types{}, dtype, [&]<typename T>() { run_function_rows<Grad, T, T, T, T>(elements); });
}

constexpr ElementKernel grad_kernels[] = {
    run_grad<pow_dx_grad, FloatOrComplexTypes>, run_grad<pow_dy_grad, FloatOrComplexTypes>,
    run_grad<atan2_dx_grad, FloatTypes>,        run_grad<atan2_dy_grad, FloatTypes>,
    run_grad<fmod_dx_grad, FloatTypes>,         run_grad<fmod_dy_grad, FloatTypes>,
    run_grad<remainder_dx_grad, FloatTypes>,    run_grad<remainder_dy_grad, FloatTypes>,
    run_grad<maximum_dx_grad, FloatTypes>,      run_grad<maximum_dy_grad, FloatTypes>,
    run_grad<minimum_dx_grad, FloatTypes>,      run_grad<minimum_dy_grad, FloatTypes>,
};

}  // namespace

void binary_grad(BinaryGrad which, const Tensor* a, const Tensor* b, const Tensor* grad, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    elements.add_input(grad);
    elements.add_output(out);
    elements.build();
    grad_kernels[static_cast<std::size_t>(which)](elements, a->Dtype());
}

void select(const Tensor* condition, const Tensor* a, const Tensor* b, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(condition);
    elements.add_input(a);
    elements.add_input(b);
    elements.add_output(out);
    elements.build();
    dispatch(AllTypes{}, out->Dtype(),
             [&]<typename T>() { run_function_rows<select_function, T, bool, T, T>(elements); });
}

void is_close(const Tensor* a, const Tensor* b, double relative, double absolute, bool equal_nan, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    elements.add_output(out);
    elements.build();
    dispatch(AllTypes{}, a->Dtype(), [&]<typename T>() {
        elements.run<TypeList<bool>, TypeList<T, T>>([=](T x, T y) {
            if constexpr (is_complex_element<T> || std::is_floating_point_v<T>) {
                const bool x_nan = !(x == x);
                const bool y_nan = !(y == y);
                const double scale = magnitude(as_wide(y));
                return x == y || (equal_nan && x_nan && y_nan) ||
                       (scale < HUGE_VAL && magnitude(as_wide(x) - as_wide(y)) <= absolute + relative * scale);
            } else {
                const auto wide_y = static_cast<double>(y);
                return x == y || std::abs(static_cast<double>(x) - wide_y) <= absolute + relative * std::abs(wide_y);
            }
        });
    });
}

}  // namespace ornik::device::cpu
