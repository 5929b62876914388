// layer_dense.h: the dense (fully connected) layer.
#pragma once

#include <memory>

#include "layer.h"

namespace ornik {

/// y = x W + b. x is [..., in], W [in, out], b [out] or [1, out]; y is [..., out]. One dtype throughout:
/// float32, float64, complex64 or complex128; any strides. A null bias is not added.
class ORNIK_API LDense : public Layer {
  public:
    /// An empty name becomes "dense". `out_features` must be the weight's second extent.
    LDense(int out_features, bool use_bias, std::string name, int first, int second);
    LDense(const LDense& other);
    LDense& operator=(const LDense& other);
    ~LDense() override;

    using Layer::backward_dyn;
    using Layer::forward_dyn;
    [[nodiscard]] Tensor* forward_dyn(Tensor* weight, Tensor* bias, Tensor* input) override;
    /// Node 0: dy W^H, shaped as the input. Node 1: x^H dy. Node 2: dy summed over its leading axes, shaped
    /// as the bias ([out] when it is null); null in a layer without bias. Nodes 1 and 2 give null when the
    /// layer is not trainable. Any other node is an error.
    [[nodiscard]] Tensor* backward_dyn(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient,
                                       int node) override;
    /// The gradient that the last backward_dyn for node 1 (node 2) returned, as a view on the same memory;
    /// the layer owns the view. Null before.
    Tensor* get_gw() override { return weight_gradient_.get(); }
    Tensor* get_gb() override { return bias_gradient_.get(); }

  private:
    int out_features_;
    bool use_bias_;
    std::unique_ptr<Tensor> weight_gradient_;
    std::unique_ptr<Tensor> bias_gradient_;
};

}  // namespace ornik
