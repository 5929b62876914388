// Dense layers and activations: values against loops, gradients against differences.
#include <cmath>
#include <limits>

#include "apis/ornik.h"
#include "layers/layer_activation.h"
#include "layers/layer_dense.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"
#include "tensor/tensor_math/reductions.h"

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

TEST(Dense, GradientsOfEveryArgument) {
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        for (const Dims& in : {Dims{4}, Dims{3, 4}, Dims{2, 3, 4}}) {
            Dims out = in;
            out.back() = 5;
            const TensorPtr arguments[] = {random_tensor({4, 5}, dtype, 2, Layout::transposed),
                                           random_tensor({5}, dtype, 3, Layout::every_other),
                                           random_tensor(in, dtype, 1, Layout::transposed)};
            const TensorPtr g = random_tensor(out, dtype, 4, Layout::reversed);
            const LayerPtr layer(_Dense(5, true, "d"));
            Tensor* const a[] = {arguments[0].get(), arguments[1].get(), arguments[2].get()};
            for (int node = 0; node < 3; ++node) {
                const int varied = (node + 2) % 3;
                const auto forward = [&](Tensor* t) {
                    return layer->forward_dyn(varied == 0 ? t : a[0], varied == 1 ? t : a[1], varied == 2 ? t : a[2]);
                };
                EXPECT_EQ(TensorPtr(forward(a[varied]))->Shape(), out);
                expect_gradient(forward, arguments[varied], g, layer->backward_dyn(a[0], a[1], a[2], g.get(), node));
            }
        }
    }
}

TEST(Dense, ValuesKeptGradientsAndProbes) {
    const TensorPtr x = make<float>({2, 2}, {1, 2, 3, 4});
    const TensorPtr w = make<float>({2, 3}, {1, 0, 2, 0, 1, 3});
    const TensorPtr b = make<float>({1, 3}, {10, 20, 30});
    const TensorPtr g = make<float>({2, 3}, {1, 1, 1, 2, 0, 5});
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
    const TensorPtr whole = make<std::int32_t>({2, 3}, counted<std::int32_t>(6));
    Tensor* const n = nullptr;
    const Refusal refusals[] = {
        {"forward_dyn", [&] { layer->forward_dyn(n, b.get(), x.get()); }, "Dense layer needs a weight and an input."},
        {"forward_dyn", [&] { layer->forward_dyn(w.get(), n, integers.get()); },
         "Not same data type for inputs of dense layer."},
        {"forward_dyn", [&] { layer->forward_dyn(whole.get(), n, integers.get()); },
         "Dense layer only supports float or complex."},
        {"forward_dyn", [&] { layer->forward_dyn(x.get(), n, x.get()); },
         "Dense layer with 3 outputs needs a weight [in, out] and an input [..., in]: weight ( 2, 2 ) , input "
         "( 2, 2 ) "},
        {"forward_dyn", [&] { layer->forward_dyn(w.get(), x.get(), x.get()); },
         "Dense layer with 3 outputs has a bias of another shape: ( 2, 2 ) "},
        {"backward_dyn", [&] { layer->backward_dyn(n, n, n, n, 3); }, "NOT impl grad for this Node"},
        {"backward_dyn", [&] { layer->backward_dyn(w.get(), b.get(), x.get(), x.get(), 0); },
         "Dense layer needs a gradient of its output's shape."},
    };
    expect_refusals(refusals, "ornik::LDense::", "src/layers/layer_dense.cpp");
    expect_error([] { _Dense(0, true, ""); }, "Dense layer needs at least one output, however it has 0",
                 "ornik::_Dense", "src/apis/ornik.cpp");
}

TEST(Activation, Relu) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const LayerPtr relu(_Activation("relu", {}, "r"));
    EXPECT_EQ(relu->get_name(), "r");
    for (const Layout layout : all_layouts) {
        const TensorPtr x = make<float>({2, 2}, {-1, 2, nan, 0}, layout);
        const TensorPtr g = make<float>({2, 2}, {5, 6, 7, 8}, layout);
        const TensorPtr y(relu->forward_dyn(x.get()));
        const std::vector<float> values = values_of<float>(y);
        EXPECT_EQ(values[0], 0.0F);
        EXPECT_EQ(values[1], 2.0F);
        EXPECT_TRUE(std::isnan(values[2]));
        EXPECT_EQ(values_of<float>(TensorPtr(relu->backward_dyn(x.get(), y.get(), g.get()))),
                  (std::vector<float>{0, 6, 0, 0}));
    }
    const TensorPtr integers = make<std::int8_t>({3}, {-128, 0, 127});
    EXPECT_EQ(values_of<std::int8_t>(TensorPtr(relu->forward_dyn(integers.get()))),
              (std::vector<std::int8_t>{0, 0, 127}));
}

