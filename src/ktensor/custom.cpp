// custom.cpp: operations of a program's own, and functions that run again.
#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/bindings.h"
#include "ktensor/record.h"
#include "ktensor/touched.h"
#include "random/generator.h"
#include "run.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::Keep;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

std::vector<KTensor*> pointers_to(std::vector<KTensor>& tensors) {
    std::vector<KTensor*> pointers;
    for (KTensor& tensor : tensors) {
        pointers.push_back(&tensor);
    }
    return pointers;
}

// The values alone, as tensors of their own: a result that is an operand, say, gets a past apart from the operand's.
std::vector<KTensor> fresh(const std::vector<KTensor>& tensors) {
    std::vector<KTensor> result;
    for (const KTensor& tensor : tensors) {
        result.push_back(tensor.defined() ? make_ktensor(tensor.impl()->data) : tensor);
    }
    return result;
}

std::int32_t place_of(const KTensor& tensor, const std::vector<KTensor>& list) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i].is(tensor)) {
            return static_cast<std::int32_t>(i);
        }
    }
    return -1;
}

std::vector<KTensor> gradients_of(Backward& pass, std::size_t outputs) {
    std::vector<KTensor> gradients;
    for (std::size_t k = 0; k < outputs; ++k) {
        gradients.push_back(pass.grad(k));
    }
    return gradients;
}

struct CustomGradient {
    std::string name;
    CustomBackward backward;
    std::size_t kept;
    std::size_t outputs;

    void operator()(Backward& pass) const {
        std::vector<KTensor> values;
        for (std::size_t k = 0; k < kept; ++k) {
            values.push_back(pass.saved(k));
        }
        std::vector<KTensor> gradients = backward(values, gradients_of(pass, outputs));
        if (gradients.size() != pass.operand_count()) {
            fail(where("ornik::custom"), "backward of ", name, "(): ", pass.operand_count(), " operands got ",
                 gradients.size(), " gradients.");
        }
        for (std::size_t i = 0; i < gradients.size(); ++i) {
            pass.give(i, std::move(gradients[i]));
        }
    }
};

}  // namespace

std::vector<KTensor> custom(const std::string& name, const std::vector<KTensor>& operands, const CustomForward& forward,
                            CustomBackward backward) {
    const Recorder record(Op::custom, operands);
    CustomResult result;
    {
        const NoGrad unrecorded;
        result = forward(operands);
    }
    if (!record.active()) {
        return std::move(result.outputs);
    }
    std::vector<KTensor> outputs = fresh(result.outputs);
    std::vector<Keep> kept;
    for (const KTensor& value : result.kept) {
        Keep keep = Recorder::own(value);
        if (const std::int32_t operand = place_of(value, operands); operand >= 0) {
            keep.of = operand;
        } else if (const std::int32_t output = place_of(value, result.outputs); output >= 0) {
            keep.of = -1 - output;
        }
        kept.push_back(keep);
    }
    const std::vector<KTensor*> pointers = pointers_to(outputs);
    record.finish(pointers, std::span<const Keep>(kept),
                  CustomGradient{name, std::move(backward), kept.size(), outputs.size()});
    for (const KTensor& output : outputs) {
        if (autograd::Node* node = output.impl()->past.node(); node != nullptr) {
            node->label = static_cast<autograd::NodeOf<CustomGradient>*>(node)->function.name.c_str();
            break;
        }
    }
    return outputs;
}

// ---- Checkpoints ----

namespace {

thread_local bool recomputing = false;

struct Recomputing {
    Recomputing() noexcept : before(recomputing) { recomputing = true; }
    ~Recomputing() { recomputing = before; }
    bool before;
};

struct SegmentGradient {
    Segment segment;
    std::vector<KTensor> outside;  // used by the segment without being operands
    std::size_t operands;
    generator::GeneratorState random;  // before the first run
    std::vector<std::pair<autograd::ShapeNote, std::int64_t>> outputs;

    void operator()(Backward& pass) const {
        const std::uint64_t before = autograd::next_sequence(0);
        std::vector<KTensor> leaves;
        for (std::size_t i = 0; i < operands; ++i) {
            leaves.push_back(pass.saved(i));
            if (pass.wants(i)) {
                leaves.back().requires_grad();
            }
        }
        const std::vector<KTensor> results = run_again(leaves);
        autograd::Run run("checkpoint", false, false);
        run.set_boundary(before);
        for (std::size_t k = 0; k < results.size(); ++k) {
            if (pass.grad(k).defined() && results[k].wants_grad()) {
                run.add_root(results[k], pass.grad(k));
            }
        }
        std::vector<std::size_t> wanted;
        for (std::size_t i = 0; i < pass.operand_count(); ++i) {
            if (pass.wants(i)) {
                wanted.push_back(i);
                run.add_input(i < operands ? leaves[i] : outside[i - operands]);
            }
        }
        run.collect();
        run.walk();
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            pass.give(wanted[i], run.input_gradient(i));
        }
    }

