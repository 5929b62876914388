// generator.h: where all random numbers of the library come from.
//
//     ornik::set_random_seed(7);
//     std::unique_ptr<ornik::Tensor> a(ornik::Tensor::randn({2, 3}, 0, 1, 0, ornik::dtype::float32));
//
// Draws use the default generator, in the order in which the calls take its mutex: once a call. After
// set_random_seed a sequence of calls gives the same numbers on every platform and with any number of
// threads inside the calls; calls from several threads share one sequence.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "../export.h"

namespace ornik {

/// Seeds the default generator (by a seed sequence of this one value) and the 32-bit engine.
ORNIK_API void set_random_seed(std::uint32_t seed);

/// The last seed given to set_random_seed; 0 before that. Without a seed the default generator starts from
/// the operating system's random device.
ORNIK_API std::uint32_t get_random_seed();

namespace generator {

class MersenneTwister64;

class ORNIK_API Generator {
  public:
    /// An engine of its own with the standard initialisation from `seed`; not the state that set_seed gives
    /// for the same number. A seed of 0 shares the default generator's engine.
    explicit Generator(std::uint64_t seed);
    Generator(const Generator&) = delete;
    Generator& operator=(const Generator&) = delete;

    std::uint64_t seed() const;
    /// Words of the engine taken through this generator since its seed was set.
    std::uint64_t counter() const;
    std::shared_ptr<MersenneTwister64> engine() const { return engine_; }
    /// Is half a pair of normal deviates kept for the next normal fill?
    bool has_cached_value() const;

    /// Re-seeds the engine from a seed sequence of this one value; forgets counter and cached value.
    void set_seed(std::uint32_t seed);
    /// The engine's next word.
    std::uint64_t next();

  private:
    friend class Lease;
    friend std::shared_ptr<Generator> make_default_generator();
    struct OwnEngine {};
    Generator(std::uint64_t seed, OwnEngine);

    std::uint64_t seed_;
    std::uint64_t counter_ = 0;
    std::shared_ptr<MersenneTwister64> engine_;
    // Shared like the engine: whoever draws from one engine takes one mutex.
    std::shared_ptr<std::mutex> mutex_;
    bool has_cached_ = false;
    double cached_ = 0;
};

/// The process-wide generator, made on first use from a 53-bit seed of the system's random device.
ORNIK_API std::shared_ptr<Generator> default_generator();

/// The next word of the process-wide 32-bit Mersenne twister, which only set_random_seed seeds.
ORNIK_API std::uint32_t next_random32();

}  // namespace generator

}  // namespace ornik
