// run.cpp: collecting and walking a graph.
#include "run.h"

#include <algorithm>

#include "ktensor/arithmetic.h"
#include "ktensor/backward.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/tensor_arithmetic.h"
#include "utils/error.h"

namespace ornik::autograd {

namespace {

bool is_real_scalar(const KTensor& t) { return t.size() == 1 && t.is_floating(); }

// 1 as the gradient of a scalar.
KTensor unit_seed(const KTensor& root) { return KTensor::ones(root.shape(), root.dtype()); }

}  // namespace

Run::Run(const char* caller, bool retain_graph, bool create_graph)
    : caller_(caller), retain_graph_(retain_graph || create_graph), create_graph_(create_graph) {}

Run::~Run() {
    for (Visit& visit : visits_) {
        visit.node->run.store(nullptr, std::memory_order_release);
    }
}

void Run::add_root(const KTensor& root, const KTensor& seed) {
    if (!root.defined()) {
        fail(where("ornik::backward"), caller_, "(): an undefined KTensor has no gradients.");
    }
    if (!root.wants_grad()) {
        fail(ErrorKind::state, where("ornik::backward"), caller_, "(): ", describe(root),
             " was not computed from anything that asks for gradients.");
    }
    if (is_stale(*root.impl())) {
        fail(ErrorKind::state, where("ornik::backward"), caller_, "(): the memory of ", describe(root),
             " was changed in place through another tensor while that was recorded: its gradient would be wrong.");
    }
    if (!seed.defined()) {
        if (!is_real_scalar(root)) {
            fail(where("ornik::backward"), caller_,
                 "(): without a seed it needs a single real element to start from, not ", describe(root), ".");
        }
    } else if (seed.shape() != root.shape() || seed.dtype() != root.dtype()) {
        fail(where("ornik::backward"), caller_, "(): the seed for ", describe(root), " is no ", describe(seed), ".");
    }
    roots_.emplace_back(with_past_of_now(root), seed);
}

void Run::add_input(const KTensor& input) {
    if (!input.defined() || !input.wants_grad()) {
        fail(ErrorKind::state, where("ornik::backward"), caller_, "(): input ", inputs_.size(), ", ", describe(input),
             ", asks for no gradients.");
    }
    const KTensor kept = with_past_of_now(input);
    inputs_.push_back({Ref<Impl>::share(kept.impl()), !kept.impl()->past.empty(), {}});
}

KTensor* Run::Visit::gradients() {
    if (node->output_count == 1) {
        return &first;
    }
    if (!all) {
        all = std::make_unique<KTensor[]>(node->output_count);
    }
    return all.get();
}

void Run::claim(const Ref<Node>& node) {
    visits_.emplace_back(node);
    Run* free = nullptr;
    if (!node->run.compare_exchange_strong(free, this, std::memory_order_acq_rel)) {
        visits_.pop_back();
        fail(ErrorKind::state, where("ornik::backward"), caller_, "(): ", node->name(),
             "() is part of a graph that another thread, or a pass around this one, is walking.");
    }
}

void Run::check(const Node& node) const {
    const OpInfo& info = info_of(node.op);
    if (node.released) {
        fail(ErrorKind::state, where("ornik::backward"), caller_, "(): the backward pass of ", node.name(),
             "() has run already, and what it had saved is released. Ask the first pass to retain the graph.");
    }
    if (create_graph_ && !info.twice) {
        fail(ErrorKind::not_implemented, where("ornik::backward"), caller_, "(): second derivatives of ", node.name(),
             "() are not available.");
    }
    for (const Saved& saved : node.saved()) {
        if (saved.data && version_of(*saved.data->tensor) != saved.version) {
            fail(ErrorKind::state, where("ornik::backward"), caller_,
                 "(): ", describe(saved.data->tensor->Shape(), saved.data->tensor->Dtype()), ", saved by ", node.name(),
                 "(), was changed in place since: its version is ", version_of(*saved.data->tensor), ", not ",
                 saved.version, ".");
        }
    }
}

const Run::Input* Run::outside_input(const Edge& edge) const {
    const auto place = std::find_if(inputs_.begin(), inputs_.end(), [&](const Input& input) {
        return input.is_node && input.impl->past.node() == edge.node.get() && input.impl->past.output() == edge.output;
    });
    return place == inputs_.end() ? nullptr : &*place;
}

// Of an edge to a node.
bool Run::is_wanted(const Edge& edge) const {
    if (is_outside(*edge.node)) {
        return outside_input(edge) != nullptr;
    }
    const Visit& visit = visits_[edge.node->position];
    return visit.needed || visit.is_input;
}

void Run::find_nodes() {
    for (const auto& [root, seed] : roots_) {
        const Ref<Node> node = root.impl()->past.now().node;
        if (node && !is_outside(*node) && node->run.load(std::memory_order_acquire) != this) {
            claim(node);
        }
    }
    std::vector<Node*> open;
    for (const Visit& visit : visits_) {
        open.push_back(visit.node.get());
    }
    while (!open.empty()) {
        Node* node = open.back();
        open.pop_back();
        for (const Edge& edge : node->edges()) {
            if (edge.node && !is_outside(*edge.node) && edge.node->run.load(std::memory_order_acquire) != this) {
                claim(edge.node);
                open.push_back(edge.node.get());
            }
        }
    }
    const auto later = [](const Visit& a, const Visit& b) { return a.node->sequence > b.node->sequence; };
    if (!std::is_sorted(visits_.begin(), visits_.end(), later)) {
        std::sort(visits_.begin(), visits_.end(), later);
    }
    for (std::size_t i = 0; i < visits_.size(); ++i) {
        visits_[i].node->position = i;
    }
}

// Who leads to an input? From the first operations to the last, as that follows from their operands.
void Run::find_leaves() {
    const bool all_leaves = inputs_.empty();
    const auto leaf_of = [&](const Ref<Impl>& impl) -> Leaf* {
        auto place = leaf_positions_.find(impl.get());
        if (place == leaf_positions_.end()) {
            if (!all_leaves) {
                return nullptr;
            }
            place = leaf_positions_.emplace(impl.get(), leaves_.size()).first;
            leaves_.push_back({impl, {}, 0, false});
        }
        return &leaves_[place->second];
    };
    for (const Input& input : inputs_) {
        if (!input.is_node) {
            if (leaf_positions_.emplace(input.impl.get(), leaves_.size()).second) {
                leaves_.push_back({input.impl, {}, 0, true});
            }
        } else if (const Node& node = *input.impl->past.node(); node.run.load(std::memory_order_acquire) == this) {
            visits_[node.position].is_input = true;
        }
    }
    for (std::size_t i = visits_.size(); i-- > 0;) {
        for (const Edge& edge : visits_[i].node->edges()) {
            if (edge.node) {
                visits_[i].needed = visits_[i].needed || is_wanted(edge);
            } else if (edge.leaf) {
                if (Leaf* leaf = leaf_of(edge.leaf)) {
                    ++leaf->edges_left;
                    visits_[i].needed = true;
                }
            }
        }
    }
    for (const auto& [root, seed] : roots_) {
        if (root.impl()->past.empty()) {
            if (Leaf* leaf = leaf_of(Ref<Impl>::share(root.impl()))) {
                ++leaf->edges_left;
            }
        }
    }
}

void Run::collect() {
    find_nodes();
    find_leaves();
    for (const Visit& visit : visits_) {
        if (visit.needed) {
            check(*visit.node);
        }
    }
}

bool Run::wants(const Edge& edge) const {
    return edge.node ? is_wanted(edge) : edge.leaf && leaf_positions_.contains(edge.leaf.get());
}

void Run::add(KTensor& sum, KTensor gradient) const {
    if (!sum.defined()) {
        sum = std::move(gradient);
        return;
    }
    // The same two numbers are added whichever buffer takes the sum: the bits do not depend on who owns what.
    if (!create_graph_ && is_sole_owner(sum)) {
        ornik::add(1, sum.tensor(), 1, gradient.tensor(), sum.tensor(), 0);
    } else if (!create_graph_ && is_sole_owner(gradient)) {
        ornik::add(1, sum.tensor(), 1, gradient.tensor(), gradient.tensor(), 0);
        sum = std::move(gradient);
    } else {
        sum = ornik::add(sum, gradient);
    }
}

KTensor& Run::sum_of(const Edge& edge) {
    if (edge.node && is_outside(*edge.node)) {
        return inputs_[static_cast<std::size_t>(outside_input(edge) - inputs_.data())].gradient;
    }
    return edge.node ? visits_[edge.node->position].gradients()[edge.output]
                     : leaves_[leaf_positions_.at(edge.leaf.get())].sum;
}

// An older gradient takes the sum as soon as it is complete, so that not all of them wait for the end.
void Run::count_arrival(const Edge& edge) {
    if (edge.node) {
        return;
    }
    Leaf& leaf = leaves_[leaf_positions_.at(edge.leaf.get())];
    if (--leaf.edges_left == 0 && !leaf.is_input) {
        finish_leaf(leaf);
    }
}

void Run::accumulate(const Edge& edge, KTensor gradient) {
    add(sum_of(edge), std::move(gradient));
    count_arrival(edge);
}

bool Run::accumulate_part(const Edge& edge, const std::function<void(Tensor* sum)>& add) {
    KTensor& sum = sum_of(edge);
    if (create_graph_ || !sum.defined()) {
        return false;
    }
    // The sum of others is copied, not added to as a whole: the bits do not depend on who owns what.
    if (!is_sole_owner(sum)) {
        sum = make_ktensor(copy_of(*sum.tensor()));
    }
    add(sum.tensor());
    count_arrival(edge);
    return true;
}

KTensor Run::run_hooks(const std::vector<HookList::Entry>& hooks, std::uint32_t output, KTensor gradient) const {
    for (const HookList::Entry& entry : hooks) {
        if (entry.output != output || !gradient.defined()) {
            continue;
        }
        KTensor changed = (*entry.hook)(gradient);
        if (!changed.defined()) {
            continue;
        }
        if (changed.shape() != gradient.shape() || changed.dtype() != gradient.dtype()) {
            fail(where("ornik::backward"), caller_, "(): a hook gave ", describe(changed), " for a gradient of ",
                 describe(gradient), ".");
        }
        gradient = std::move(changed);
    }
    return gradient;
}

void Run::run_node(Visit& visit) {
    Node& node = *visit.node;
    const std::unique_ptr<KTensor[]> several = std::move(visit.all);
    KTensor one = std::move(visit.first);
    const std::span<KTensor> gradients(several ? several.get() : &one, several ? node.output_count : 1);
    if (std::none_of(gradients.begin(), gradients.end(), [](const KTensor& g) { return g.defined(); })) {
        return;
    }
    if (const HookList* list = node.hooks.get()) {
        const std::vector<HookList::Entry> hooks = list->entries();
        for (std::uint32_t k = 0; k < node.output_count; ++k) {
            gradients[k] = run_hooks(hooks, k, std::move(gradients[k]));
        }
    }
    if (visit.is_input) {
        for (Input& input : inputs_) {
            if (input.impl->past.node() == &node) {
                input.gradient = gradients[input.impl->past.output()];
            }
        }
    }
    if (!visit.needed) {
        return;
    }
    Backward context(*this, node, gradients, create_graph_);
    node.backward(context);
    if (!retain_graph_) {
        node.release_saved();
    }
}

void Run::walk() {
    const GradMode mode(create_graph_);
    for (auto& [root, seed] : roots_) {
        KTensor start = seed.defined() ? seed : unit_seed(root);
        Impl* impl = root.impl();
        if (Past past = impl->past.now(); past.node) {
            Edge edge;
            edge.node = std::move(past.node);
            edge.output = past.output;
            accumulate(edge, std::move(start));
        } else if (leaf_positions_.contains(impl)) {
            Edge edge;
            edge.leaf = Ref<Impl>::share(impl);
            accumulate(edge, std::move(start));
        }
    }
    for (Visit& visit : visits_) {
        run_node(visit);
    }
}

void Run::finish_leaf(Leaf& leaf) {
    KTensor gradient = std::move(leaf.sum);
    leaf.sum = KTensor();
    Impl& impl = *leaf.impl;
    if (!gradient.defined()) {
        return;
    }
    GradState& state = impl.state.made();
    if (const HookList* list = state.hooks.get()) {
        for (const HookList::Entry& entry : list->entries()) {
            if (KTensor changed = (*entry.hook)(gradient); changed.defined()) {
                gradient = std::move(changed);
            }
        }
    }
    const std::scoped_lock guard(state.lock);
    KTensor& total = state.gradient;
    if (total.defined()) {
        if (create_graph_ || total.wants_grad() || !total.is_contiguous()) {
            total = ornik::add(total, gradient);
        } else {
            ornik::add(1, total.tensor(), 1, gradient.tensor(), total.tensor(), 0);
        }
    } else if (create_graph_ || is_sole_owner(gradient)) {
        total = std::move(gradient);
    } else {
        total = make_ktensor(copy_of(*gradient.tensor()));
    }
}

void Run::commit() {
    for (Leaf& leaf : leaves_) {
        if (!leaf.is_input) {
            finish_leaf(leaf);
        }
    }
}

KTensor Run::input_gradient(std::size_t i) const {
    const Input& input = inputs_[i];
    return input.is_node ? input.gradient : leaves_[leaf_positions_.at(input.impl.get())].sum;
}

// ---- What a node's function sees ----

bool Backward::wants(std::size_t i) const { return run_.wants(node_.edges()[i]); }

KTensor Backward::saved(std::size_t k) const {
    const Saved& saved = node_.saved()[k];
    if (!saved.data) {
        return {};
    }
    KTensor value = make_ktensor(saved.data);
    value.impl()->detached.store(true, std::memory_order_relaxed);
    if (!recorded_ || saved.of == Saved::own) {
        return value;
    }
    if (saved.of < 0) {
        value.impl()->past.begin(Ref<Node>::share(&node_), static_cast<std::uint32_t>(-1 - saved.of));
        return value;
    }
    const Edge& edge = node_.edges()[static_cast<std::size_t>(saved.of)];
    if (edge.leaf) {
        // Of the leaf itself: its gradient is to arrive there.
        return KTensor::adopt(Ref<Impl>::share(edge.leaf.get()).release());
    }
    value.impl()->past.begin(edge.node, edge.output);
    return value;
}

void Backward::give(std::size_t i, KTensor gradient) {
    const Edge& edge = node_.edges()[i];
    if (!gradient.defined() || !run_.wants(edge)) {
        return;
    }
    if (!(edge.shape == gradient.shape())) {
        gradient = sum_to_shape(gradient, edge.shape.dims());
    }
    if (gradient.dtype() != edge.dtype) {
        gradient = astype(gradient, edge.dtype);
    }
    run_.accumulate(edge, std::move(gradient));
}

bool Backward::give_part(std::size_t i, const std::function<void(Tensor* sum)>& add) {
    const Edge& edge = node_.edges()[i];
    return run_.wants(edge) && run_.accumulate_part(edge, add);
}

}  // namespace ornik::autograd

