#include "random/generator.h"

#include <algorithm>
#include <random>
#include <utility>

#include "hardware/fork.h"
#include "random/lease.h"
#include "utils/error.h"

namespace ornik {

namespace {

struct SharedSeed {
    std::mutex mutex;
    std::mt19937 engine;
    std::uint32_t last = 0;
};

SharedSeed& shared_seed() {
    static SharedSeed instance;
    [[maybe_unused]] static const bool held = [] {
        hold_over_fork(
            ForkLock::seed, [] { instance.mutex.lock(); }, [] { instance.mutex.unlock(); });
        return true;
    }();
    return instance;
}

std::shared_ptr<generator::MersenneTwister64> fresh_engine(std::uint64_t seed) {
    static std::mutex mutex;
    [[maybe_unused]] static const bool held = [] {
        hold_over_fork(
            ForkLock::engine, [] { mutex.lock(); }, [] { mutex.unlock(); });
        return true;
    }();
    const std::lock_guard lock(mutex);
    return std::make_shared<generator::MersenneTwister64>(seed);
}

}  // namespace

void set_random_seed(std::uint32_t seed) {
    const std::shared_ptr<generator::Generator> target = generator::default_generator();
    SharedSeed& shared = shared_seed();
    // Held to the end, so that of two calls at once one sets everything.
    const std::lock_guard lock(shared.mutex);
    shared.engine.seed(seed);
    shared.last = seed;
    target->set_seed(seed);
}

std::uint32_t get_random_seed() {
    SharedSeed& shared = shared_seed();
    const std::lock_guard lock(shared.mutex);
    return shared.last;
}

namespace generator {

Generator::Generator(std::uint64_t seed, OwnEngine)
    : seed_(seed), engine_(fresh_engine(seed)), mutex_(std::make_shared<std::mutex>()) {}

Generator::Generator(std::uint64_t seed) : seed_(seed) {
    if (seed != 0) {
        engine_ = fresh_engine(seed);
        mutex_ = std::make_shared<std::mutex>();
        return;
    }
    const std::shared_ptr<Generator> other = default_generator();
    const std::lock_guard lock(*other->mutex_);
    engine_ = other->engine_;
    mutex_ = other->mutex_;
}

Generator::Generator(const GeneratorState& state) : Generator(state.seed, OwnEngine{}) { set_state(state); }

GeneratorState Generator::state() const {
    const std::lock_guard lock(*mutex_);
    return {seed_, counter_, engine_->words(), engine_->position(), has_cached_, cached_};
}

void Generator::set_state(const GeneratorState& state) {
    const bool all_zeros = std::all_of(state.words.begin(), state.words.end(), [](std::uint64_t w) { return w == 0; });
    if (state.position > MersenneTwister64::state_words || all_zeros) {
        fail(where("ornik::generator::Generator::set_state"), "This is no state of a random generator.");
    }
    const std::lock_guard lock(*mutex_);
    seed_ = state.seed;
    counter_ = state.counter;
    engine_->restore(state.words, static_cast<std::size_t>(state.position));
    has_cached_ = state.has_cached_value;
    cached_ = state.cached_value;
}

std::uint64_t Generator::seed() const {
    const std::lock_guard lock(*mutex_);
    return seed_;
}

std::uint64_t Generator::counter() const {
    const std::lock_guard lock(*mutex_);
    return counter_;
}

bool Generator::has_cached_value() const {
    const std::lock_guard lock(*mutex_);
    return has_cached_;
}

void Generator::set_seed(std::uint32_t seed) {
    const std::lock_guard lock(*mutex_);
    seed_ = seed;
    counter_ = 0;
    std::seed_seq sequence{seed};
    engine_->seed(sequence);
    has_cached_ = false;
}

std::uint64_t Generator::next() {
    const std::lock_guard lock(*mutex_);
    ++counter_;
    return (*engine_)();
}

std::shared_ptr<Generator> make_default_generator() {
    std::random_device device;
    const std::uint64_t high = device();
    const std::uint64_t low = device();
    const std::uint64_t seed = (high << 32 | low) & ((std::uint64_t{1} << 53) - 1);
    return std::shared_ptr<Generator>(new Generator(seed, Generator::OwnEngine{}));
}

namespace {

std::shared_ptr<Generator>& scoped_generator() {
    thread_local std::shared_ptr<Generator> instance;
    return instance;
}

}  // namespace

std::shared_ptr<Generator> default_generator() {
    if (const std::shared_ptr<Generator>& scoped = scoped_generator()) {
        return scoped;
    }
    static const std::shared_ptr<Generator> instance = make_default_generator();
    static std::optional<Lease> over_fork;
    [[maybe_unused]] static const bool held = [] {
        hold_over_fork(
            ForkLock::generator, [] { over_fork.emplace(instance); }, [] { over_fork.reset(); });
        return true;
    }();
    return instance;
}

GeneratorScope::GeneratorScope(std::shared_ptr<Generator> generator) {
    if (generator == nullptr) {
        fail(where("ornik::generator::GeneratorScope::GeneratorScope"), "A scope needs a random generator.");
    }
    previous_ = std::exchange(scoped_generator(), std::move(generator));
}

GeneratorScope::~GeneratorScope() { scoped_generator() = std::move(previous_); }

std::uint32_t next_random32() {
    SharedSeed& shared = shared_seed();
    const std::lock_guard lock(shared.mutex);
    return static_cast<std::uint32_t>(shared.engine());
}

}  // namespace generator

}  // namespace ornik
