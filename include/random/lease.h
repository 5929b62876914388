// lease.h: exclusive use of a generator for one call. Internal.
#pragma once

#include <optional>

#include "generator.h"
#include "mersenne_twister.h"

namespace ornik::generator {

/// Holds the generator's mutex from construction to destruction.
class Lease {
  public:
    explicit Lease(std::shared_ptr<Generator> generator = default_generator())
        : generator_(std::move(generator)), lock_(*generator_->mutex_) {}

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
    std::shared_ptr<Generator> generator_;
    std::lock_guard<std::mutex> lock_;
};

}  // namespace ornik::generator