namespace ornik {

void backward(const std::vector<KTensor>& outputs, const std::vector<KTensor>& seeds, bool retain_graph,
              bool create_graph) {
    if (!seeds.empty() && seeds.size() != outputs.size()) {
        fail(where("ornik::backward"), "backward(): ", outputs.size(), " tensors take as many seeds or none, not ",
             seeds.size(), ".");
    }
    autograd::Run run("backward", retain_graph, create_graph);
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        run.add_root(outputs[i], seeds.empty() ? KTensor() : seeds[i]);
    }
    run.collect();
    run.walk();
    run.commit();
}

std::vector<KTensor> grad(const std::vector<KTensor>& outputs, const std::vector<KTensor>& inputs,
                          const std::vector<KTensor>& seeds, const GradOptions& options) {
    if (!seeds.empty() && seeds.size() != outputs.size()) {
        fail(where("ornik::grad"), "grad(): ", outputs.size(), " tensors take as many seeds or none, not ",
             seeds.size(), ".");
    }
    autograd::Run run("grad", options.retain_graph, options.create_graph);
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        run.add_root(outputs[i], seeds.empty() ? KTensor() : seeds[i]);
    }
    for (const KTensor& input : inputs) {
        run.add_input(input);
    }
    if (inputs.empty()) {
        return {};
    }
    run.collect();
    run.walk();
    std::vector<KTensor> gradients(inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        gradients[i] = run.input_gradient(i);
        if (!gradients[i].defined() && !options.allow_unused) {
            fail(where("ornik::grad"), "grad(): no output depends on input ", i, ", ", autograd::describe(inputs[i]),
                 ".");
        }
    }
    return gradients;
}

}  // namespace ornik
