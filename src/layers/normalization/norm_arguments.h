// norm_arguments.h: what the normalization layers check alike. Internal.
#pragma once

#include <array>
#include <cmath>
#include <memory>
#include <vector>

#include "hardware/cpu/nn/cpu_normalization.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik {

/// The arguments of one call. `name` stands in the messages: "group norm".
struct NormArguments {
    const char* name;
    Tensor* gamma;
    Tensor* beta;
    Tensor* input;

    /// Devices, dtypes and the parameters' shape.
    void check(const Where& at, const Dims& parameter_shape) const;
    /// Device and dtype of a tensor that goes with the input.
    void check_like_input(const Where& at, const Tensor* t) const;
};

/// The gradient's operands, contiguous.
struct NormBackward {
    /// Checks gradient and statistics; an empty list of saved ones stands for `cache`.
    NormBackward(const Where& at, const NormArguments& arguments, Tensor* output_gradient,
                 const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache, const Dims& statistics_shape);

    device::cpu::NormGradient operands() const {
        return {input.get(), gradient.get(), mean.get(), variance.get(), gamma.get()};
    }
    Borrowed gamma, input, gradient, mean, variance;

  private:
    struct Checked {};
    NormBackward(Checked checked, const NormArguments& arguments, Tensor* output_gradient,
                 const std::vector<Tensor*>& statistics);
};

/// Gradients by node: the input's, gamma's and beta's. Those that are not wanted are null.
class NodeGradients {
  public:
    /// Uninitialised tensors; every wanted node is true.
    NodeGradients(const std::array<bool, 3>& wanted, const Tensor* input, const Dims& parameter_shape);

    Tensor* input() const { return tensors_[0].get(); }
    Tensor* gamma() const { return tensors_[1].get(); }
    Tensor* beta() const { return tensors_[2].get(); }
    std::array<Tensor*, 3> release();

  private:
    std::array<std::unique_ptr<Tensor>, 3> tensors_;
};

/// A set of that one node.
std::array<bool, 3> only_node(int node);

/// Refuses a node that is not 0, 1 or 2.
void check_norm_node(const Where& at, int node);

/// Refuses an eps that is not positive and finite.
void check_eps(const Where& at, float eps);

/// [samples, channels, ...] as [samples, channels, inner].
device::cpu::ChannelNorm channel_norm(const Tensor* input, std::int64_t groups, float eps);

}  // namespace ornik
