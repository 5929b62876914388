// hooks.h: functions that see a gradient on its way. Internal.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace ornik {
class KTensor;
}

namespace ornik::autograd {

using Hook = std::function<KTensor(const KTensor&)>;

/// Hooks in the order of their registration. Registered and removed while other threads walk the graph.
class HookList {
  public:
    struct Entry {
        std::uint32_t output;  // of the node that the list belongs to; 0 for a leaf's
        std::int64_t number;
        std::shared_ptr<const Hook> hook;
    };

    void add(std::uint32_t output, std::int64_t number, Hook hook);
    void remove(std::uint32_t output, std::int64_t number);
    /// Those of now: a hook may register or remove others.
    std::vector<Entry> entries() const;
    /// The same, only while no other thread reaches the list.
    const std::vector<Entry>& unguarded() const noexcept { return entries_; }

    std::atomic<std::uint32_t> references{1};

  private:
    mutable std::mutex lock_;
    std::vector<Entry> entries_;
};
inline void destroy(HookList* list) noexcept { delete list; }

}  // namespace ornik::autograd