    std::vector<KTensor> run_again(const std::vector<KTensor>& leaves) const {
        const Recomputing now;
        const generator::GeneratorScope same_numbers(std::make_shared<generator::Generator>(random));
        const GradMode recorded(true);
        std::vector<KTensor> results = segment(leaves);
        bool same = results.size() == outputs.size();
        for (std::size_t k = 0; same && k < results.size(); ++k) {
            same = outputs[k].first == results[k].shape() && outputs[k].second == results[k].dtype();
        }
        if (!same) {
            fail(ErrorKind::state, where("ornik::checkpoint"),
                 "checkpoint(): run again, the function gave results of other shapes, dtypes or number.");
        }
        return results;
    }
};

}  // namespace

bool is_recomputing() noexcept { return recomputing; }

std::vector<KTensor> checkpoint(Segment segment, const std::vector<KTensor>& operands) {
    if (!grad_enabled()) {
        return segment(operands);
    }
    std::vector<KTensor> all = operands;
    std::vector<KTensor> outputs;
    const generator::GeneratorState random = generator::default_generator()->state();
    {
        const NoGrad unrecorded;
        const autograd::Touched touched;
        outputs = segment(operands);
        for (const KTensor& tensor : touched.tensors()) {
            if (place_of(tensor, operands) < 0) {
                all.push_back(tensor);
            }
        }
    }
    const Recorder record(Op::checkpoint, all);
    if (!record.active()) {
        return outputs;
    }
    SegmentGradient gradient{std::move(segment),
                             {all.begin() + static_cast<std::ptrdiff_t>(operands.size()), all.end()},
                             operands.size(),
                             random,
                             {}};
    outputs = fresh(outputs);
    for (const KTensor& output : outputs) {
        gradient.outputs.emplace_back(autograd::ShapeNote(output.shape()), output.dtype());
    }
    std::vector<Keep> kept;
    for (std::size_t i = 0; i < operands.size(); ++i) {
        kept.push_back(record.operand(i));
    }
    const std::vector<KTensor*> pointers = pointers_to(outputs);
    record.finish(pointers, std::span<const Keep>(kept), std::move(gradient));
    return outputs;
}

// ---- For bindings ----

namespace autograd {

namespace {

void visit_list(const MadeOnce<HookList>& hooks, FunctionVisitor& visitor) {
    if (const HookList* list = hooks.get()) {
        for (const HookList::Entry& entry : list->unguarded()) {
            visitor.hook(*entry.hook);
        }
    }
}

void visit_hooks(const Impl& impl, FunctionVisitor& visitor) {
    // What keeps a result's gradient is a hook of ours that holds the place of the gradient.
    const GradState* state = impl.state.get();
    if (state != nullptr && state->references == (impl.keeps_grad ? 2U : 1U)) {
        visit_list(state->hooks, visitor);
    }
}

void visit_node(const Node& node, FunctionVisitor& visitor) {
    visit_list(node.hooks, visitor);
    if (node.op == Op::custom) {
        visitor.backward(static_cast<const NodeOf<CustomGradient>&>(node).function.backward);
    } else if (node.op == Op::checkpoint) {
        visitor.segment(static_cast<const NodeOf<SegmentGradient>&>(node).function.segment);
    }
}

}  // namespace

void visit_functions(const KTensor& tensor, FunctionVisitor& visitor) {
    if (!tensor.defined() || tensor.impl()->references != 1) {
        return;
    }
    visit_hooks(*tensor.impl(), visitor);
    // Nodes with one owner make a tree: each is met once, and the list of those to come goes through the nodes
    // themselves, as when they are destroyed.
    Node* next = tensor.impl()->past.node();  // One owner: nobody replaces it.
    if (next == nullptr || next->references != 1) {
        return;
    }
    next->next = nullptr;
    while (next != nullptr) {
        Node* node = std::exchange(next, next->next);
        node->next = nullptr;
        visit_node(*node, visitor);
        for (const Edge& edge : node->edges()) {
            if (edge.leaf && edge.leaf->references == 1) {
                visit_hooks(*edge.leaf, visitor);
            }
            if (edge.node && edge.node->references == 1) {
                edge.node->next = next;
                next = edge.node.get();
            }
        }
    }
}

std::string operation_of(const KTensor& tensor) {
    const Past past = tensor.impl()->past.now();
    return past.node ? past.node->name() : "";
}

void replace_past(KTensor& target, const KTensor& y) {
    check_in_place("custom", target, y.wants_grad());
    if (y.tensor()->borrow_storage() != target.tensor()->borrow_storage()) {
        fail(ErrorKind::state, where("ornik::autograd::replace_past"),
             "replace_past(): an operand that is said to be changed is not among the results.");
    }
    take_over_past(target, y);
}

}  // namespace autograd

}  // namespace ornik
