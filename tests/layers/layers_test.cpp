// What every layer does; dense layers; activations against the functions that they call.
#include <cmath>
#include <limits>

#include "apis/ornik.h"
#include "layers/functional/activation.h"
#include "layers/layer_activation.h"
#include "layers/layer_dense.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/tensor_element_math.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;
using LossPtr = std::unique_ptr<Loss>;

TEST(LayerBase, UnservedOverloadsGiveNull) {
    Layer layer("base", 3, 4);
    Tensor* const n = nullptr;
    std::vector<Tensor*> saved;
    EXPECT_EQ(layer.get_name(), "base");
    EXPECT_TRUE(layer._trainable);
    const auto all_null = [](auto*... results) { return ((results == nullptr) && ...); };
    EXPECT_TRUE(all_null(layer.backward_dyn(n, n), layer.backward_dyn(n, n, n), layer.backward_dyn(n, n, saved),
                         layer.backward_dyn(n), layer.backward_dyn(n, n, n, n, 0),
                         layer.backward_dyn(n, n, n, n, n, n, 0), layer.backward_dyn(n, n, n, n, saved, 0)));
    EXPECT_TRUE(all_null(layer.forward_dyn(n), layer.forward_dyn(n, n, n, true), layer.forward_dyn(n, n, n, true, n, n),
                         layer.forward_dyn(n, n, n)));
    EXPECT_TRUE(all_null(layer.get_saved_var(), layer.get_saved_opa(), layer.get_gw(), layer.get_gb(), layer.get_gx()));
    EXPECT_TRUE(layer.get_fwd_cache().empty());
    const LayerPtr dense(_Dense(2, true, ""));
    EXPECT_EQ(dense->get_name(), "dense");
    EXPECT_TRUE(all_null(dense->forward_dyn(n), dense->get_gx()));
}

// A layer that keeps tensors for its backward pass, as the base class owns them.
class CachingLayer : public Layer {
  public:
    CachingLayer() : Layer("caching", 0, 0) {
        forward_cache_ = {Tensor::ones({2}, 0, 6), nullptr};
        results_[3] = Tensor::full({2}, 2.0F, 0, 6);
    }
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
    const Tensor* result(int slot) const { return results_[slot]; }
};

TEST(LayerBase, CopiesOwnClones) {
    auto original = std::make_unique<CachingLayer>();
    CachingLayer copy(*original);
    CachingLayer assigned;
    assigned = *original;
    EXPECT_NE(copy.get_fwd_cache()[0], original->get_fwd_cache()[0]);
    original.reset();
    for (CachingLayer* layer : {&copy, &assigned}) {
        EXPECT_EQ(values_of<float>(layer->get_fwd_cache()[0]), (std::vector<float>{1, 1}));
        EXPECT_EQ(layer->get_fwd_cache()[1], nullptr);
        EXPECT_EQ(layer->result(0), nullptr);
        EXPECT_EQ(values_of<float>(layer->result(3)), (std::vector<float>{2, 2}));
    }
}

TEST(Dense, ValuesKeptGradientsAndProbes) {
    const TensorPtr x = make<float>({2, 2}, {1, 2, 3, 4}), w = make<float>({2, 3}, {1, 0, 2, 0, 1, 3});
    const TensorPtr b = make<float>({1, 3}, {10, 20, 30}), g = make<float>({2, 3}, {1, 1, 1, 2, 0, 5});
    const LayerPtr layer(_Dense(3, true, ""));
    EXPECT_EQ(values_of<float>(TensorPtr(layer->forward_dyn(w.get(), b.get(), x.get()))),
              (std::vector<float>{11, 22, 38, 13, 24, 48}));
    EXPECT_EQ(values_of<float>(TensorPtr(layer->forward_dyn(w.get(), nullptr, x.get()))),
              (std::vector<float>{1, 2, 8, 3, 4, 18}));
    EXPECT_EQ(layer->get_gb(), nullptr);
    const TensorPtr bias_gradient(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), 2));
    EXPECT_EQ(bias_gradient->Shape(), (Dims{1, 3}));
    EXPECT_EQ(values_of<float>(bias_gradient), (std::vector<float>{3, 1, 6}));
    EXPECT_EQ(layer->get_gb()->getStorage(), bias_gradient->getStorage());
    EXPECT_EQ(layer->get_gw(), nullptr);
    TensorPtr weight_gradient(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), 1));
    LDense copy(static_cast<const LDense&>(*layer));
    const std::vector<float> expected = values_of<float>(weight_gradient);
    weight_gradient.reset();
    EXPECT_EQ(values_of<float>(layer->get_gw()), expected);
    EXPECT_NE(copy.get_gw(), layer->get_gw());
    EXPECT_EQ(values_of<float>(copy.get_gw()), expected);

    layer->_trainable = false;
    EXPECT_EQ(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), 1), nullptr);
    EXPECT_EQ(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), 2), nullptr);
    EXPECT_NE(TensorPtr(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), 0)), nullptr);
    const LayerPtr plain(_Dense(3, false, ""));
    EXPECT_EQ(plain->backward_dyn(w.get(), nullptr, x.get(), g.get(), 2), nullptr);

    const TensorPtr integers = make<std::int32_t>({2, 2}, {1, 2, 3, 4});
    expect_error([&] { layer->forward_dyn(integers.get(), nullptr, integers.get()); },
                 "Dense layer only supports float or complex.", "ornik::LDense::forward_dyn",
                 "src/layers/layer_dense.cpp");
}

