// failing_allocation.h: makes the k-th allocation fail. faults_test.cpp replaces the global operator new.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

#include "hardware/allocator.h"

namespace ornik::test {

/// Counts down to a failure while armed; from there on everything fails until it is disarmed, as when memory has run
/// out for good.
class Countdown {
  public:
    void arm(std::int64_t k) { left_.store(k, std::memory_order_relaxed); }
    /// True when something failed since it was armed.
    bool disarm() { return left_.exchange(never, std::memory_order_relaxed) <= 0; }
    bool fails() {
        return left_.load(std::memory_order_relaxed) != never && left_.fetch_sub(1, std::memory_order_relaxed) <= 1;
    }

  private:
    static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
    std::atomic<std::int64_t> left_{never};
};

/// The machine's memory, given in pieces of the requested size alone: every buffer is a request of its own.
class FailingDevice : public device::CPUDeviceContext {
  public:
    Countdown countdown;

    void* Allocate(std::size_t bytes) override {
        const bool is_shared_block = bytes == (std::size_t{2} << 20) || bytes == (std::size_t{20} << 20);
        return is_shared_block || countdown.fails() ? nullptr : CPUDeviceContext::Allocate(bytes);
    }
};

inline Countdown heap_countdown;

}  // namespace ornik::test
