// layer.h: the polymorphic base of every neural-network layer.
//
// Layers are heap objects made by the factories of apis/ornik.h; the caller deletes them. Parameters belong
// to the caller too and are passed to every call. forward_dyn computes an output, backward_dyn one gradient
// per call; in layers with parameters the last argument, the node, names it: 0 the layer's input, 1 the
// weight, 2 the bias. Arguments come in the order weight, bias, input, output gradient; in normalizations gamma
// is the weight and beta the bias.
//
// Each overload that a layer does not serve returns null (or an empty list) and does nothing, so that a
// caller can probe for it. Results are new tensors that the caller deletes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

class ORNIK_API Layer {
  public:
    /// The first number is kept as it is, the second one is not used.
    Layer(std::string name, int first, int second);
    /// Copies own clones of the tensors that the original owns.
    Layer(const Layer& other);
    Layer& operator=(const Layer& other);

    // The virtual operations, in an order that callers rely on.
    virtual ~Layer();
    virtual Tensor* get_saved_var();
    virtual Tensor* get_saved_opa();
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b);
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c);
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b, std::vector<Tensor*>& saved);
    virtual Tensor* backward_dyn(Tensor* a);
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, int node);
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, Tensor* e, Tensor* f, int node);
    virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, std::vector<Tensor*>& saved, int node);
    /// A copy of the list of tensors kept for the backward pass; the layer owns them.
    virtual std::vector<Tensor*> get_fwd_cache();
    virtual Tensor* forward_dyn(Tensor* a);
    virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c, bool training);
    virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c, bool training, Tensor* d, Tensor* e);
    virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c);
    virtual Tensor* get_gw();
    virtual Tensor* get_gb();
    virtual Tensor* get_gx();

    const std::string& get_name() const { return name_; }

  protected:
    std::string name_;

  private:
    void* reserved_ = nullptr;
    Tensor* results_[4] = {};

  public:
    /// When false, gradients of parameters are refused.
    bool _trainable = true;

  protected:
    std::vector<Tensor*> forward_cache_;
    /// Replaces what the forward cache holds; the tensors kept before are deleted.
    void keep_for_backward(std::vector<std::unique_ptr<Tensor>> tensors);

  private:
    void release();
    void clone_from(const Layer& other);

    int mode_ = 1;
    int first_;

  protected:
    /// When true, the derived class releases its tensors itself.
    bool external_ownership_ = false;

  private:
    bool flags_[2] = {};
};

}  // namespace ornik
