#include "layers/layer.h"

#include <memory>
#include <utility>

namespace ornik {

Layer::Layer(std::string name, int first, int /*second*/) : name_(std::move(name)), first_(first) {}

Layer::Layer(const Layer& other) : first_(other.first_) { clone_from(other); }

Layer& Layer::operator=(const Layer& other) {
    if (this != &other) {
        Layer copy(other);  // Whatever can fail does so before this layer changes.
        release();
        name_ = std::move(copy.name_);
        reserved_ = copy.reserved_;
        std::swap(results_, copy.results_);
        _trainable = copy._trainable;
        forward_cache_.swap(copy.forward_cache_);
        mode_ = copy.mode_;
        first_ = copy.first_;
        external_ownership_ = copy.external_ownership_;
        std::swap(flags_, copy.flags_);
    }
    return *this;
}

Layer::~Layer() { release(); }

void Layer::release() {
    if (external_ownership_) {
        return;
    }
    for (Tensor*& result : results_) {
        delete result;
        result = nullptr;
    }
    for (Tensor*& saved : forward_cache_) {
        delete saved;
        saved = nullptr;
    }
}

void Layer::keep_for_backward(std::vector<std::unique_ptr<Tensor>> tensors) {
    forward_cache_.reserve(tensors.size());  // All that may fail; see LBatchNorm.
    for (const Tensor* old : forward_cache_) {
        delete old;
    }
    forward_cache_.clear();
    for (std::unique_ptr<Tensor>& t : tensors) {
        forward_cache_.push_back(t.release());
    }
}

void Layer::clone_from(const Layer& other) {
    std::vector<std::unique_ptr<Tensor>> clones;
    const auto add_clone = [&](const Tensor* t) {
        clones.push_back(std::unique_ptr<Tensor>(t == nullptr ? nullptr : t->clone()));
    };
    if (!other.external_ownership_) {
        for (const Tensor* result : other.results_) {
            add_clone(result);
        }
        for (const Tensor* saved : other.forward_cache_) {
            add_clone(saved);
        }
        forward_cache_.resize(other.forward_cache_.size());
    }
    name_ = other.name_;
    reserved_ = other.reserved_;
    _trainable = other._trainable;
    mode_ = other.mode_;
    external_ownership_ = other.external_ownership_;
    std::copy(std::begin(other.flags_), std::end(other.flags_), std::begin(flags_));
    for (std::size_t i = 0; i < clones.size(); ++i) {
        Tensor*& slot = i < std::size(results_) ? results_[i] : forward_cache_[i - std::size(results_)];
        slot = clones[i].release();
    }
}

Tensor* Layer::get_saved_var() { return nullptr; }
Tensor* Layer::get_saved_opa() { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*, Tensor*) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*, std::vector<Tensor*>&) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*, Tensor*, Tensor*, int) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*, Tensor*, Tensor*, Tensor*, Tensor*, int) { return nullptr; }
Tensor* Layer::backward_dyn(Tensor*, Tensor*, Tensor*, Tensor*, std::vector<Tensor*>&, int) { return nullptr; }
std::vector<Tensor*> Layer::get_fwd_cache() { return {}; }
Tensor* Layer::forward_dyn(Tensor*) { return nullptr; }
Tensor* Layer::forward_dyn(Tensor*, Tensor*, Tensor*, bool) { return nullptr; }
Tensor* Layer::forward_dyn(Tensor*, Tensor*, Tensor*, bool, Tensor*, Tensor*) { return nullptr; }
Tensor* Layer::forward_dyn(Tensor*, Tensor*, Tensor*) { return nullptr; }
Tensor* Layer::get_gw() { return nullptr; }
Tensor* Layer::get_gb() { return nullptr; }
Tensor* Layer::get_gx() { return nullptr; }

}  // namespace ornik
