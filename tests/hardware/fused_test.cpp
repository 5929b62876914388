// The fused multiply-add and chains of it, as they are computed on a processor that has none: against std::fma.
#include <gtest/gtest.h>

#include <random>

#include "hardware/cpu/vector_chain.h"
#include "support/exact.h"

namespace ornik::device::cpu::vec {
namespace {

using test::fused_once;
using Random = std::mt19937_64;

bool is_same(auto a, auto b) { return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0; }

// Any bits, common numbers, few digits (ties), near the ends of the exponents, special ones, neighbours of powers of 2.
template <typename T>
T number(Random& random, unsigned kind) {
    using Limits = std::numeric_limits<T>;
    const auto exponent = [&](int around) { return static_cast<int>(random() % 40) - 20 + around; };
    const T common = static_cast<T>(static_cast<double>(static_cast<std::int64_t>(random())) * 0x1p-63);
    const int far = sizeof(T) == 4 ? 64 : 520;
    switch (kind) {
        case 0: {
            const std::uint64_t bits = random();
            T any;
            std::memcpy(&any, &bits, sizeof any);
            return any;
        }
        case 1:
            return common;
        case 2:
            return static_cast<T>(static_cast<int>(random() % 513) - 256);
        case 3:
            return std::ldexp(static_cast<T>(random() % 15) - 7, exponent(0));
        case 4:
            return std::ldexp(common, exponent(-far));
        case 5:
            return std::ldexp(common, exponent(far));
        case 6: {
            const T special[] = {0,
                                 -T(0),
                                 Limits::infinity(),
                                 -Limits::infinity(),
                                 Limits::quiet_NaN(),
                                 Limits::max(),
                                 Limits::min(),
                                 Limits::denorm_min(),
                                 -Limits::denorm_min()};
            return special[random() % std::size(special)];
        }
        default:
            return std::ldexp(T(1) + Limits::epsilon() * static_cast<T>(random() % 3), exponent(0));
    }
}
constexpr unsigned kinds = 8;

template <typename T>
void expect_fused(T a, T b, T c, T got) {
    const T wanted = fused_once(a, b, c);
    EXPECT_PRED2((is_same<T, T>), got, wanted) << std::hexfloat << a << " * " << b << " + " << c;
}

template <typename T>
void check_steps() {
    using V = Vector<T>;
    Random random(11);
    for (int round = 0; round < 200'000 && !testing::Test::HasFailure(); ++round) {
        T x[3][lanes<T>];
        const unsigned kind[] = {static_cast<unsigned>(random() % kinds), static_cast<unsigned>(random() % kinds),
                                 static_cast<unsigned>(random() % kinds)};
        for (int i = 0; i < lanes<T>; ++i) {
            for (int operand = 0; operand < 3; ++operand) {
                x[operand][i] = number<T>(random, kind[operand]);
            }
            if (random() % 16 == 0) {
                x[2][i] = -x[0][i] * x[1][i];
            }
        }
        const V sum = fused(load<V>(x[0]), load<V>(x[1]), load<V>(x[2]));
        const V difference = fused_minus(load<V>(x[0]), load<V>(x[1]), load<V>(x[2]));
        for (int i = 0; i < lanes<T>; ++i) {
            expect_fused(x[0][i], x[1][i], x[2][i], sum[i]);
            expect_fused(-x[0][i], x[1][i], x[2][i], difference[i]);
            expect_fused(x[0][i], x[1][i], x[2][i], fused(x[0][i], x[1][i], x[2][i]));
        }
    }
}

template <typename T>
void check_chains() {
    using V = Vector<T>;
    constexpr int most = 8;
    Random random(12);
    int unsure = 0;
    for (int round = 0; round < 50'000 && !testing::Test::HasFailure(); ++round) {
        const auto a_kind = static_cast<unsigned>(random() % kinds);
        const auto b_kind = static_cast<unsigned>(random() % kinds);
        const int steps_count = 1 + static_cast<int>(random() % most);
        T a[most], b[most][lanes<T>], wanted[lanes<T>], got[lanes<T>];
        for (T& x : wanted) {
            x = random() % 2 == 0 ? T(0) : number<T>(random, static_cast<unsigned>(random() % kinds));
        }
        const V start = load<V>(wanted);
        for (int k = 0; k < steps_count; ++k) {
            a[k] = number<T>(random, a_kind);
            for (int i = 0; i < lanes<T>; ++i) {
                b[k][i] = number<T>(random, b_kind);
                wanted[i] = fused_once(k % 2 == 0 ? a[k] : -a[k], b[k][i], wanted[i]);
            }
        }
        run_chains<T>([&](auto steps) {
            auto sum = steps.from(start);
            for (int k = 0; k < steps_count; ++k) {
                if (k % 2 == 0) {
                    steps.add(steps.weight(a[k]), steps.factor(load<V>(b[k])), sum);
                } else {
                    steps.subtract(steps.weight(a[k]), steps.factor(load<V>(b[k])), sum);
                }
            }
            if (!steps.vouches_for(sum)) {
                ++unsure;
                return false;
            }
            store(steps.value(sum), got);
            return true;
        });
        for (int i = 0; i < lanes<T>; ++i) {
            EXPECT_PRED2((is_same<T, T>), got[i], wanted[i]) << "round " << round << ", lane " << i;
        }
    }
    EXPECT_TRUE(!ORNIK_QUICK_STEPS || sizeof(T) > 4 || (unsure > 1000 && unsure < 49'000)) << unsure;
}

TEST(Fused, StepsOfSinglePrecisionRoundOnce) { check_steps<float>(); }
TEST(Fused, StepsOfDoublePrecisionRoundOnce) { check_steps<double>(); }
TEST(Fused, ChainsOfSinglePrecisionAreTheirSteps) { check_chains<float>(); }
TEST(Fused, ChainsOfDoublePrecisionAreTheirSteps) { check_chains<double>(); }

}  // namespace
}  // namespace ornik::device::cpu::vec
