// record.cpp: from an operation to a node.
#include "ktensor/record.h"

#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/touched.h"
#include "utils/error.h"

namespace ornik {

namespace {

ORNIK_NEAR_TLS thread_local constinit bool enabled = true;
ORNIK_NEAR_TLS thread_local constinit autograd::Touched* touched = nullptr;

}  // namespace

autograd::Touched::Touched() noexcept : before_(touched) { touched = this; }

autograd::Touched::~Touched() { touched = before_; }

void autograd::Touched::add(const KTensor& tensor) {
    const auto is_known = [&](const KTensor& t) { return t.is(tensor); };
    if (tensor.wants_grad() && std::none_of(tensors_.begin(), tensors_.end(), is_known)) {
        tensors_.push_back(tensor);
    }
}

bool grad_enabled() noexcept { return enabled; }

GradMode::GradMode(bool on) noexcept : before_(enabled) { enabled = on; }

GradMode::~GradMode() { enabled = before_; }

namespace autograd {

void check_defined(const char* operation, const KTensor& tensor, std::size_t operand) {
    if (!tensor.defined()) {
        fail(where("ornik::KTensor"), operation, "(): operand ", operand, " is an undefined KTensor.");
    }
}

Recorder::Recorder(Op op, std::initializer_list<const KTensor*> operands, std::size_t required) : op_(op) {
    if (operands.size() <= near_operands) {
        std::copy(operands.begin(), operands.end(), near_.begin());
        operands_ = {near_.data(), operands.size()};
    } else {
        far_ = operands;
        operands_ = far_;
    }
    check(required);
}

Recorder::Recorder(Op op, const std::vector<KTensor>& operands) : op_(op) {
    far_.reserve(operands.size());
    for (const KTensor& operand : operands) {
        far_.push_back(&operand);
    }
    operands_ = far_;
    check(operands_.size());
}

void Recorder::check(std::size_t required) {
    for (std::size_t i = 0; i < operands_.size(); ++i) {
        if (i < required || operands_[i]->defined()) {
            check_operand(i);
        }
    }
}

void Recorder::check_operand(std::size_t i) {
    const KTensor& operand = *operands_[i];
    check_defined(info_of(op_).name, operand, i);
    if (!enabled) {
        if (touched != nullptr) {
            touched->add(operand);
        }
        return;
    }
    if (is_stale(*operand.impl())) {
        fail(ErrorKind::state, where("ornik::KTensor"), info_of(op_).name, "(): the memory of operand ", i, ", ",
             describe(operand),
             ", was changed in place through another tensor while that was recorded: its gradient would be wrong. Make "
             "the view again after the change.");
    }
    active_ = active_ || operand.wants_grad();
}

void Recorder::fill(Node& node, std::span<const Keep> kept) const {
    std::uint64_t least = 0;
    for (std::size_t i = 0; i < operands_.size(); ++i) {
        const KTensor& operand = *operands_[i];
        if (!operand.defined()) {
            continue;
        }
        Impl* impl = operand.impl();
        Edge& edge = node.edges_[i];
        edge.dtype = operand.dtype();
        edge.shape = ShapeNote(operand.shape());
        if (Past past = impl->past.now(); past.node) {
            least = std::max(least, past.node->sequence);
            edge.node = std::move(past.node);
            edge.output = past.output;
        } else if (impl->leaf_wants_grad) {
            edge.leaf = Ref<Impl>::share(impl);
        }
    }
    node.sequence = next_sequence(least);
    for (std::size_t k = 0; k < kept.size(); ++k) {
        if (kept[k].tensor != nullptr) {
            Saved& saved = node.saved_[k];
            saved.data = kept[k].tensor->impl()->data;
            saved.version = version_of(*saved.data->tensor);
            saved.of = kept[k].of;
        }
    }
}

void Recorder::connect(Ref<Node> node, std::span<KTensor* const> outputs, std::span<const Keep> kept) const {
    fill(*node, kept);
    for (std::size_t k = 0; k < outputs.size(); ++k) {
        if (outputs[k]->is_floating() || outputs[k]->is_complex()) {
            outputs[k]->impl()->past.begin(node, static_cast<std::uint32_t>(k));
        }
    }
}

void check_in_place(const char* operation, const KTensor& target, bool recorded) {
    check_defined(operation, target, 0);
    if (!enabled) {
        return;
    }
    if (target.impl()->leaf_wants_grad) {
        fail(ErrorKind::state, where("ornik::KTensor"), operation, "(): a leaf that asks for gradients, ",
             describe(target), ", can be changed in place only inside NoGrad.");
    }
    if (recorded && !target.is_floating() && !target.is_complex()) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), operation, "(): ", describe(target),
             " can not hold a result that gradients go through.");
    }
}

KTensor old_value(const KTensor& target) {
    KTensor copy = make_ktensor(copy_of(*target.tensor()));
    Past past = target.impl()->past.now();
    copy.impl()->past.begin(std::move(past.node), past.output);
    return copy;
}

void take_over(KTensor& target, const KTensor& y) {
    if (y.size() != 0) {
        copy_tensor(y.tensor(), target.tensor());
    }
    take_over_past(target, y);
}

void take_over_past(KTensor& target, const KTensor& y) {
    Impl& impl = *target.impl();
    if (tensorT::Tensor_storage* storage = target.tensor()->borrow_storage()) {
        storage->note_recorded_write();
    }
    impl.seen.store(recorded_version_of(*target.tensor()), std::memory_order_relaxed);
    impl.detached.store(false, std::memory_order_relaxed);
    impl.past.replace(y.impl()->past.now());
}

}  // namespace autograd
}  // namespace ornik
