// backward.h: what the gradient function of an operation sees. Internal.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "node.h"

namespace ornik::autograd {

/// One node's turn in a backward pass.
class Backward {
  public:
    Backward(Run& run, Node& node, std::span<KTensor> gradients, bool recorded)
        : run_(run), node_(node), gradients_(gradients), recorded_(recorded) {}

    /// The pass is recorded: gradients have to be made of recorded operations.
    bool recorded() const { return recorded_; }
    /// Is the gradient of operand i asked for? What is not is not to be computed.
    bool wants(std::size_t i) const;
    /// The gradient of output k, of its shape and dtype. Undefined when nothing came: only where there are several
    /// outputs.
    const KTensor& grad(std::size_t k = 0) const { return gradients_[k]; }
    /// The same, given away: when the pass holds the only handle it may be changed in place (is_sole_owner).
    KTensor take_grad(std::size_t k = 0) { return std::move(gradients_[k]); }

    /// Saved value k, undefined if it was not kept. In a recorded pass it has its past.
    KTensor saved(std::size_t k) const;
    Tensor* saved_raw(std::size_t k) const {
        return node_.saved()[k].data ? node_.saved()[k].data->tensor.get() : nullptr;
    }
    Dims operand_shape(std::size_t i) const { return node_.edges()[i].shape.dims(); }
    std::int64_t operand_dtype(std::size_t i) const { return node_.edges()[i].dtype; }
    std::size_t operand_count() const { return node_.edge_count; }

    /// The gradient of operand i. It may still have a broadcast shape or a wider dtype: it is summed to the operand's
    /// shape and converted to its dtype here. Undefined: none.
    void give(std::size_t i, KTensor gradient);
    void give(std::size_t i, Tensor* gradient) { give(i, make_ktensor(gradient)); }
    /// For a gradient that is zero but for a part of operand i: `add` puts that part into the sum of what others gave,
    /// a row-major tensor of the operand's shape and dtype. False, and nothing done, where there is no sum yet or the
    /// pass is recorded: give() is to be called.
    bool give_part(std::size_t i, const std::function<void(Tensor* sum)>& add);

  private:
    Run& run_;
    Node& node_;
    std::span<KTensor> gradients_;
    bool recorded_;
};

}  // namespace ornik::autograd
