// mersenne_twister.h: the 64-bit Mersenne twister, with bulk output. Internal.
#pragma once

#include <array>
#include <cstdint>
#include <random>

namespace ornik::generator {

/// The engine with the standard parameters (312 words, period 2^19937 - 1): the same seed gives the same
/// words as std::mt19937_64. It exists beside that class because fills take words by the thousand.
class MersenneTwister64 {
  public:
    static constexpr std::size_t state_words = 312;

    explicit MersenneTwister64(std::uint64_t value) { seed(value); }
    /// word 0 = value; word i = 6364136223846793005 (word i-1 ^ (word i-1 >> 62)) + i.
    void seed(std::uint64_t value);
    /// State words are made of pairs of 32-bit words of the sequence, the low half first.
    void seed(std::seed_seq& sequence);

    std::uint64_t operator()() {
        std::uint64_t word = 0;
        take(&word, 1);
        return temper(word);
    }
    /// The next n words of the state: `temper` makes the engine's output of each. Apart, because the steps of
    /// the state are a chain and tempering is not.
    void take(std::uint64_t* out, std::int64_t n);

    const std::array<std::uint64_t, state_words>& words() const { return state_; }
    /// Words of the state that have been handed out.
    std::size_t position() const { return next_; }
    void restore(const std::array<std::uint64_t, state_words>& words, std::size_t position) {
        state_ = words;
        next_ = position;
    }

    static std::uint64_t temper(std::uint64_t x) {
        x ^= (x >> 29) & 0x5555555555555555U;
        x ^= (x << 17) & 0x71d67fffeda60000U;
        x ^= (x << 37) & 0xfff7eee000000000U;
        return x ^ (x >> 43);
    }

  private:
    void twist();

    std::array<std::uint64_t, state_words> state_{};
    std::size_t next_ = state_words;
};

}  // namespace ornik::generator
