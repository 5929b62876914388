// cpu_reduce_moments.cpp: variances and the logarithm of a sum of exponentials, each in one pass over memory.
#include <cmath>
#include <limits>

#include "cpu_reduce_extreme.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/called_functions.h"
#include "hardware/cpu/elements/cpu_exp.h"
#include "hardware/cpu/reduce/cpu_reduce.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t column_block = 512;

// ---- Variance ----

// A chunk is read twice while it is in cache: for its mean, and for the deviations from it. Chunks are
// combined by the parallel update of Chan, Golub and LeVeque (1979).
template <typename T>
struct Moments {
    using Item = Stored<T>;
    using Real = std::conditional_t<std::is_same_v<T, float>, float, double>;
    struct State {
        double count;
        double mean;
        double squares;  // Of the deviations from the mean.
    };

    static Real real(Item item) {
        return static_cast<Real>(std::is_same_v<T, bool> ? static_cast<Item>(item != 0) : item);
    }

    struct Value {
        static Real lift(Item item) { return real(item); }
        static Real join(Real a, Real b) { return a + b; }
    };

    // The mean may be off by its rounding: what the deviations add up to puts that right.
    static State state(std::int64_t n, Real mean, Real deviations, Real squares) {
        const auto count = static_cast<double>(n);
        const double shift = static_cast<double>(deviations) / count;
        const double moved = static_cast<double>(squares) - shift * static_cast<double>(deviations);
        return {count, static_cast<double>(mean) + shift, moved < 0 ? 0.0 : moved};
    }

    static State row(const Item* items, std::int64_t n, std::int64_t /*first*/) {
        using Sum = Fold<Item, Real, Value>;
        const Real mean = Sum::row(items, n) / static_cast<Real>(n);
        constexpr std::int64_t lanes = Sum::lanes;
        Real deviations[lanes] = {};
        Real squares[lanes] = {};
        const auto add = [&](std::int64_t lane, Item item) {
            const Real deviation = real(item) - mean;
            deviations[lane] += deviation;
            squares[lane] += deviation * deviation;
        };
        std::int64_t i = 0;
        for (; i + lanes <= n; i += lanes) {
            for (std::int64_t j = 0; j < lanes; ++j) {
                add(j, items[i + j]);
            }
        }
        for (std::int64_t j = 0; i + j < n; ++j) {
            add(j, items[i + j]);
        }
        for (std::int64_t width = lanes / 2; width > 0; width /= 2) {
            for (std::int64_t j = 0; j < width; ++j) {
                deviations[j] += deviations[j + width];
                squares[j] += squares[j + width];
            }
        }
        return state(n, mean, deviations[0], squares[0]);
    }

    static void columns(const Item* const* rows, std::int64_t n, std::int64_t cols, std::int64_t /*first*/,
                        State* states) {
        for (std::int64_t begin = 0; begin < cols; begin += column_block) {
            const std::int64_t width = std::min(column_block, cols - begin);
            Real mean[column_block] = {};
            for (std::int64_t i = 0; i < n; ++i) {
                for (std::int64_t j = 0; j < width; ++j) {
                    mean[j] += real(rows[i][begin + j]);
                }
            }
            for (Real& value : mean) {
                value /= static_cast<Real>(n);
            }
            Real deviations[column_block] = {};
            Real squares[column_block] = {};
            for (std::int64_t i = 0; i < n; ++i) {
                for (std::int64_t j = 0; j < width; ++j) {
                    const Real deviation = real(rows[i][begin + j]) - mean[j];
                    deviations[j] += deviation;
                    squares[j] += deviation * deviation;
                }
            }
            for (std::int64_t j = 0; j < width; ++j) {
                states[begin + j] = state(n, mean[j], deviations[j], squares[j]);
            }
        }
    }

    static void combine(State& a, const State& b) {
        const double count = a.count + b.count;
        const double distance = b.mean - a.mean;
        a.squares += b.squares + distance * distance * (a.count * b.count / count);
        a.mean += distance * (b.count / count);
        a.count = count;
    }
};

// ---- Logarithm of a sum of exponentials ----

// The sum counts in units of exp(highest). An infinite or undefined highest element decides alone.
template <typename T>
struct LogSum {
    using Item = T;
    using Highest = ExtremeFold<T, true>;
    struct State {
        T highest;
        T sum;
    };
    struct Value {
        static T lift(T item) { return item; }
        static T join(T a, T b) { return a + b; }
    };

    static State decided(T highest) { return {highest, highest == -std::numeric_limits<T>::infinity() ? T(0) : T(1)}; }

    static State row(const T* items, std::int64_t n, std::int64_t /*first*/) {
        const T highest = Highest::row(items, n);
        if (!std::isfinite(highest)) {
            return decided(highest);
        }
        T powers[reduce_chunk];
        exp_shifted(items, highest, powers, n);
        return {highest, Fold<T, T, Value>::row(powers, n)};
    }

    static void columns(const T* const* rows, std::int64_t n, std::int64_t cols, std::int64_t /*first*/,
                        State* states) {
        for (std::int64_t begin = 0; begin < cols; begin += column_block) {
            const std::int64_t width = std::min(column_block, cols - begin);
            T highest[column_block];
            T shift[column_block];
            T sum[column_block] = {};
            T powers[column_block];
            const T* block_rows[reduce_rows] = {};
            for (std::int64_t i = 0; i < n; ++i) {
                block_rows[i] = rows[i] + begin;
            }
            Highest::columns(block_rows, n, width, 0, highest);
            for (std::int64_t j = 0; j < width; ++j) {
                shift[j] = std::isfinite(highest[j]) ? highest[j] : T(0);
            }
            for (std::int64_t i = 0; i < n; ++i) {
                exp_shifted(block_rows[i], shift, powers, width);
                for (std::int64_t j = 0; j < width; ++j) {
                    sum[j] += powers[j];
                }
            }
            for (std::int64_t j = 0; j < width; ++j) {
                states[begin + j] = std::isfinite(highest[j]) ? State{highest[j], sum[j]} : decided(highest[j]);
            }
        }
    }

    static void combine(State& a, const State& b) {
        const T highest = Extreme<T, true>::join(a.highest, b.highest);
        if (std::isfinite(highest)) {
            a = {highest, a.sum * elementary::called::exp(a.highest - highest) +
                              b.sum * elementary::called::exp(b.highest - highest)};
        } else {
            a = decided(highest);
        }
    }
};

}  // namespace

void reduce_variance(const ReduceDescriptor& plan, const Tensor* in, Tensor* out, double correction, bool root) {
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        using Result = std::conditional_t<std::is_integral_v<T>, float, T>;
        reduce(plan, in->getRawData(), static_cast<Result*>(out->getRawData()), Moments<T>{},
               [correction, root](const typename Moments<T>::State& state) {
                   const double divisor = state.count - correction;
                   const double variance =
                       divisor > 0 ? state.squares / divisor : std::numeric_limits<double>::quiet_NaN();
                   return static_cast<Result>(root ? std::sqrt(variance) : variance);
               });
    });
}

void reduce_log_sum_exp(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        reduce(
            plan, in->getRawData(), static_cast<T*>(out->getRawData()), LogSum<T>{},
            [](const typename LogSum<T>::State& state) { return state.highest + elementary::called::log(state.sum); });
    });
}

}  // namespace ornik::device::cpu
