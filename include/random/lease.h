// lease.h: exclusive use of a generator for one call. Internal.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "generator.h"
#include "mersenne_twister.h"

namespace ornik::generator {

/// Holds the generator's mutex from construction to destruction. A call that ends in an exception has drawn nothing.
class Lease {
  public:
    explicit Lease(std::shared_ptr<Generator> generator = default_generator())
        : generator_(std::move(generator)), lock_(*generator_->mutex_), before_(*generator_) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() {
        if (std::uncaught_exceptions() > before_.exceptions) {
            *generator_->engine_ = before_.engine;
            generator_->counter_ = before_.counter;
            generator_->has_cached_ = before_.has_cached;
            generator_->cached_ = before_.cached;
        }
    }

    /// The next n words of the engine's state, untempered.
    void take(std::uint64_t* out, std::int64_t n) {
        generator_->engine_->take(out, n);
        generator_->counter_ += static_cast<std::uint64_t>(n);
    }

    /// The cached standard normal deviate, which is then gone.
    std::optional<double> take_cached() {
        if (!generator_->has_cached_) {
            return std::nullopt;
        }
        generator_->has_cached_ = false;
        return generator_->cached_;
    }
    void keep_cached(double deviate) {
        generator_->has_cached_ = true;
        generator_->cached_ = deviate;
    }

  private:
    struct Before {
        explicit Before(const Generator& generator)
            : engine(*generator.engine_),
              counter(generator.counter_),
              has_cached(generator.has_cached_),
              cached(generator.cached_) {}

        MersenneTwister64 engine;
        std::uint64_t counter;
        bool has_cached;
        double cached;
        int exceptions = std::uncaught_exceptions();
    };

    std::shared_ptr<Generator> generator_;
    std::lock_guard<std::mutex> lock_;
    Before before_;
};

}  // namespace ornik::generator
