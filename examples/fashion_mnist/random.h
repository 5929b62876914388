// random.h: seeded numbers that are the same on every platform.
//
// The engine's output is fixed by the language standard; the standard distributions are not, so the
// transformations are written here.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

class Random {
  public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    /// In [-bound, bound).
    float uniform(float bound) {
        const auto unit = static_cast<float>(engine_() >> 40) * 0x1p-24F;
        return (2.0F * unit - 1.0F) * bound;
    }

    /// 0 .. n-1 in random order.
    std::vector<std::int64_t> permutation(std::int64_t n) {
        std::vector<std::int64_t> order(static_cast<std::size_t>(n));
        for (std::size_t i = 0; i < order.size(); ++i) {
            const std::size_t j = engine_() % (i + 1);
            order[i] = order[j];
            order[j] = static_cast<std::int64_t>(i);
        }
        return order;
    }

  private:
    std::mt19937_64 engine_;
};
