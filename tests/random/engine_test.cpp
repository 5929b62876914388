// The engine and its seeding against the standard library's, and draws from several threads.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "hardware/thread_config.h"
#include "random/lease.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using generator::Generator;
using generator::MersenneTwister64;

const std::uint32_t seed_at_start = get_random_seed();

std::mt19937_64 seeded(std::uint32_t seed) {
    std::seed_seq sequence{seed};
    return std::mt19937_64(sequence);
}

TEST(Engine, GivesTheStandardWords) {
    MersenneTwister64 engine(5489);
    for (int i = 1; i < 10000; ++i) {
        engine();
    }
    EXPECT_EQ(engine(), 9981545732273789042U);  // The standard's own check of this engine.
    for (const std::uint32_t seed : {0U, 1U, 7U, 4294967295U}) {
        std::seed_seq sequence{seed};
        engine.seed(sequence);
        std::mt19937_64 expected = seeded(seed);
        for (const std::int64_t n : {1, 310, 2, 312, 1000, 156}) {
            std::vector<std::uint64_t> words(static_cast<std::size_t>(n));
            engine.take(words.data(), n);
            for (const std::uint64_t word : words) {
                ASSERT_EQ(MersenneTwister64::temper(word), expected()) << seed;
            }
        }
    }
}

TEST(Generators, SeedsAndSharing) {
    EXPECT_EQ(seed_at_start, 0U);
    const std::shared_ptr<Generator> common = generator::default_generator();
    EXPECT_LT(common->seed(), std::uint64_t{1} << 53);
    set_random_seed(7);
    EXPECT_EQ(get_random_seed(), 7U);
    EXPECT_EQ(common->seed(), 7U);
    std::mt19937_64 words = seeded(7);
    EXPECT_EQ(common->next(), words());
    Generator sharing(0);
    EXPECT_EQ(sharing.next(), words());
    EXPECT_EQ(common->next(), words());
    EXPECT_EQ(common->counter(), 2U);
    EXPECT_EQ(sharing.engine(), common->engine());
    Generator own(7);
    EXPECT_EQ(own.next(), std::mt19937_64(7)());
    std::mt19937 narrow(7);
    EXPECT_EQ(generator::next_random32(), narrow());
    EXPECT_EQ(generator::next_random32(), narrow());
    set_random_seed(7);
    EXPECT_EQ(common->counter(), 0U);
    EXPECT_EQ(common->next(), seeded(7)());
    EXPECT_EQ(generator::next_random32(), std::mt19937(7)());
}

TEST(Generators, ThreadsShareOneSequence) {
    constexpr int threads = 3, calls = 40;
    constexpr std::int64_t n = 1000;
    set_random_seed(11);
    std::vector<std::vector<double>> firsts(threads);
    std::vector<std::thread> team;
    for (std::vector<double>& mine : firsts) {
        team.emplace_back([&mine] {
            for (int i = 0; i < calls; ++i) {
                mine.push_back(values_of<double>(TensorPtr(Tensor::randu({n}, 0, 1, 0, dtype::float64)))[0]);
            }
        });
    }
    for (std::thread& t : team) {
        t.join();
    }
    std::multiset<double> drawn, expected;
    std::mt19937_64 words = seeded(11);
    for (const std::vector<double>& mine : firsts) {
        drawn.insert(mine.begin(), mine.end());
    }
    for (int i = 0; i < threads * calls; ++i) {
        expected.insert(static_cast<double>(words() >> 11) * 0x1p-53);
        words.discard(n - 1);
    }
    EXPECT_EQ(drawn, expected);
}

TEST(Generators, ThreadsDrawReseedAndDelete) {
    std::vector<std::thread> team;
    for (std::uint32_t id = 0; id < 4; ++id) {
        team.emplace_back([id] {
            for (std::uint32_t i = 0; i < 50; ++i) {
                if (id < 2) {
                    set_random_seed(100 * id + i);
                    const Generator fresh(i), sharing(0);
                    EXPECT_TRUE(fresh.engine() && sharing.engine());
                } else {
                    const TensorPtr t(Tensor::randn({40001}, 5, 0.5, 0, dtype::float32));
                    for (const float x : values_of<float>(t)) {
                        ASSERT_TRUE(x > 0 && x < 10);
                    }
                }
            }
        });
    }
    for (std::thread& t : team) {
        t.join();
    }
    EXPECT_EQ(generator::default_generator()->seed(), get_random_seed());
}

}  // namespace
}  // namespace ornik::test
