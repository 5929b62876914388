// layer_pool.h: maximum and average pooling in one and two dimensions.
//
// An input [N, C, L] (one dimension) or [N, C, H, W] (two), of any strides, is cut into windows per channel:
//
//   padding type          output extent                          padding
//   "same", "zeros"       ceil(in / stride)                      what that takes, the larger half in front
//   "valid", "none"       (in - kernel) / stride + 1             none
//   a list of paddings    (in + 2 p - kernel) / stride + 1       p on both sides, less than the kernel
//   "same,none" and "none,same" name rows and columns apart (two dimensions).
//
// The maximum is taken over the elements inside the input (float32, float64; NaN counts as largest; of equal
// elements the first in row-major order gets the gradient). The average divides by the kernel's element count,
// padding counting as zeros (float32, float64, complex64, complex128).
#pragma once

#include <memory>

#include "../layer.h"

namespace ornik {

class PoolDescriptor2D;

/// Kernel, strides and padding hold one entry. An empty padding list goes with a padding type other than
/// "custom".
class ORNIK_API LPool1D : public Layer {
  public:
    using Layer::backward_dyn;
    using Layer::forward_dyn;
    /// The result is contiguous.
    [[nodiscard]] Tensor* forward_dyn(Tensor* input) override;
    /// The input's gradient. `saved` is what get_fwd_cache gave after the forward pass; an empty list stands for
    /// what the layer itself keeps.
    [[nodiscard]] Tensor* backward_dyn(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;

    /// The passes over contiguous tensors.
    [[nodiscard]] virtual Tensor* _forward_dyn(Tensor* input) = 0;
    [[nodiscard]] virtual Tensor* float_backward(Tensor* input, Tensor* output_gradient,
                                                 std::vector<Tensor*>& saved) = 0;

  protected:
    LPool1D(const char* kind, const std::vector<int>& kernel, const std::vector<int>& strides,
            const std::vector<int>& padding, const std::string& padding_type, std::string name, int first, int second);

    std::shared_ptr<const PoolDescriptor2D> descriptor_;
};

/// The same with two entries.
class ORNIK_API LPool2D : public Layer {
  public:
    using Layer::backward_dyn;
    using Layer::forward_dyn;
    [[nodiscard]] Tensor* forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* backward_dyn(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;

    [[nodiscard]] virtual Tensor* _forward_dyn(Tensor* input) = 0;
    [[nodiscard]] virtual Tensor* float_backward(Tensor* input, Tensor* output_gradient,
                                                 std::vector<Tensor*>& saved) = 0;

  protected:
    LPool2D(const char* kind, const std::vector<int>& kernel, const std::vector<int>& strides,
            const std::vector<int>& padding, const std::string& padding_type, std::string name, int first, int second);

    std::shared_ptr<const PoolDescriptor2D> descriptor_;
};

/// The forward cache of a maximum holds one tensor: for every output the position of its maximum in the
/// channel's plane (int32). That of an average stays empty.
class ORNIK_API LMaxPool1D : public LPool1D {
  public:
    LMaxPool1D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
               const std::string& padding_type, std::string name, int first, int second);
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    [[nodiscard]] Tensor* _forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;
};

class ORNIK_API LAveragePool1D : public LPool1D {
  public:
    LAveragePool1D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                   const std::string& padding_type, std::string name, int first, int second);
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    [[nodiscard]] Tensor* _forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;
};

class ORNIK_API LMaxPool2D : public LPool2D {
  public:
    LMaxPool2D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
               const std::string& padding_type, std::string name, int first, int second);
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    [[nodiscard]] Tensor* _forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;
};

class ORNIK_API LAveragePool2D : public LPool2D {
  public:
    LAveragePool2D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                   const std::string& padding_type, std::string name, int first, int second);
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    [[nodiscard]] Tensor* _forward_dyn(Tensor* input) override;
    [[nodiscard]] Tensor* float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) override;
};

}  // namespace ornik
