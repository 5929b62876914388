// node.cpp: the life of a node.
#include "ktensor/node.h"

namespace ornik::autograd {

namespace {

// Nodes hold nodes: destroying one inside another's destructor would take a stack frame for each operation of a
// program. Whoever drops a last count puts the node on its thread's list; the first one to do so empties the list.
ORNIK_NEAR_TLS thread_local constinit Node* doomed = nullptr;
ORNIK_NEAR_TLS thread_local constinit bool draining = false;

ORNIK_NEAR_TLS thread_local constinit std::uint64_t clock = 0;

}  // namespace

void add_count(Node* node) noexcept { node->references.fetch_add(1, std::memory_order_relaxed); }

void drop_count(Node* node) noexcept {
    if (node->references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    node->next = doomed;
    doomed = node;
    if (draining) {
        return;
    }
    draining = true;
    while (doomed != nullptr) {
        Node* last = doomed;
        doomed = last->next;
        const std::size_t bytes = last->bytes;
        last->~Node();
        detail::give_object_memory(last, bytes);
    }
    draining = false;
}

Node::~Node() {
    std::destroy_n(saved_, saved_count);
    std::destroy_n(edges_, edge_count);
}

void Node::release_saved() {
    released = true;
    for (Saved& value : saved()) {
        value.data = nullptr;
    }
}

std::uint64_t next_sequence(std::uint64_t least) noexcept {
    clock = std::max(clock, least) + 1;
    return clock;
}

}  // namespace ornik::autograd
