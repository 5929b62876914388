// ktensor.cpp: what a tensor is, and its part in gradients.
#include "ktensor/ktensor.h"

#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/node.h"
#include "ktensor/record.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

namespace {

Tensor& elements(const KTensor& t, const char* function) {
    autograd::check_defined(function, t, 0);
    return *t.impl()->data->tensor;
}

}  // namespace

KTensor::KTensor(std::unique_ptr<Tensor> tensor) {
    if (tensor) {
        *this = autograd::make_ktensor(std::move(tensor));
    }
}

const Dims& KTensor::shape() const { return elements(*this, "shape").Shape(); }
const Dims& KTensor::strides() const { return elements(*this, "strides").Strides(); }
std::int64_t KTensor::size() const { return elements(*this, "size").Size(); }
int KTensor::ndim() const { return static_cast<int>(shape().size()); }
std::int64_t KTensor::dtype() const { return elements(*this, "dtype").Dtype(); }
bool KTensor::is_contiguous() const { return elements(*this, "is_contiguous").is_contiguous(); }
bool KTensor::is_floating() const { return is_dtype_class(dtype(), DtypeClass::floating); }
bool KTensor::is_complex() const { return is_dtype_class(dtype(), DtypeClass::complex); }
Tensor* KTensor::tensor() const noexcept { return impl_ == nullptr ? nullptr : impl_->data->tensor.get(); }

std::int64_t KTensor::size(int axis) const {
    const Dims& extents = shape();
    const int rank = static_cast<int>(extents.size());
    if (axis < -rank || axis >= rank) {
        fail(ErrorKind::index, where("ornik::KTensor::size"), "size(): there is no axis ", axis, " in ",
             describe(*this), ".");
    }
    return extents[static_cast<std::size_t>(axis < 0 ? axis + rank : axis)];
}

KTensor& KTensor::requires_grad(bool wanted) & {
    const Tensor& t = elements(*this, "requires_grad");
    if (const autograd::Past past = impl_->past.now(); past.node) {
        if (!wanted) {
            fail(ErrorKind::state, where("ornik::KTensor::requires_grad"),
                 "requires_grad(false): this tensor is the result of ", past.node->name(),
                 "(); detach() gives one without a past.");
        }
        return *this;
    }
    if (wanted && !t.isFloat() && !t.isComplexType()) {
        fail(ErrorKind::dtype, where("ornik::KTensor::requires_grad"),
             "requires_grad(): floating and complex tensors have gradients, not ", describe(*this), ".");
    }
    if (wanted) {
        impl_->state.made();
    }
    impl_->leaf_wants_grad = wanted;
    return *this;
}

bool KTensor::wants_grad() const noexcept {
    return impl_ != nullptr && (!impl_->past.empty() || impl_->leaf_wants_grad);
}

bool KTensor::is_leaf() const noexcept { return impl_ == nullptr || impl_->past.empty(); }

KTensor KTensor::grad() const {
    elements(*this, "grad");
    autograd::GradState* state = impl_->state.get();
    if (state == nullptr) {
        return {};
    }
    const std::scoped_lock guard(state->lock);
    return state->gradient;
}

void KTensor::set_grad(const KTensor& gradient) {
    elements(*this, "set_grad");
    if (gradient.defined() && (gradient.shape() != shape() || gradient.dtype() != dtype())) {
        fail(where("ornik::KTensor::set_grad"), "set_grad(): a gradient of ", describe(*this), " is no ",
             describe(gradient), ".");
    }
    if (!gradient.defined() && impl_->state.get() == nullptr) {
        return;
    }
    autograd::GradState& state = impl_->state.made();
    KTensor old;  // Dropped after the lock.
    const std::scoped_lock guard(state.lock);
    old = std::exchange(state.gradient, gradient);
}

void KTensor::retain_grad() {
    elements(*this, "retain_grad");
    if (!wants_grad()) {
        fail(ErrorKind::state, where("ornik::KTensor::retain_grad"), "retain_grad(): ", describe(*this),
             " asks for no gradients.");
    }
    if (is_leaf() || impl_->keeps_grad) {
        return;
    }
    impl_->keeps_grad = true;
    // The hook holds the place of the gradient, not the tensor: no cycle.
    register_hook([state = autograd::Ref<autograd::GradState>::share(&impl_->state.made())](const KTensor& gradient) {
        KTensor old;
        const std::scoped_lock guard(state->lock);
        old = std::exchange(state->gradient, gradient.detach());
        return KTensor();
    });
}

KTensor KTensor::detach() const {
    elements(*this, "detach");
    KTensor result = autograd::make_ktensor(impl_->data);
    result.impl_->detached.store(true, std::memory_order_relaxed);
    return result;
}

std::int64_t KTensor::register_hook(std::function<KTensor(const KTensor&)> hook) {
    elements(*this, "register_hook");
    if (!wants_grad()) {
        fail(ErrorKind::state, where("ornik::KTensor::register_hook"), "register_hook(): ", describe(*this),
             " asks for no gradients.");
    }
    autograd::GradState& state = impl_->state.made();
    const std::int64_t number = state.next_hook++;
    const autograd::Past past = impl_->past.now();
    (past.node ? past.node->hooks : state.hooks).made().add(past.output, number, std::move(hook));
    return number;
}

void KTensor::remove_hook(std::int64_t number) {
    elements(*this, "remove_hook");
    autograd::GradState* state = impl_->state.get();
    if (autograd::HookList* hooks = state != nullptr ? state->hooks.get() : nullptr) {
        hooks->remove(0, number);
    }
    const autograd::Past past = impl_->past.now();
    if (autograd::HookList* hooks = past.node ? past.node->hooks.get() : nullptr) {
        hooks->remove(past.output, number);
    }
}

void KTensor::backward(const KTensor& seed, bool retain_graph, bool create_graph) const {
    ornik::backward({*this}, seed.defined() ? std::vector<KTensor>{seed} : std::vector<KTensor>{}, retain_graph,
                    create_graph);
}

}  // namespace ornik