TEST(Activation, ValuesAndGradientsOfElementWiseOnes) {
    struct Row {
        const char* name;
        std::vector<float> parameters;
        double (*value)(double x);
    };
    static constexpr double scale = 1.0507009873554804934193349852946, alpha = 1.6732632423543772848170429916717;
    const Row rows[] = {
        {"leaky_relu", {}, [](double x) { return x > 0 ? x : 0.01 * x; }},
        {"leaky_relu", {0.25F}, [](double x) { return x > 0 ? x : 0.25 * x; }},
        {"elu", {}, [](double x) { return x > 0 ? x : std::expm1(x); }},
        {"elu", {0.5F}, [](double x) { return x > 0 ? x : 0.5 * std::expm1(x); }},
        {"selu", {}, [](double x) { return scale * (x > 0 ? x : alpha * std::expm1(x)); }},
        {"gelu", {}, [](double x) { return 0.5 * x * (1 + std::erf(x / std::sqrt(2.0))); }},
        {"silu", {}, [](double x) { return x / (1 + std::exp(-x)); }},
        {"sigmoid", {}, [](double x) { return 1 / (1 + std::exp(-x)); }},
        {"tanh", {}, [](double x) { return std::tanh(x); }},
        {"softplus", {}, [](double x) { return std::log1p(std::exp(x)); }},
    };
    const TensorPtr g = random_tensor({3, 4}, dtype::float64, 2);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const LayerPtr layer(_Activation(row.name, row.parameters, ""));
        for (const Layout layout : all_layouts) {
            const TensorPtr x = random_tensor({3, 4}, dtype::float64, 5, layout);
            const TensorPtr single(x->astype(dtype::float32));
            const TensorPtr y(layer->forward_dyn(x.get()));
            const std::vector<double> in = values_of<double>(x);
            const std::vector<double> out = values_of<double>(y);
            const std::vector<float> low = values_of<float>(TensorPtr(layer->forward_dyn(single.get())));
            for (std::size_t i = 0; i < in.size(); ++i) {
                EXPECT_NEAR(out[i], row.value(in[i]), 1e-15) << in[i];
                EXPECT_NEAR(low[i], row.value(in[i]), 1e-6) << in[i];
            }
            expect_gradient([&](Tensor* t) { return layer->forward_dyn(t); }, x, g,
                            layer->backward_dyn(x.get(), y.get(), g.get()));
        }
    }
}

TEST(Activation, SoftmaxAlongEveryAxis) {
    const TensorPtr x = random_tensor({3, 4, 5}, dtype::float64, 7, Layout::transposed);
    const TensorPtr g = random_tensor({3, 4, 5}, dtype::float64, 8);
    for (const int axis : {-3, -2, -1, 0, 1, 2}) {
        const LayerPtr layer(_Softmax(axis, "s"));
        const TensorPtr y(layer->forward_dyn(x.get())), expected(softmax(x.get(), axis));
        EXPECT_EQ(values_of<double>(y), values_of<double>(expected)) << axis;
        expect_gradient([&](Tensor* t) { return layer->forward_dyn(t); }, x, g,
                        layer->backward_dyn(x.get(), y.get(), g.get()));
    }
    const TensorPtr large = make<float>({2}, {1000, 998});
    const std::vector<float> stable =
        values_of<float>(TensorPtr(LayerPtr(_Activation("softmax", {}, ""))->forward_dyn(large.get())));
    EXPECT_NEAR(stable[0], 0.8807971F, 1e-6F);
}

TEST(Activation, Refusals) {
    const LayerPtr softmax(_Softmax(2, "")), relu(_Activation("relu", {}, ""));
    const TensorPtr matrix(Tensor::ones({2, 2}, 0, dtype::float32)), integers(Tensor::ones({2, 2}, 0, dtype::int32));
    const TensorPtr complex(Tensor::ones({1}, 0, dtype::complex64)), scalar(Tensor::ones({}, 0, dtype::float32));
    EXPECT_EQ(error_text([&] { softmax->forward_dyn(matrix.get()); }),
              located("axis should in range of [-2,1]", "maybe_wrap_dim", "include/utils/utils.h"));
    const Refusal refusals[] = {
        {"LActivation", [] { _Activation("swoosh", {}, ""); }, "Unknown activation: swoosh"},
        {"LActivation", [] { _Activation("relu", {1}, ""); },
         "Activation relu takes fewer parameters than the 1 given"},
        {"LActivation", [] { _Activation("log_softmax", {0.5F}, ""); },
         "The axis of log_softmax should be a whole number"},
        {"LActivation", [] { _Activation("elu", {INFINITY}, ""); }, "The parameter of elu should be finite"},
        {"forward_dyn", [&] { softmax->forward_dyn(integers.get()); }, "Not valid dtype for this function."},
        {"forward_dyn", [&] { relu->forward_dyn(complex.get()); }, "Not valid dtype for this function."},
        {"forward_dyn", [&] { softmax->forward_dyn(scalar.get()); }, "softmax needs at least one axis"},
        {"backward_dyn", [&] { softmax->backward_dyn(matrix.get(), matrix.get(), integers.get()); },
         "Not same data type for inputs of activation."},
    };
    expect_refusals(refusals, "ornik::LActivation::", "src/layers/layer_activation.cpp");
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
