// node.h: one recorded operation. Internal.
//
// A node, its edges to the operands' nodes, its saved values and its arguments (the captures of the function that
// computes the gradients) are one allocation. See record.h for how nodes are made and backward.h for what their
// functions see.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "impl.h"
#include "operation_rows.h"

namespace ornik::autograd {

class Backward;
class Run;

/// A shape without a heap block up to six axes.
class ShapeNote {
  public:
    ShapeNote() = default;
    explicit ShapeNote(const Dims& shape) : rank_(static_cast<std::uint32_t>(shape.size())) {
        if (shape.size() > inline_axes) {
            far_ = std::make_unique<std::int64_t[]>(shape.size());
        }
        std::copy(shape.begin(), shape.end(), data());
    }
    bool operator==(const Dims& shape) const {
        return shape.size() == rank_ && std::equal(shape.begin(), shape.end(), data());
    }
    Dims dims() const { return Dims(data(), data() + rank_); }

  private:
    static constexpr std::size_t inline_axes = 6;
    std::int64_t* data() { return far_ ? far_.get() : near_.data(); }
    const std::int64_t* data() const { return far_ ? far_.get() : near_.data(); }

    std::uint32_t rank_ = 0;
    std::array<std::int64_t, inline_axes> near_{};
    std::unique_ptr<std::int64_t[]> far_;
};

/// Where the gradient of an operand goes: to an output of another node, to a leaf, or, when neither is set, nowhere.
struct Edge {
    Ref<Node> node;
    Ref<Impl> leaf;
    std::int64_t dtype = 0;
    std::uint32_t output = 0;
    ShapeNote shape;

    explicit operator bool() const { return node || leaf; }
};

/// A value kept for the gradient: an operand (`of` >= 0), an output (`of` < 0: output -1 - of) or one of the
/// operation's own.
struct Saved {
    static constexpr std::int32_t own = INT32_MAX;

    Ref<Data> data;
    std::uint32_t version = 0;
    std::int32_t of = own;
};

struct Node {
    Node(Op operation, std::size_t edges_made, std::size_t saved_made, std::size_t outputs)
        : op(operation),
          edge_count(static_cast<std::uint32_t>(edges_made)),
          saved_count(static_cast<std::uint32_t>(saved_made)),
          output_count(static_cast<std::uint32_t>(outputs)) {}
    virtual ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    /// Gives the gradients of the operands that are wanted.
    virtual void backward(Backward& context) = 0;
    /// The operation's, for messages.
    const char* name() const { return label != nullptr ? label : info_of(op).name; }
    /// Drops what only the gradient needed.
    void release_saved();
    std::span<Edge> edges() const { return {edges_, edge_count}; }
    std::span<Saved> saved() const { return {saved_, saved_count}; }

    std::atomic<std::uint32_t> references{1};
    Op op;
    const char* label = nullptr;  // of a program's own operation; lives in its function
    bool released = false;
    std::uint32_t edge_count;
    std::uint32_t saved_count;
    std::uint32_t output_count;
    std::uint32_t bytes = 0;         // of the whole piece of memory
    std::uint64_t sequence = 0;      // larger than that of every node it leads to
    std::atomic<Run*> run{nullptr};  // the pass that walks it now
    std::size_t position = 0;        // in that pass
    Node* next = nullptr;            // in the list of nodes to be destroyed
    Edge* edges_ = nullptr;          // behind the object
    Saved* saved_ = nullptr;
    MadeOnce<HookList> hooks;
};

template <typename Function>
struct NodeOf final : Node {
    NodeOf(Op operation, std::size_t edges_made, std::size_t saved_made, std::size_t outputs, Function&& f)
        : Node(operation, edges_made, saved_made, outputs), function(std::move(f)) {}
    void backward(Backward& context) override { function(context); }

    Function function;

    static Ref<Node> make(Op operation, std::size_t edges_made, std::size_t saved_made, std::size_t outputs,
                          Function&& f) {
        static_assert(alignof(NodeOf) <= alignof(std::max_align_t) && sizeof(NodeOf) % alignof(Edge) == 0);
        const std::size_t bytes = sizeof(NodeOf) + edges_made * sizeof(Edge) + saved_made * sizeof(Saved);
        char* memory = static_cast<char*>(detail::take_object_memory(bytes));
        auto* node = new (memory) NodeOf(operation, edges_made, saved_made, outputs, std::move(f));
        node->bytes = static_cast<std::uint32_t>(bytes);
        node->edges_ = reinterpret_cast<Edge*>(memory + sizeof(NodeOf));
        node->saved_ = reinterpret_cast<Saved*>(memory + sizeof(NodeOf) + edges_made * sizeof(Edge));
        std::uninitialized_value_construct_n(node->edges_, edges_made);
        std::uninitialized_value_construct_n(node->saved_, saved_made);
        return Ref<Node>::adopt(node);
    }
};

/// The graph's clock of this thread: a number above that of every node made here and of `least`.
std::uint64_t next_sequence(std::uint64_t least) noexcept;

}  // namespace ornik::autograd
