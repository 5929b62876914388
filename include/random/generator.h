// generator.h: where all random numbers of the library come from.
//
//     ornik::set_random_seed(7);
//     std::unique_ptr<ornik::Tensor> a(ornik::Tensor::randn({2, 3}, 0, 1, 0, ornik::dtype::float32));
//
// Draws use the default generator, in the order in which the calls take its mutex: once a call. After
// set_random_seed a sequence of calls gives the same numbers on every platform and with any number of
// threads inside the calls; calls from several threads share one sequence.
#pragma once

#include <array>
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

/// All that a generator's next numbers depend on, the same on every platform. `position` counts the words of the
/// engine's state that have been handed out.
struct GeneratorState {
    std::uint64_t seed = 0;
    std::uint64_t counter = 0;
    std::array<std::uint64_t, 312> words{};
    std::uint64_t position = 0;
    bool has_cached_value = false;
    double cached_value = 0;
};

class ORNIK_API Generator {
  public:
    /// An engine of its own with the standard initialisation from `seed`; not the state that set_seed gives
    /// for the same number. A seed of 0 shares the default generator's engine.
    explicit Generator(std::uint64_t seed);
    /// An engine of its own that goes on from the state. A state that none can be in is an error, here and below.
    explicit Generator(const GeneratorState& state);
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

    GeneratorState state() const;
    /// Goes on from a state; so does whoever shares the engine.
    void set_state(const GeneratorState& state);

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

/// The process-wide generator, made on first use from a 53-bit seed of the system's random device; inside a
/// GeneratorScope, the calling thread's.
ORNIK_API std::shared_ptr<Generator> default_generator();

/// Makes a generator the default one of the calling thread, from construction to destruction on that thread. Other
/// threads keep theirs; set_random_seed seeds the scope's. Scopes nest.
///
///     const GeneratorState before = default_generator()->state();
///     ...                                                             // draws numbers
///     GeneratorScope again(std::make_shared<Generator>(before));      // draws the same ones from here on
class ORNIK_API GeneratorScope {
  public:
    /// Null is an error.
    explicit GeneratorScope(std::shared_ptr<Generator> generator);
    ~GeneratorScope();
    GeneratorScope(const GeneratorScope&) = delete;
    GeneratorScope& operator=(const GeneratorScope&) = delete;

  private:
    std::shared_ptr<Generator> previous_;
};

/// The next word of the process-wide 32-bit Mersenne twister, which only set_random_seed seeds.
ORNIK_API std::uint32_t next_random32();

}  // namespace generator

}  // namespace ornik
