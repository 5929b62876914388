// cpu_real_pairs.cpp: functions of two real numbers.
#include "hardware/cpu/elements/cpu_real_pairs.h"

#include <numbers>

#include "hardware/cpu/elements/called_functions.h"
#include "integer_functions.h"
#include "row_kernels.h"

namespace ornik::device::cpu {

namespace {

struct floor_divide_function {
    template <std::integral T>
    T operator()(T a, T b) const {
        if (b == T(0)) {
            return T(0);
        }
        // The quotient of the least number by -1 does not fit its type.
        if (std::is_signed_v<T> && b == static_cast<T>(-1)) {
            return integer_functions::neg(a);
        }
        const auto quotient = static_cast<T>(a / b);
        return a % b != 0 && (a < T(0)) != (b < T(0)) ? static_cast<T>(quotient - T(1)) : quotient;
    }
    template <std::floating_point T>
    T operator()(T a, T b) const {
        const T quotient = a / b;
        if (!std::isfinite(a) || !std::isfinite(b) || b == T(0)) {
            return std::floor(quotient);
        }
        // Rounding may take the quotient past the whole number that goes with the remainder.
        const T rest = std::fmod(a, b);
        const T whole = (a - rest) / b - T(rest != T(0) && (rest < T(0)) != (b < T(0)) ? 1 : 0);
        return whole == T(0) ? std::copysign(T(0), quotient) : std::nearbyint(whole);
    }
};
struct copysign_function {
    template <typename T>
    ORNIK_IN_PLACE T operator()(T a, T b) const {
        return std::copysign(a, b);
    }
};
struct hypot_function {
    template <typename T>
    T operator()(T a, T b) const {
        return static_cast<T>(elementary::called::hypot(a, b));
    }
};
struct logaddexp_function {
    template <typename T>
    T operator()(T a, T b) const {
        // Equal infinities have no difference.
        const double larger = a > b ? a : b;
        const double growth =
            a == b ? std::numbers::ln2
                   : elementary::called::log1p(elementary::called::exp(-std::fabs(double{a} - double{b})));
        return static_cast<T>(a == a ? larger + growth : double{a});
    }
};
struct nextafter_function {
    template <typename T>
    T operator()(T a, T b) const {
        return std::nextafter(a, b);
    }
};

struct signbit_function {
    template <typename T>
    ORNIK_IN_PLACE bool operator()(T x) const {
        if constexpr (std::is_floating_point_v<T>) {
            return std::signbit(x);
        } else {
            return x < T(0);
        }
    }
};

using RealNumberTypes = TypeList<std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t, float, double>;

constexpr ElementKernel kernels[] = {
    binary_kernel<floor_divide_function, RealNumberTypes>,
    binary_kernel<copysign_function, FloatTypes>,
    binary_kernel<hypot_function, FloatTypes>,
    binary_kernel<logaddexp_function, FloatTypes>,
    binary_kernel<nextafter_function, FloatTypes>,
};

}  // namespace

void real_pair(RealPair operation, const Tensor* a, const Tensor* b, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    elements.add_output(out);
    elements.build();
    kernels[static_cast<std::size_t>(operation)](elements, a->Dtype());
}

void signbit(const Tensor* x, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(x);
    elements.add_output(out);
    elements.build();
    unary_kernel<signbit_function, RealNumberTypes>(elements, x->Dtype());
}

}  // namespace ornik::device::cpu
