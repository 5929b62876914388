// cpu_random_trials.cpp: single trials and counts of successes.
#include <cmath>

#include "draw_blocks.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/random/cpu_random.h"
#include "random_math.h"
#include "word_stream.h"

namespace ornik::device::cpu {

namespace {

using namespace random;

// base to the power n, n a whole number, by squaring: the same bits everywhere.
double whole_power(double base, double n) {
    double power = 1;
    for (; n >= 1; n = std::floor(n / 2), base *= base) {
        if (std::fmod(n, 2.0) == 1) {
            power *= base;
        }
    }
    return power;
}

// log k! less its approximation of Stirling, (k + 1/2) log(k + 1) - (k + 1) + log(2 pi) / 2.
double stirling_rest(double k) {
    constexpr double first[] = {0.08106146679532726,  0.04134069595540929,  0.02767792568499834,  0.02079067210376509,
                                0.016644691189821193, 0.013876128823070748, 0.011896709945891770, 0.010411265261972096,
                                0.009255462182712733, 0.008330563433362871};
    if (k <= 9) {
        return first[static_cast<int>(k)];
    }
    const double square = (k + 1) * (k + 1);
    return (1.0 / 12 - (1.0 / 360 - 1.0 / 1260 / square) / square) / (k + 1);
}

// Inversion: walks the probabilities of 0, 1, 2 ... For n p below 10 and p <= 1/2.
double few_successes(WordStream& words, double n, double p) {
    const double odds = p / (1 - p);
    const double none = whole_power(1 - p, n);
    for (;;) {
        double rest = words.next_unit();
        double probability = none;
        // With a mean below 10 more than 150 successes do not happen, but rounding may leave a rest.
        const double most = std::fmin(n, 150);
        for (double k = 0; k <= most; ++k) {
            if (rest <= probability) {
                return k;
            }
            rest -= probability;
            probability *= odds * (n - k) / (k + 1);
        }
    }
}

// Transformed rejection with squeeze (BTRS; Hoermann 1993, "The generation of binomial random variates").
// For n p of 10 and above and p <= 1/2.
double many_successes(WordStream& words, double n, double p) {
    const double odds = p / (1 - p);
    const double spread = std::sqrt(n * p * (1 - p));
    const double b = 1.15 + 2.53 * spread;
    const double a = -0.0873 + 0.0248 * b + 0.01 * p;
    const double center = n * p + 0.5;
    const double squeeze = 0.92 - 4.2 / b;
    const double alpha = (2.83 + 5.1 / b) * spread;
    const double mode = std::floor((n + 1) * p);
    for (;;) {
        const double u = words.next_unit() - 0.5;
        const double v = words.next_unit();
        const double edge = 0.5 - std::fabs(u);
        const double k = std::floor((2 * a / edge + b) * u + center);
        if (!(k >= 0 && k <= n)) {
            continue;
        }
        if (edge >= 0.07 && v <= squeeze) {
            return k;
        }
        const double height = log_positive(v * alpha / (a / (edge * edge) + b));
        const double density = (mode + 0.5) * log_positive((mode + 1) / (odds * (n - mode + 1))) +
                               (n + 1) * log_positive((n - mode + 1) / (n - k + 1)) +
                               (k + 0.5) * log_positive(odds * (n - k + 1) / (k + 1)) + stirling_rest(mode) +
                               stirling_rest(n - mode) - stirling_rest(k) - stirling_rest(n - k);
        if (height <= density) {
            return k;
        }
    }
}

double successes(std::uint64_t word, double n, double p) {
    const double rarer = p <= 0.5 ? p : 1 - p;
    double k = 0;
    if (rarer > 0 && n > 0) {
        WordStream words(word);
        k = n * rarer < 10 ? few_successes(words, n, rarer) : many_successes(words, n, rarer);
    }
    return p <= 0.5 ? k : n - k;
}

}  // namespace

void bernoulli(generator::Lease& source, const Tensor* probs, Tensor* out) {
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        const T* const p = static_cast<const T*>(probs->getRawData());
        T* const data = static_cast<T*>(out->getRawData());
        draw_words(source, out->Size(), [=](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
            for (std::int64_t i = 0; i < count; ++i) {
                const double u = to_double(words[i] >> 11) * unit53;
                data[first + i] = u < static_cast<double>(p[first + i]) ? T(1) : T(0);
            }
        });
    });
}

void binomial(generator::Lease& source, const Tensor* counts, const Tensor* probs, Tensor* out) {
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        const T* const n = static_cast<const T*>(counts->getRawData());
        const T* const p = static_cast<const T*>(probs->getRawData());
        T* const data = static_cast<T*>(out->getRawData());
        draw_words(source, out->Size(), [=](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
            for (std::int64_t i = 0; i < count; ++i) {
                const std::int64_t at = first + i;
                data[at] = static_cast<T>(successes(words[i], static_cast<double>(n[at]), static_cast<double>(p[at])));
            }
        });
    });
}

bool all_between(const Tensor* t, double low, double high, bool whole) {
    bool result = true;
    dispatch(FloatTypes{}, t->Dtype(), [&]<typename T>() {
        const T* const data = static_cast<const T*>(t->getRawData());
        result = std::all_of(data, data + t->Size(), [=](T item) {
            const auto x = static_cast<double>(item);
            return x >= low && x <= high && (!whole || std::floor(x) == x);
        });
    });
    return result;
}

}  // namespace ornik::device::cpu
