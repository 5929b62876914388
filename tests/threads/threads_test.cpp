// What may not depend on the team size, and what a region does with errors and small work.
#include <omp.h>

#include <atomic>
#include <functional>

#include "hardware/parallel.h"
#include "hardware/thread_config.h"
#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

class Teams : public testing::Test {
  protected:
    ~Teams() override { ConfigSetNumThreads(4); }
};

// Bytes of a new tensor.
std::string bytes_of(Tensor* made) {
    const TensorPtr t(made);
    return {static_cast<const char*>(t->getRawData()), static_cast<std::size_t>(t->Size() * t->itemsize())};
}

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
    const std::vector<std::function<Tensor*()>> operations = {
        [&] { return a->add_tensor(b.get()); },
        [&] { return b->div_tensor(a.get()); },
        [&] { return b->mult_scalar(1.1); },
        [&] { return b->astype(dtype::complex64); },
        [&] {
            TensorPtr c(Tensor::ones(shape, 0, dtype::float32));
            Tensor::dot(a.get(), 0, b.get(), 1, c.get(), 1);
            return c.release();
        },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        ConfigSetNumThreads(1);
        const std::string expected = bytes_of(operations[i]());
        for (const int team : {2, 4, 7}) {
            ConfigSetNumThreads(team);
            EXPECT_TRUE(bytes_of(operations[i]()) == expected) << "operation " << i << ", team of " << team;
        }
    }
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

}  // namespace
}  // namespace ornik::test
