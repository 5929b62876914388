// past.cpp: one past taken and replaced by several threads.
#include "ktensor/past.h"

#include <array>
#include <mutex>

#include "ktensor/node.h"

namespace ornik::autograd {

namespace {

// One of a few for all tensors, held for a few instructions.
std::mutex& lock_of(const PastOf* past) noexcept {
    static std::array<std::mutex, 64> locks;
    return locks[(reinterpret_cast<std::uintptr_t>(past) / sizeof(Impl)) % locks.size()];
}

}  // namespace

Past PastOf::now() const {
    if (empty()) {
        return {};
    }
    const std::scoped_lock guard(lock_of(this));
    return {Ref<Node>::share(node()), output_};
}

void PastOf::replace(Past past) {
    Ref<Node> old;  // Dropped after the lock.
    const std::scoped_lock guard(lock_of(this));
    old = Ref<Node>::adopt(node_.exchange(past.node.release(), std::memory_order_relaxed));
    output_ = past.output;
}

}  // namespace ornik::autograd