TEST(Activation, LayersHaveTheBitsOfTheFunctions) {
    struct Row {
        const char* name;
        std::vector<float> parameters;
        std::function<TensorPtr(Tensor* x)> forward;
        std::function<TensorPtr(Tensor* x, Tensor* y, Tensor* g)> backward;
    };
#define ROW(name)                                                                                                     \
    {                                                                                                                 \
#name, {}, [](auto* x) { return TensorPtr(x->name()); },                                                      \
                                                              [](auto* x, auto* y,                                    \
                                                                 auto* g) { return TensorPtr(name##_grad(x, y, g)); } \
    }
    const Row rows[] = {
        {"relu", {}, nn::relu, [](auto* x, auto*, auto* g) { return nn::relu_grad(x, g); }},
        {"leaky_relu",
         {},
         [](auto* x) { return nn::leaky_relu(x, 0.01); },
         [](auto* x, auto*, auto* g) { return nn::leaky_relu_grad(x, g, 0.01); }},
        {"leaky_relu",
         {0.25F},
         [](auto* x) { return nn::leaky_relu(x, 0.25); },
         [](auto* x, auto*, auto* g) { return nn::leaky_relu_grad(x, g, 0.25); }},
        {"elu",
         {},
         [](auto* x) { return nn::elu(x, 1); },
         [](auto* x, auto* y, auto* g) { return nn::elu_grad(x, y, g, 1); }},
        {"elu",
         {0.5F},
         [](auto* x) { return nn::elu(x, 0.5); },
         [](auto* x, auto* y, auto* g) { return nn::elu_grad(x, y, g, 0.5); }},
        {"selu", {}, nn::selu, [](auto*, auto* y, auto* g) { return nn::selu_grad(y, g); }},
        ROW(gelu),
        ROW(silu),
        ROW(sigmoid),
        ROW(tanh),
        ROW(softplus),
        {"softmax",
         {},
         [](auto* x) { return TensorPtr(softmax(x, -1)); },
         [](auto*, auto* y, auto* g) { return TensorPtr(softmax_grad(g, y, -1)); }},
        {"softmax",
         {-2},
         [](auto* x) { return TensorPtr(softmax(x, 0)); },
         [](auto*, auto* y, auto* g) { return TensorPtr(softmax_grad(g, y, 0)); }},
        {"log_softmax",
         {1},
         [](auto* x) { return TensorPtr(log_softmax(x, 1)); },
         [](auto*, auto* y, auto* g) { return TensorPtr(log_softmax_grad(g, y, 1)); }},
    };
#undef ROW
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const LayerPtr layer(_Activation(row.name, row.parameters, "r"));
        EXPECT_EQ(layer->get_name(), "r");
        for (const Layout layout : all_layouts) {
            const TensorPtr x = random_tensor({3, 4}, dtype::float64, 5, layout);
            const TensorPtr g = random_tensor({3, 4}, dtype::float64, 2, layout);
            const TensorPtr y(layer->forward_dyn(x.get()));
            EXPECT_EQ(bytes_of(y), bytes_of(row.forward(x.get()))) << name_of(layout);
            EXPECT_EQ(bytes_of(TensorPtr(layer->backward_dyn(x.get(), y.get(), g.get()))),
                      bytes_of(row.backward(x.get(), y.get(), g.get())))
                << name_of(layout);
        }
        const TensorPtr none = make_empty({2, 0}, dtype::float32);
        EXPECT_EQ(TensorPtr(layer->forward_dyn(none.get()))->Shape(), none->Shape());
        EXPECT_EQ(TensorPtr(layer->backward_dyn(none.get(), none.get(), none.get()))->Shape(), none->Shape());
    }
    const TensorPtr integers = make<std::int8_t>({3}, {-128, 0, 127});
    EXPECT_EQ(values_of<std::int8_t>(TensorPtr(LayerPtr(_Activation("relu", {}, ""))->forward_dyn(integers.get()))),
              (std::vector<std::int8_t>{0, 0, 127}));
}

TEST(Training, SameBitsAtEveryTeamSize) {
    const TensorPtr x = random_tensor({600, 300}, dtype::float32, 31), w = random_tensor({300, 50}, dtype::float32, 32);
    const TensorPtr b = random_tensor({50}, dtype::float32, 33), labels(Tensor::zeros({600}, 0, dtype::int64));
    expect_same_bits([&] {
        const LayerPtr dense(_Dense(50, true, "")), softmax(_Softmax(0, ""));
        const LossPtr loss(getLoss("sce"));
        std::vector<TensorPtr> all;
        all.emplace_back(dense->forward_dyn(w.get(), b.get(), x.get()));
        all.emplace_back(softmax->forward_dyn(all[0].get()));
        all.emplace_back(loss->loss_forward(all[1].get(), labels.get()));
        all.emplace_back(loss->loss_backward(all[1].get(), labels.get()));
        for (const int node : {0, 1, 2}) {
            all.emplace_back(dense->backward_dyn(w.get(), b.get(), x.get(), all[3].get(), node));
        }
        return all;
    });
}

}  // namespace
}  // namespace ornik::test
