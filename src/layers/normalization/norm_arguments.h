// norm_arguments.h: what the normalization layers check alike. Internal.
#pragma once

#include <cmath>
#include <vector>

#include "hardware/cpu/nn/cpu_normalization.h"
#include "tensor/borrowed.h"

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
    /// An uninitialised tensor of the input's dtype.
    std::unique_ptr<Tensor> result(const Dims& shape) const {
        return std::unique_ptr<Tensor>(Tensor::empty(shape, input->Device(), input->Dtype()));
    }

    Borrowed gamma, input, gradient, mean, variance;

  private:
    struct Checked {};
    NormBackward(Checked checked, const NormArguments& arguments, Tensor* output_gradient,
                 const std::vector<Tensor*>& statistics);
};

/// Refuses a node that is not 0, 1 or 2.
void check_norm_node(const Where& at, int node);

/// Refuses an eps that is not positive and finite.
void check_eps(const Where& at, float eps);

/// [samples, channels, ...] as [samples, channels, inner].
device::cpu::ChannelNorm channel_norm(const Tensor* input, std::int64_t groups, float eps);

}  // namespace ornik
