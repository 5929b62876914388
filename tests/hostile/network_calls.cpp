#include "calls.h"

namespace ornik::test {

namespace {

using Ints = std::vector<int>;
const Ints twos{2, 2};
const Ints zeros{0, 0};

// Layers made ready for good operands: forward (weights first) and backward ones.
struct LayerCase {
    const char* name;
    std::function<Layer*()> make;
    std::string_view forward;
    std::string_view backward;
};

std::vector<LayerCase> layer_cases() {
    const auto ones = [](std::size_t n) { return Ints(n, 1); };
    const auto conv = [=](auto factory, std::size_t axes) {
        return [=] {
            Ints kernel = ones(axes), strides = ones(axes), padding(axes), dilation = ones(axes);
            return factory(kernel, strides, padding, dilation);
        };
    };
    return {
        {"Dense", [] { return _Dense(3, true, ""); }, "svx", "svxx|1"},
        {"Embedding", [] { return _Embedding(3, 3, ""); }, "svi", "svix|1"},
        {"Activation", [] { return _Activation("gelu", {}, ""); }, "x", "x"},
        {"Softmax", [] { return _Softmax(-1, ""); }, "x", "x"},
        {"BatchNormalization", [] { return _BatchNormalization(true, 0.1F, 1e-5F, ""); }, "vvxv?v?", "vvxxvv|1"},
        {"GroupNormalization", [] { return _GroupNormalization(1, 3, true, 1e-5F, ""); }, "vvx", "vvxx|1,1"},
        {"LayerNormalization", [] { return _LayerNormalization(true, 1e-5F, ""); }, "vvx", "vvxx|1,1"},
        {"MaxPool1D", [] { return _MaxPool1D(Ints{3}, Ints{1}, Ints{1}, ""); }, "t", "t|1"},
        {"AvgPool1D", [] { return _AvgPool1D(Ints{2}, Ints{1}, "same", ""); }, "t", "t"},
        {"MaxPool2D", [] { return _MaxPool2D(twos, twos, "valid", ""); }, "q", "qg|1"},
        {"AvgPool2D", [] { return _AvgPool2D(twos, twos, zeros, ""); }, "q", "qg"},
        {"PixelShuffle", [] { return _PixelShuffle(2, ""); }, "q", "q"},
        {"PixelUnshuffle", [] { return _PixelUnshuffle(2, ""); }, "q", "q"},
        {"Conv1D", conv([](Ints& k, Ints& s, Ints& p, Ints& d) { return _Conv1D(3, k, s, p, true, 1, d, ""); }, 1),
         "Bvt", "Bvtt|1"},
        {"Conv2D", conv([](Ints& k, Ints& s, Ints& p, Ints& d) { return _Conv2D(4, k, s, p, true, 1, d, ""); }, 2),
         "jCq", "jCqq|1"},
        {"ConvT2D",
         conv([](Ints& k, Ints& s, Ints& p, Ints& d) { return _ConvT2D(4, k, s, p, true, 1, d, zeros, ""); }, 2), "jCq",
         "jCqq|1"},
    };
}

// Factories of layers and losses give null when there is no memory.
template <typename T>
std::unique_ptr<T> made(T* object) {
    return object != nullptr ? std::unique_ptr<T>(object) : throw std::bad_alloc();
}

template <typename... A>
void call_layer(World& world, Layer& layer, Tensor* (Layer::*member)(A...)) {
    invoke<Tensor*, A...>(world, [&](auto&&... a) { return (layer.*member)(std::forward<decltype(a)>(a)...); });
}

using T = Tensor*;
using List = std::vector<Tensor*>&;

template <typename... A>
void add_forward(CallTable& table, const LayerCase& layer) {
    std::string name = std::string(layer.name) + "::forward_dyn of " + std::to_string(sizeof...(A));
    table.add_one(layer.forward, name, [make = layer.make](World& world) {
        call_layer(world, *made(make()), static_cast<T (Layer::*)(A...)>(&Layer::forward_dyn));
    });
}

template <typename... A>
void add_backward(CallTable& table, const LayerCase& layer) {
    std::string name = std::string(layer.name) + "::backward_dyn of " + std::to_string(sizeof...(A));
    table.add_one(layer.backward, name, [layer](World& world) {
        const std::unique_ptr<Layer> trained = made(layer.make());
        World before(layer.forward, {});
        const auto forward = [&]<typename... B>(TypeList<B...>) {
            before.position = 0;
            call_layer(before, *trained, static_cast<T (Layer::*)(B...)>(&Layer::forward_dyn));
        };
        forward(TypeList<T>{});
        forward(TypeList<T, T, T>{});
        forward(TypeList<T, T, T, bool>{});
        forward(TypeList<T, T, T, bool, T, T>{});
        call_layer(world, *trained, static_cast<T (Layer::*)(A...)>(&Layer::backward_dyn));
    });
}

Tensor* train_batch_norm(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* mean, Tensor* variance) {
    const std::unique_ptr<Layer> layer = made(_BatchNormalization(true, 0.1F, 1e-5F, ""));
    return layer->forward_dyn(gamma, beta, input, true, mean, variance);
}

template <bool backward>
void call_loss(World& world, const char* name) {
    const std::unique_ptr<Loss> loss = made(getLoss(name));
    invoke<T, T, T>(world, [&](T x, T y) { return backward ? loss->loss_backward(x, y) : loss->loss_forward(x, y); });
}

void step_amsgrad(T param, T grad, T m, T v, T vmax) {
    adam_step(param, grad, 0.1F, 0.9F, 0.999F, 1e-8F, 1, m, v, vmax, true);
}

}  // namespace

void add_network_calls(CallTable& table) {
    for (const LayerCase& layer : layer_cases()) {
        add_forward<T>(table, layer);
        add_forward<T, T, T>(table, layer);
        add_forward<T, T, T, bool>(table, layer);
        add_forward<T, T, T, bool, T, T>(table, layer);
        add_backward<T>(table, layer);
        add_backward<T, T>(table, layer);
        add_backward<T, T, T>(table, layer);
        add_backward<T, T, List>(table, layer);
        add_backward<T, T, T, T, int>(table, layer);
        add_backward<T, T, T, T, T, T, int>(table, layer);
        add_backward<T, T, T, T, List, int>(table, layer);
    }
    ORNIK_CALLS("vvxv!v!", train_batch_norm)
    for (const auto& [name, operands] :
         {std::pair{"mse", "x"}, {"bce", "x"}, {"sce", "xi"}, {"nll_loss", "xi"}, {"none", "x"}}) {
        std::string names = std::string(name) + " forward, " + name + " backward";
        table.add_one(operands, names, [name = name](World& world) { call_loss<false>(world, name); });
        table.add_one(operands, names, [name = name](World& world) { call_loss<true>(world, name); });
    }
    ORNIK_CALLS("x!xx!", sgd_step, rmsprop_step, adam_grad_step)
    ORNIK_CALLS("x!xx!x!", adam_max_step, adam_delta_step)
    ORNIK_CALLS("x!xx!x!x?", adam_step, adamw_step)
    ORNIK_CALLS("x!xx!x!x!", step_amsgrad)
    ORNIK_CALLS("-k", sgd_step, rmsprop_step, adam_grad_step, adam_max_step, adam_delta_step, adam_step, adamw_step)

    using VectorPool = Layer* (*)(Ints, Ints, Ints, std::string);
    using NamedPool = Layer* (*)(Ints, Ints, std::string, std::string);
#define POOL(layer, of_vectors, named) \
    ORNIK_OVERLOAD(of_vectors, VectorPool, layer) ORNIK_OVERLOAD(named, NamedPool, layer)
    POOL(_MaxPool1D, "|3,3,2", "|3,3,2")
    POOL(_AvgPool1D, "|3,3,2", "|3,3,2")
    POOL(_MaxPool2D, "|6,5,13", "|6,5,2")
    POOL(_AvgPool2D, "|6,5,13", "|6,5,2")
    using VectorConv = Layer* (*)(int, const Ints&, const Ints&, const Ints&, bool, int, const Ints&, std::string);
    using NamedConv = Layer* (*)(int, const Ints&, const Ints&, std::string, bool, int, const Ints&, std::string);
    using VectorConv1D = Layer* (*)(int, Ints&, Ints&, Ints&, bool, int, Ints&, std::string);
    using NamedConv1D = Layer* (*)(int, Ints&, Ints&, std::string, bool, int, Ints&, std::string);
    using VectorConvT =
        Layer* (*)(int, const Ints&, const Ints&, const Ints&, bool, int, const Ints&, const Ints&, std::string);
    using NamedConvT =
        Layer* (*)(int, const Ints&, const Ints&, std::string, bool, int, const Ints&, const Ints&, std::string);
    ORNIK_OVERLOAD("|4,3,3,2,1,1,3", VectorConv1D, _Conv1D)
    ORNIK_OVERLOAD("|4,3,3,2,1,1,3", NamedConv1D, _Conv1D)
    ORNIK_OVERLOAD("|4,6,5,13,1,1,5", VectorConv, _Conv2D)
    ORNIK_OVERLOAD("|4,6,5,2,1,1,5", NamedConv, _Conv2D)
    ORNIK_OVERLOAD("|4,6,5,13,1,1,5,13", VectorConvT, _ConvT2D)
    ORNIK_OVERLOAD("|4,6,5,2,1,1,5,13", NamedConvT, _ConvT2D)
    ORNIK_CALLS("|6", _Activation)
    ORNIK_CALLS("-|8,4", _Activation)
    ORNIK_CALLS("-|16,1", _Activation)
    ORNIK_CALLS("|", _Dense, _Softmax, _Embedding, _BatchNormalization, _GroupNormalization, _LayerNormalization,
                _PixelShuffle, _PixelUnshuffle, getLoss)
}

}  // namespace ornik::test
