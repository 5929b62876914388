// run.h: one pass over a graph, from results to leaves. Internal.
//
// collect() finds the nodes and checks everything that can be refused; walk() then lets them run, the latest operation
// first: the graph's clock rises along every edge, so that whoever uses a value has run before the value's own
// node does, and the order, and with it every bit of the sums, follows from the program alone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ktensor/autograd.h"
#include "ktensor/node.h"

namespace ornik::autograd {

class Run {
  public:
    Run(const char* caller, bool retain_graph, bool create_graph);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// A tensor to start from. An undefined seed stands for 1.
    void add_root(const KTensor& root, const KTensor& seed);
    /// A tensor whose gradient is asked for; without any, all leaves'. Before collect().
    void add_input(const KTensor& input);
    /// Nodes made before this time of the graph's clock are not walked: they stand there as inputs or not at all.
    void set_boundary(std::uint64_t sequence) { boundary_ = sequence; }
    void collect();
    void walk();
    /// Adds the sums to the leaves' gradients.
    void commit();
    /// The gradient of the i-th input; undefined when nothing reached it.
    KTensor input_gradient(std::size_t i) const;

    bool wants(const Edge& edge) const;
    void accumulate(const Edge& edge, KTensor gradient);
    /// A gradient that is zero but for a part of its operand: `add` puts that part into the sum so far, a row-major
    /// tensor of the operand's shape and dtype. False, and nothing done, where there is no sum yet.
    bool accumulate_part(const Edge& edge, const std::function<void(Tensor* sum)>& add);

  private:
    struct Visit {
        explicit Visit(Ref<Node> visited) : node(std::move(visited)) {}
        /// Of each output.
        KTensor* gradients();

        Ref<Node> node;
        KTensor first;                   // where there is one output
        std::unique_ptr<KTensor[]> all;  // where there are several
        bool needed = false;             // an input is reached through it
        bool is_input = false;           // one of its outputs is an input
    };
    /// The sum for one leaf. Additions stop when as many edges as lead to it have given theirs.
    struct Leaf {
        Ref<Impl> impl;
        KTensor sum;
        std::int64_t edges_left = 0;
        bool is_input = false;
    };
    struct Input {
        Ref<Impl> impl;
        bool is_node = false;
        KTensor gradient;
    };

    void claim(const Ref<Node>& node);
    void find_nodes();
    void find_leaves();
    void check(const Node& node) const;
    void run_node(Visit& visit);
    KTensor run_hooks(const std::vector<HookList::Entry>& hooks, std::uint32_t output, KTensor gradient) const;
    void finish_leaf(Leaf& leaf);
    bool is_wanted(const Edge& edge) const;
    bool is_outside(const Node& node) const { return node.sequence <= boundary_; }
    const Input* outside_input(const Edge& edge) const;
    void add(KTensor& sum, KTensor gradient) const;
    KTensor& sum_of(const Edge& edge);
    void count_arrival(const Edge& edge);

    const char* caller_;
    bool retain_graph_;
    bool create_graph_;
    std::uint64_t boundary_ = 0;
    std::vector<std::pair<KTensor, KTensor>> roots_;
    std::vector<Visit> visits_;
    std::vector<Leaf> leaves_;
    std::unordered_map<const Impl*, std::size_t> leaf_positions_;
    std::vector<Input> inputs_;
};

}  // namespace ornik::autograd
