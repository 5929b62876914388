// The engine and its seeding against the standard library's, and draws from several threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "random/lease.h"
#include "support/expect_error.h"
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

// Runs work(0), work(1) ... at once.
void run_threads(int count, const std::function<void(int)>& work) {
    std::vector<std::thread> team;
    for (int id = 0; id < count; ++id) {
        team.emplace_back(work, id);
    }
    for (std::thread& t : team) {
        t.join();
    }
}

TEST(Generators, ThreadsShareOneSequence) {
    constexpr std::int64_t n = 1000;
    set_random_seed(11);
    std::mutex mutex;
    std::multiset<double> drawn, expected;
    run_threads(3, [&](int) {
        for (int i = 0; i < 40; ++i) {
            const TensorPtr t(Tensor::randu({n}, 0, 1, 0, dtype::float64));
            const std::lock_guard lock(mutex);
            drawn.insert(values_of<double>(t)[0]);
        }
    });
    std::mt19937_64 words = seeded(11);
    for (int i = 0; i < 3 * 40; ++i, words.discard(n - 1)) {
        expected.insert(static_cast<double>(words() >> 11) * 0x1p-53);
    }
    EXPECT_EQ(drawn, expected);
}

TEST(Generators, ThreadsDrawReseedAndDelete) {
    run_threads(4, [](int id) {
        for (std::uint32_t i = 0; i < 50; ++i) {
            if (id < 2) {
                set_random_seed(i + (id == 0 ? 0 : 100));
                const Generator fresh(i + 1), sharing(0);
                EXPECT_NE(fresh.engine(), sharing.engine());
            } else {
                const std::vector<float> x = values_of<float>(TensorPtr(Tensor::randn({40001}, 5, 0.5, 0, 6)));
                EXPECT_TRUE(std::all_of(x.begin(), x.end(), [](float v) { return v > 0 && v < 10; }));
            }
        }
    });
    EXPECT_EQ(generator::default_generator()->seed(), get_random_seed());
}

TEST(Generators, StatesAndScopes) {
    using generator::GeneratorScope;
    using generator::GeneratorState;
    const auto draws = [] {
        return bytes_of(TensorPtr(Tensor::randn({7}, 0, 1, 0, dtype::float64))) +
               bytes_of(TensorPtr(Tensor::randn({401}, 0, 1, 0, dtype::float64)));
    };
    set_random_seed(3);
    draws();  // Leaves half a pair, in the middle of the engine's state.
    const std::shared_ptr<Generator> common = generator::default_generator();
    EXPECT_TRUE(common->has_cached_value() == common->state().has_cached_value);
    const TensorPtr odd(Tensor::randn({1}, 0, 1, 0, dtype::float64));
    const GeneratorState before = common->state();
    const std::string first = draws();
    const GeneratorState after = common->state();
    {
        const GeneratorScope scope(std::make_shared<Generator>(before));
        EXPECT_NE(generator::default_generator(), common);
        std::thread([&] { EXPECT_EQ(generator::default_generator(), common); }).join();
        EXPECT_EQ(draws(), first);
        EXPECT_EQ(generator::default_generator()->state().words, after.words);
        EXPECT_EQ(generator::default_generator()->counter(), after.counter);
        {
            const GeneratorScope inner(common);
            EXPECT_EQ(generator::default_generator(), common);
        }
        set_random_seed(3);  // The scope's generator.
    }
    EXPECT_EQ(generator::default_generator(), common);
    EXPECT_EQ(common->state().position, after.position);
    EXPECT_EQ(common->counter(), after.counter);
    common->set_state(before);
    EXPECT_EQ(draws(), first);
    EXPECT_EQ(common->has_cached_value(), after.has_cached_value);

    GeneratorState wrong = before;
    wrong.position = 313;
    expect_error([&] { common->set_state(wrong); }, "This is no state of a random generator.",
                 "ornik::generator::Generator::set_state", "src/random/generator.cpp");
    expect_error([] { Generator none{GeneratorState{}}; }, "This is no state of a random generator.",
                 "ornik::generator::Generator::set_state", "src/random/generator.cpp");
    expect_error([] { GeneratorScope none(nullptr); }, "A scope needs a random generator.",
                 "ornik::generator::GeneratorScope::GeneratorScope", "src/random/generator.cpp");
}

}  // namespace
}  // namespace ornik::test
