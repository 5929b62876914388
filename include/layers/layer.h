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
    [[nodiscard]] virtual Tensor* get_saved_var();
    [[nodiscard]] virtual Tensor* get_saved_opa();
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b, std::vector<Tensor*>& saved);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, int node);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, Tensor* e, Tensor* f,
                                               int node);
    [[nodiscard]] virtual Tensor* backward_dyn(Tensor* a, Tensor* b, Tensor* c, Tensor* d, std::vector<Tensor*>& saved,
                                               int node);
    /// A copy of the list of tensors kept for the backward pass. The layer owns them: they live until its next
    /// forward_dyn, an assignment to it, or its end. Clone what has to live longer.
    virtual std::vector<Tensor*> get_fwd_cache();
    [[nodiscard]] virtual Tensor* forward_dyn(Tensor* a);
    [[nodiscard]] virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c, bool training);
    [[nodiscard]] virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c, bool training, Tensor* d, Tensor* e);
    [[nodiscard]] virtual Tensor* forward_dyn(Tensor* a, Tensor* b, Tensor* c);
    virtual Tensor* get_gw();
    virtual Tensor* get_gb();
    virtual Tensor* get_gx();

    const std::string& get_name() const { return name_; }

  protected:
    std::string name_;

  private:
    void* reserved_ = nullptr;

  protected:
    /// Tensors that a derived class keeps between calls. This class deletes them, and clones them into copies.
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
