// fuse.h: networks for inference in fewer passes over memory.
//
//     network.eval();
//     std::shared_ptr<Module> fast = fuse(network);
//     KTensor y = fast->forward(x);
//
// In what follows each other in a Sequential (those within it count as its own), a batch normalization is folded into
// the convolution or linear map before it, an activation of nn::LayerEnd becomes its end, dropout goes. The sum of a
// Residual, with its activation, becomes the end of its body's last layer. Everything else stays what it is, shared
// with the network: modules of your own, too, unless they override Module::fused() and say what they are made of:
//
//     std::shared_ptr<Module> fused() override {  // relu(norm2(conv2(relu(norm1(conv1(x))))) + x)
//         auto body = std::make_shared<Sequential>();
//         for (const auto& [name, part] : parts()) { body->append(part); }
//         return fuse(Residual(body, nullptr, std::make_shared<ReLU>()));
//     }
//
// Between convolutions, the pools MaxPool2d and AvgPool2d, and residuals of them, images stay in the layout of the
// kernels (layers/functional/blocked_image.h); they become planes for other modules, for the mean of AdaptiveAvgPool2d,
// and where the network ends. Recorded calls use planes throughout. The first call lays the weights out.
//
// Results have the bits of the network's but for folded normalizations: their scale is rounded into the weights, which
// changes each term of a sum by a rounding.
//
// Weights that nothing was folded into are the network's own, and follow what becomes of them. Folded ones are those of
// the moment: fuse again after changes. state() of the result holds its tensors under its own names (weights as
// buffers, without gradients of their own): checkpoints are the network's, before fuse().
#pragma once

#include <concepts>
#include <memory>
#include <utility>

#include "containers.h"
#include "module.h"

namespace ornik {

/// Refuses modules in training, and those that neither are a container of the kinds above nor override fused().
[[nodiscard]] ORNIK_API std::shared_ptr<Module> fuse(Module& module);
template <std::derived_from<Module> M>
[[nodiscard]] std::shared_ptr<Module> fuse(M&& module) requires(!std::is_lvalue_reference_v<M>) {
    return fuse(static_cast<Module&>(module));
}

}  // namespace ornik
