#include "random/mersenne_twister.h"

#include <algorithm>

namespace ornik::generator {

namespace {

constexpr std::size_t half = MersenneTwister64::state_words / 2;

// The contribution of two neighbouring words to the word that replaces the first.
inline std::uint64_t mixed(std::uint64_t upper, std::uint64_t lower) {
    const std::uint64_t y = (upper & 0xffffffff80000000U) | (lower & 0x7fffffffU);
    return (y >> 1) ^ ((std::uint64_t{0} - (y & 1)) & 0xb5026f5aa96619e9U);
}

}  // namespace

void MersenneTwister64::seed(std::uint64_t value) {
    state_[0] = value;
    for (std::size_t i = 1; i < state_words; ++i) {
        state_[i] = 6364136223846793005U * (state_[i - 1] ^ (state_[i - 1] >> 62)) + i;
    }
    next_ = state_words;
}

void MersenneTwister64::seed(std::seed_seq& sequence) {
    std::array<std::uint32_t, 2 * state_words> halves{};
    sequence.generate(halves.begin(), halves.end());
    for (std::size_t i = 0; i < state_words; ++i) {
        state_[i] = halves[2 * i] | static_cast<std::uint64_t>(halves[2 * i + 1]) << 32;
    }
    // A state of zeros would never leave itself. The low bits of word 0 are no part of the state.
    const bool zeros = (state_[0] >> 31) == 0 &&
                       std::all_of(state_.begin() + 1, state_.end(), [](std::uint64_t word) { return word == 0; });
    if (zeros) {
        state_[0] = std::uint64_t{1} << 63;
    }
    next_ = state_words;
}

void MersenneTwister64::twist() {
    // Two loops, each over words that do not depend on each other's new values.
    std::uint64_t* const x = state_.data();
    for (std::size_t i = 0; i < half; ++i) {
        x[i] = x[i + half] ^ mixed(x[i], x[i + 1]);
    }
    for (std::size_t i = half; i < state_words - 1; ++i) {
        x[i] = x[i - half] ^ mixed(x[i], x[i + 1]);
    }
    x[state_words - 1] = x[half - 1] ^ mixed(x[state_words - 1], x[0]);
    next_ = 0;
}

void MersenneTwister64::take(std::uint64_t* out, std::int64_t n) {
    while (n > 0) {
        if (next_ == state_words) {
            twist();
        }
        const std::int64_t count = std::min(n, static_cast<std::int64_t>(state_words - next_));
        out = std::copy_n(state_.data() + next_, count, out);
        next_ += static_cast<std::size_t>(count);
        n -= count;
    }
}

}  // namespace ornik::generator
