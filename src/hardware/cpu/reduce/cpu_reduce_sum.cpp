// cpu_reduce_sum.cpp: sums, products and what is made from them.
#include <cmath>

#include "cpu_reduce_walk.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/cpu/reduce/cpu_reduce.h"

namespace ornik::device::cpu {

namespace {

// What the elements of a type are added up in.
template <typename T>
using Total = std::conditional_t<std::is_integral_v<T>, std::int64_t, T>;

template <typename T>
Total<T> widen(Stored<T> item) {
    if constexpr (std::is_same_v<T, bool>) {
        return item != 0 ? 1 : 0;
    } else {
        return static_cast<Total<T>>(item);
    }
}

template <typename T>
struct Plus {
    static Total<T> lift(Stored<T> item) { return widen<T>(item); }
    static Total<T> join(Total<T> a, Total<T> b) { return element::add(a, b); }
};

template <typename T>
struct Times {
    static Total<T> lift(Stored<T> item) { return widen<T>(item); }
    static Total<T> join(Total<T> a, Total<T> b) { return element::mult(a, b); }
};

// A sum of 64-bit numbers that does not wrap: high 2^32 + low, each the sum of one half of the numbers.
struct WideTotal {
    std::int64_t high = 0;
    std::int64_t low = 0;

    void carry() {
        high += low >> 32;
        low &= 0xffffffff;
    }
    double value() const { return static_cast<double>(high) * 0x1p32 + static_cast<double>(low); }
};

struct PlusWide {
    static WideTotal lift(std::int64_t item) { return {item >> 32, item & 0xffffffff}; }
    static WideTotal join(WideTotal a, WideTotal b) { return {a.high + b.high, a.low + b.low}; }
};

struct FoldWide : Fold<std::int64_t, WideTotal, PlusWide> {
    static constexpr bool exact = true;
    static WideTotal row(const std::int64_t* items, std::int64_t n, std::int64_t /*first*/) {
        constexpr std::uint64_t sign = std::uint64_t{1}
                                       << 63;  // Logical shifts vectorise where arithmetic ones do not.
        std::uint64_t high = 0;
        std::uint64_t low = 0;
        for (std::int64_t i = 0; i < n; ++i) {
            const std::uint64_t item = static_cast<std::uint64_t>(items[i]) ^ sign;
            high += item >> 32;
            low += item & 0xffffffff;
        }
        return {static_cast<std::int64_t>(high) - n * (std::int64_t{1} << 31), static_cast<std::int64_t>(low)};
    }
    // Halves of chunks fit; what the lower ones carry goes up in time.
    static void combine(WideTotal& a, const WideTotal& b) {
        a = PlusWide::join(a, b);
        a.carry();
    }
};

template <typename T>
struct PlusSquares {
    static double lift(Stored<T> item) {
        if constexpr (is_complex_element<T>) {
            return lift_part(item.real) + lift_part(item.imag);
        } else {
            return lift_part(widen<T>(item));
        }
    }
    template <typename Part>
    static double lift_part(Part part) {
        return static_cast<double>(part) * static_cast<double>(part);
    }
    static double join(double a, double b) { return a + b; }
};

template <typename T>
T divided(T sum, double count) {
    if constexpr (is_complex_element<T>) {
        return {divided(sum.real, count), divided(sum.imag, count)};
    } else {
        return static_cast<T>(static_cast<double>(sum) / count);
    }
}

// Floating or complex result of an operation on T.
template <typename T>
using FloatResult = std::conditional_t<std::is_integral_v<T>, float, T>;

template <typename T>
constexpr auto keep = [](const T& state) { return state; };

}  // namespace

void reduce_sum(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        reduce(plan, in->getRawData(), static_cast<Total<T>*>(out->getRawData()), Fold<Stored<T>, Total<T>, Plus<T>>{},
               keep<Total<T>>);
    });
}

void reduce_prod(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        reduce(plan, in->getRawData(), static_cast<Total<T>*>(out->getRawData()), Fold<Stored<T>, Total<T>, Times<T>>{},
               keep<Total<T>>);
    });
}

void reduce_mean(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    const auto count = static_cast<double>(plan.count);
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        using Result = FloatResult<T>;
        using Adds = std::conditional_t<std::is_same_v<T, std::int64_t>, FoldWide, Fold<Stored<T>, Total<T>, Plus<T>>>;
        reduce(plan, in->getRawData(), static_cast<Result*>(out->getRawData()), Adds{}, [count](auto sum) {
            if constexpr (std::is_same_v<T, std::int64_t>) {
                sum.carry();
                return static_cast<float>(sum.value() / count);
            } else if constexpr (std::is_integral_v<T>) {
                return static_cast<float>(static_cast<double>(sum) / count);
            } else {
                return divided(sum, count);
            }
        });
    });
}

void reduce_l2_norm(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        using Result = element::Coefficient<FloatResult<T>>;
        reduce(plan, in->getRawData(), static_cast<Result*>(out->getRawData()),
               Fold<Stored<T>, double, PlusSquares<T>>{},
               [](double squares) { return static_cast<Result>(std::sqrt(squares)); });
    });
}

}  // namespace ornik::device::cpu
