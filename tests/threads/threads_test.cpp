// What may not depend on the team size, and what a region does with errors and small work.
#include <omp.h>

#include <atomic>
#include <random>

#include "hardware/parallel.h"
#include "hardware/thread_config.h"
#include "support/expect_error.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

class Teams : public testing::Test {
  protected:
    ~Teams() override { ConfigSetNumThreads(4); }
};

TEST_F(Teams, SameBitsAtEverySize) {
    const Dims shape{211, 211};
    const auto values = [&](double scale) {
        std::vector<float> list;
        for (std::int64_t i = 0; i < numel_of(shape); ++i) {
            list.push_back(static_cast<float>(scale / static_cast<double>(i + 3)));
        }
        return list;
    };
    const TensorPtr a = make<float>(shape, values(7.1));
    const TensorPtr b = make<float>(shape, values(-0.3), Layout::transposed);
    expect_same_bits([&] {
        std::vector<TensorPtr> all;
        all.emplace_back(a->add_tensor(b.get()));
        all.emplace_back(b->div_tensor(a.get()));
        all.emplace_back(b->mult_scalar(1.1));
        all.emplace_back(b->astype(dtype::complex64));
        all.emplace_back(Tensor::ones(shape, 0, dtype::float32));
        Tensor::dot(a.get(), 0, b.get(), 1, all.back().get(), 1);
        return all;
    });
}

TEST_F(Teams, TheLowestRangesErrorArrivesAfterAllRangesHaveEnded) {
    ConfigSetNumThreads(4);
    for (int round = 0; round < 20; ++round) {
        std::atomic<std::int64_t> handled{0};
        const std::string text = error_text([&] {
            parallel_for(4000, 1, 1, [&](std::int64_t begin, std::int64_t end) {
                handled += end - begin;
                throw std::runtime_error("from " + std::to_string(begin));
            });
        });
        EXPECT_EQ(text, "from 0");
        EXPECT_EQ(handled.load(), 4000);
    }
}

TEST_F(Teams, SmallWorkRunsOnTheCallingThreadInOnePiece) {
    const auto whole = [](std::int64_t n, std::int64_t unit, std::int64_t grain) {
        const int caller = omp_get_thread_num();
        int calls = 0;
        parallel_for(n, unit, grain, [&](std::int64_t begin, std::int64_t end) {
            calls += begin == 0 && end == n && omp_get_thread_num() == caller ? 1 : 100;
        });
        return calls;
    };
    EXPECT_EQ(whole(999, 1, 1000), 1) << "below the grain";
    EXPECT_EQ(whole(64, 64, 1), 1) << "one unit";
    EXPECT_EQ(whole(0, 1, 0), 0) << "nothing to do";
    EXPECT_EQ(whole(-5, 1, -9), 0);
    ConfigSetNumThreads(1);
    EXPECT_EQ(whole(100000, 1, 1), 1) << "a team of one";
}

TEST_F(Teams, EveryItemOnceAtMultiplesOfTheUnit) {
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        ConfigSetNumThreads(static_cast<int>(random() % 9 + 1));
        const std::int64_t n = random() % 2000;
        const std::int64_t unit = random() % 70 + 1;
        const std::int64_t grain = random() % 2 == 0 ? 1 : 1000;
        std::vector<std::atomic<int>> visits(static_cast<std::size_t>(n));
        std::atomic<int> misplaced{0};
        parallel_for(n, unit, grain, [&](std::int64_t begin, std::int64_t end) {
            misplaced += begin % unit != 0 || (end != n && end % unit != 0) ? 1 : 0;
            for (std::int64_t i = begin; i < end; ++i) {
                ++visits[static_cast<std::size_t>(i)];
            }
        });
        EXPECT_EQ(misplaced.load(), 0) << n << " " << unit;
        for (const auto& count : visits) {
            ASSERT_EQ(count.load(), 1) << n << " " << unit;
        }
    }
}

TEST_F(Teams, ErrorsReachTheCallerAndNestedRegionsStaySerial) {
    expect_error(
        [] {
            parallel_for(1000, 1, 1, [](std::int64_t, std::int64_t end) {
                if (end == 1000) {
                    fail(where("block"), "last");
                }
            });
        },
        "last", "block", "tests/threads/threads_test.cpp");
    std::atomic<int> ranges{0};
#pragma omp parallel num_threads(2)
    {
        parallel_for(1000, 1, 1,
                     [&](std::int64_t begin, std::int64_t end) { ranges += end - begin == 1000 ? 1 : 100; });
    }
    EXPECT_LE(ranges.load(), 2);
}

TEST_F(Teams, ConstructionAppliesTheTeamSize) {
    ConfigSetNumThreads(7);
    EXPECT_EQ(ConfigGetNumThreads(), 7);
    omp_set_num_threads(1);
    const TensorPtr t(Tensor::empty({1}, 0, dtype::float32));
    EXPECT_EQ(omp_get_max_threads(), 7);
    expect_error([] { ConfigSetNumThreads(0); }, "Number of threads should be >= 1, however it equals 0",
                 "ornik::ConfigSetNumThreads", "src/hardware/parallel.cpp");
    EXPECT_EQ(ConfigGetNumThreads(), 7);
}

}  // namespace
}  // namespace ornik::test
