// word_stream.h: as many words as an element happens to need, from the one word that is its share.
#pragma once

#include <cstdint>

namespace ornik::device::cpu::random {

/// Elements that need an open number of draws can not take them from the engine in parallel: what one takes
/// would move all others. Each spreads its own word instead: a counter of odd step through a mixing function
/// of two multiplications (SplitMix64; Steele, Lea and Flood 2014), whose step passes the usual batteries.
class WordStream {
  public:
    explicit WordStream(std::uint64_t word) : counter_(word) {}

    std::uint64_t next() {
        counter_ += 0x9e3779b97f4a7c15U;
        std::uint64_t x = counter_;
        x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9U;
        x = (x ^ (x >> 27)) * 0x94d049bb133111ebU;
        return x ^ (x >> 31);
    }
    /// In (0, 1).
    double next_unit() { return (static_cast<double>(next() >> 12) + 0.5) * 0x1p-52; }

  private:
    std::uint64_t counter_;
};

}  // namespace ornik::device::cpu::random
