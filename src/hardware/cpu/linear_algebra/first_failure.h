// first_failure.h: which matrix of a batch failed, whoever of the workers noticed first.
#pragma once

#include <atomic>
#include <cstdint>

namespace ornik::device::cpu {

/// The lowest position that any worker reports; -1 without reports.
class FirstFailure {
  public:
    void report(std::int64_t index) {
        std::int64_t lowest = first_.load();
        while ((lowest == -1 || index < lowest) && !first_.compare_exchange_weak(lowest, index)) {
        }
    }
    std::int64_t get() const { return first_.load(); }

  private:
    std::atomic<std::int64_t> first_{-1};
};

}  // namespace ornik::device::cpu
