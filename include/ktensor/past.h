// past.h: where a tensor came from, read and changed by several threads. Internal.
//
// An operation in place gives its target another past while other threads may use the target: what they compute then is
// open, but the past that they find is whole, and lives as long as they hold it.
#pragma once

#include <atomic>
#include <cstdint>

#include "ref.h"

namespace ornik::autograd {

struct Node;
void add_count(Node* node) noexcept;
void drop_count(Node* node) noexcept;

struct Past {
    Ref<Node> node;
    std::uint32_t output = 0;  // of the node's
};

/// The place of a tensor's past.
class PastOf {
  public:
    PastOf() noexcept = default;
    PastOf(const PastOf&) = delete;
    PastOf& operator=(const PastOf&) = delete;
    ~PastOf() { Ref<Node>::drop(node()); }

    bool empty() const noexcept { return node_.load(std::memory_order_relaxed) == nullptr; }
    Past now() const;
    void replace(Past past);

    /// The first past of a tensor that no other thread knows yet.
    void begin(Ref<Node> node, std::uint32_t output) noexcept {
        output_ = output;
        node_.store(node.release(), std::memory_order_relaxed);
    }
    /// Only of a tensor whose past no other thread replaces.
    Node* node() const noexcept { return node_.load(std::memory_order_relaxed); }
    std::uint32_t output() const noexcept { return output_; }

  private:
    std::atomic<Node*> node_{nullptr};
    std::uint32_t output_ = 0;
};

}  // namespace ornik::autograd
