#include "layers/conv/layer_conv.h"

#include <utility>

#include "tensor/borrowed.h"

namespace ornik {

LConv::LConv(bool use_bias, std::string name, const char* word, int first, int second)
    : Layer(name.empty() ? word : std::move(name), first, second), use_bias_(use_bias) {}

Tensor* LConv::forward_dyn(Tensor* weight, Tensor* bias, Tensor* input) {
    const Borrowed w = Borrowed::contiguous(weight);
    const Borrowed b = Borrowed::contiguous(bias);
    const Borrowed x = Borrowed::contiguous(input);
    return _forward_dyn(w.get(), b.get(), x.get(), 0);
}

Tensor* LConv::backward_dyn(Tensor* weight, Tensor* bias, Tensor* input, Tensor* output_gradient, int node) {
    const Borrowed w = Borrowed::contiguous(weight);
    const Borrowed b = Borrowed::contiguous(bias);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed g = Borrowed::contiguous(output_gradient);
    return float_backward(w.get(), b.get(), x.get(), g.get(), node);
}

}  // namespace ornik
