// norm_passes.h: the checks and passes that normalization layers and functions share. Internal.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "layers/functional/normalization.h"
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

/// Refuses an eps that is not positive and finite.
void check_eps(const Where& at, double eps);
/// Refuses a node that is not 0, 1 or 2.
void check_norm_node(const Where& at, int node);

// Whether the input fits.

void check_batch_norm(const Where& at, const NormArguments& arguments);
void check_group_norm(const Where& at, const NormArguments& arguments, std::int64_t channels);
/// Both or neither, [C]; `written` when they are to be updated.
void check_running_statistics(const Where& at, const NormArguments& arguments, Tensor* mean, Tensor* variance,
                              bool written);
/// Refuses expanded views and overlap.
void check_written_statistics(const Where& at, const Tensor* mean, const Tensor* variance);

/// An input split into the axes that a statistic stands for and those before them.
struct NormSplit {
    Dims leading;
    Dims trailing;
    std::int64_t cols = 1;
};
NormSplit check_layer_norm(const Where& at, const NormArguments& arguments, std::size_t axes);

// The passes, over checked arguments.

nn::Normalized batch_norm_pass(const NormArguments& arguments, double eps);
std::unique_ptr<Tensor> batch_norm_pass(const NormArguments& arguments, Tensor* mean, Tensor* variance, double eps);
void update_statistics(const Where& at, Tensor* running_mean, Tensor* running_variance, const Tensor* mean,
                       const Tensor* variance, std::int64_t count, double momentum);
nn::Normalized layer_norm_pass(const NormArguments& arguments, const NormSplit& split, double eps);
nn::Normalized group_norm_pass(const NormArguments& arguments, std::int64_t groups, double eps);

/// What gradients are formed from besides the arguments.
struct NormSaved {
    Tensor* gradient;
    Tensor* mean;
    Tensor* variance;
    double eps;
};
/// Those of an optional list, else of the cache; a null mean when there are not two.
NormSaved norm_saved(const Where& at, const NormArguments& arguments, Tensor* gradient,
                     const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache, double eps);

// The gradients that are wanted, by node; gradient and statistics are checked.

nn::NormGradients batch_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   bool fixed_statistics, const std::array<bool, 3>& wanted);
nn::NormGradients layer_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   const NormSplit& split, const std::array<bool, 3>& wanted);
nn::NormGradients group_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   std::int64_t groups, const std::array<bool, 3>& wanted);

/// For layers: as an array by node, and the set of one node.
std::array<Tensor*, 3> release_by_node(nn::NormGradients gradients);
std::array<bool, 3> only_node(int node);

}  // namespace ornik
