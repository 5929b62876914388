// Layers, the cross-entropy and the SGD step: values against loops, gradients against differences.
#include <cmath>
#include <cstring>
#include <limits>

#include "apis/ornik.h"
#include "hardware/thread_config.h"
#include "layers/layer_activation.h"
#include "layers/layer_dense.h"
#include "losses/soft_cross_entropy.h"
#include "optimizers/optimizers.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/tensors.h"
#include "tensor/tensor_math/tensor_arithmetic.h"

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
    const Tensor* const results[] = {layer.get_saved_var(),
                                     layer.get_saved_opa(),
                                     layer.backward_dyn(n, n),
                                     layer.backward_dyn(n, n, n),
                                     layer.backward_dyn(n, n, saved),
                                     layer.backward_dyn(n),
                                     layer.backward_dyn(n, n, n, n, 0),
                                     layer.backward_dyn(n, n, n, n, n, n, 0),
                                     layer.backward_dyn(n, n, n, n, saved, 0),
                                     layer.forward_dyn(n),
                                     layer.forward_dyn(n, n, n, true),
                                     layer.forward_dyn(n, n, n, true, n, n),
                                     layer.forward_dyn(n, n, n),
                                     layer.get_gw(),
                                     layer.get_gb(),
                                     layer.get_gx()};
    for (const Tensor* result : results) {
        EXPECT_EQ(result, nullptr);
    }
    EXPECT_TRUE(layer.get_fwd_cache().empty());
    const LayerPtr dense(_Dense(2, true, ""));
    EXPECT_EQ(dense->get_name(), "dense");
    EXPECT_EQ(dense->forward_dyn(n), nullptr);
    EXPECT_EQ(dense->get_gx(), nullptr);
}

// A layer that keeps tensors for its backward pass, as the base class owns them.
class CachingLayer : public Layer {
  public:
    CachingLayer() : Layer("caching", 0, 0) { forward_cache_ = {Tensor::ones({2}, 0, 6), nullptr}; }
    std::vector<Tensor*> get_fwd_cache() override { return forward_cache_; }
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
    }
}

TEST(Dense, GradientsOfEveryArgument) {
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        for (const Dims& leading : {Dims{}, Dims{3}, Dims{2, 3}}) {
            Dims in_shape = leading;
            in_shape.push_back(4);
            Dims out_shape = leading;
            out_shape.push_back(5);
            const TensorPtr x = random_tensor(in_shape, dtype, 1, Layout::transposed);
            const TensorPtr w = random_tensor({4, 5}, dtype, 2, Layout::transposed);
            const TensorPtr b = random_tensor({5}, dtype, 3, Layout::every_other);
            const TensorPtr g = random_tensor(out_shape, dtype, 4, Layout::reversed);
            const LayerPtr layer(_Dense(5, true, "d"));
            const auto forward = [&](Tensor* weight, Tensor* bias, Tensor* input) {
                TensorPtr out(layer->forward_dyn(weight, bias, input));
                EXPECT_EQ(out->Shape(), out_shape);
                return out;
            };
            const auto gradient = [&](int node) {
                return TensorPtr(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node));
            };
            expect_gradient([&](Tensor* t) { return forward(w.get(), b.get(), t); }, x.get(), g.get(),
                            gradient(0).get());
            expect_gradient([&](Tensor* t) { return forward(t, b.get(), x.get()); }, w.get(), g.get(),
                            gradient(1).get());
            expect_gradient([&](Tensor* t) { return forward(w.get(), t, x.get()); }, b.get(), g.get(),
                            gradient(2).get());
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

    const auto refused = [&](Tensor* weight, Tensor* bias, Tensor* input, const std::string& message) {
        expect_error([&] { layer->forward_dyn(weight, bias, input); }, message, "ornik::LDense::forward_dyn",
                     "src/layers/layer_dense.cpp");
    };
    const TensorPtr integers = make<std::int32_t>({2, 2}, {1, 2, 3, 4});
    const TensorPtr integer_weight = make<std::int32_t>({2, 3}, counted<std::int32_t>(6));
    refused(nullptr, b.get(), x.get(), "Dense layer needs a weight and an input.");
    refused(w.get(), nullptr, integers.get(), "Not same data type for inputs of dense layer.");
    refused(integer_weight.get(), nullptr, integers.get(), "Dense layer only supports float or complex.");
    refused(x.get(), nullptr, x.get(),
            "Dense layer with 3 outputs needs a weight [in, out] and an input [..., in]: weight ( 2, 2 ) , input "
            "( 2, 2 ) ");
    refused(w.get(), x.get(), x.get(), "Dense layer with 3 outputs has a bias of another shape: ( 2, 2 ) ");
    expect_error([&] { layer->backward_dyn(nullptr, nullptr, nullptr, nullptr, 3); }, "NOT impl grad for this Node",
                 "ornik::LDense::backward_dyn", "src/layers/layer_dense.cpp");
    expect_error([&] { layer->backward_dyn(w.get(), b.get(), x.get(), x.get(), 0); },
                 "Dense layer needs a gradient of its output's shape.", "ornik::LDense::backward_dyn",
                 "src/layers/layer_dense.cpp");
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
    const Row rows[] = {
        {"leaky_relu", {}, [](double x) { return x > 0 ? x : double{0.01F} * x; }},
        {"leaky_relu", {0.25F}, [](double x) { return x > 0 ? x : 0.25 * x; }},
        {"elu", {}, [](double x) { return x > 0 ? x : std::expm1(x); }},
        {"elu", {0.5F}, [](double x) { return x > 0 ? x : 0.5 * std::expm1(x); }},
        {"selu",
         {},
         [](double x) {
             return double{1.0507009873554805F} * (x > 0 ? x : double{1.6732632423543772F} * std::expm1(x));
         }},
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
            expect_gradient([&](Tensor* t) { return TensorPtr(layer->forward_dyn(t)); }, x.get(), g.get(),
                            TensorPtr(layer->backward_dyn(x.get(), y.get(), g.get())).get());
        }
    }
}

TEST(Activation, SoftmaxAlongEveryAxis) {
    const TensorPtr x = random_tensor({3, 4, 5}, dtype::float64, 7, Layout::transposed);
    const TensorPtr g = random_tensor({3, 4, 5}, dtype::float64, 8);
    const std::vector<double> in = values_of<double>(x);
    for (const int axis : {-3, -2, -1, 0, 1, 2}) {
        const LayerPtr softmax(_Softmax(axis, "s"));
        const TensorPtr y(softmax->forward_dyn(x.get()));
        const std::vector<double> out = values_of<double>(y);
        const std::size_t step = axis % 3 == 0 ? 20 : (axis == 1 || axis == -2 ? 5 : 1);
        const std::size_t n = step == 20 ? 3 : (step == 5 ? 4 : 5);
        for (std::size_t i = 0; i < out.size(); ++i) {
            double sum = 0;
            const std::size_t first = i - i / step % n * step;
            for (std::size_t k = 0; k < n; ++k) {
                sum += std::exp(in[first + k * step]);
            }
            EXPECT_NEAR(out[i], std::exp(in[i]) / sum, 1e-15) << axis;
        }
        expect_gradient([&](Tensor* t) { return TensorPtr(softmax->forward_dyn(t)); }, x.get(), g.get(),
                        TensorPtr(softmax->backward_dyn(x.get(), y.get(), g.get())).get());
    }
    const TensorPtr large = make<float>({2}, {1000, 998});
    const std::vector<float> stable =
        values_of<float>(TensorPtr(LayerPtr(_Activation("softmax", {}, ""))->forward_dyn(large.get())));
    EXPECT_NEAR(stable[0], 0.8807971F, 1e-6F);
}

TEST(Activation, Refusals) {
    const auto refused = [](const std::string& word, const std::vector<float>& parameters, const std::string& message) {
        expect_error([&] { _Activation(word, parameters, ""); }, message, "ornik::LActivation::LActivation",
                     "src/layers/layer_activation.cpp");
    };
    refused("swoosh", {}, "Unknown activation: swoosh");
    refused("relu", {1}, "Activation relu takes fewer parameters than the 1 given");
    refused("log_softmax", {0.5F}, "The axis of log_softmax should be a whole number");
    refused("elu", {INFINITY}, "The parameter of elu should be finite");
    const LayerPtr softmax(_Softmax(2, ""));
    const TensorPtr matrix(Tensor::ones({2, 2}, 0, dtype::float32));
    EXPECT_EQ(error_text([&] { softmax->forward_dyn(matrix.get()); }),
              located("axis should in range of [-2,1]", "maybe_wrap_dim", "include/utils/utils.h"));
    const TensorPtr integers(Tensor::ones({2, 2}, 0, dtype::int32));
    const auto at_forward = [](const LayerPtr& layer, const TensorPtr& t, const std::string& message) {
        expect_error([&] { layer->forward_dyn(t.get()); }, message, "ornik::LActivation::forward_dyn",
                     "src/layers/layer_activation.cpp");
    };
    at_forward(softmax, integers, "Not valid dtype for this function.");
    at_forward(LayerPtr(_Activation("relu", {}, "")), TensorPtr(Tensor::ones({1}, 0, dtype::complex64)),
               "Not valid dtype for this function.");
    at_forward(softmax, TensorPtr(Tensor::ones({}, 0, dtype::float32)), "softmax needs at least one axis");
    expect_error([&] { softmax->backward_dyn(matrix.get(), matrix.get(), integers.get()); },
                 "Not same data type for inputs of activation.", "ornik::LActivation::backward_dyn",
                 "src/layers/layer_activation.cpp");
}

TEST(CrossEntropy, IndicesAndWeightsAgainstTheDefinition) {
    const TensorPtr x = random_tensor({2, 3, 4}, dtype::float64, 11, Layout::transposed);
    const std::vector<double> logits = values_of<double>(x);
    const std::vector<std::int16_t> classes = {0, 3, 2, 2, 1, 0};
    std::vector<double> one_hot(24, 0.0);
    double expected = 0;
    for (std::size_t row = 0; row < 6; ++row) {
        double sum = 0;
        for (std::size_t c = 0; c < 4; ++c) {
            sum += std::exp(logits[row * 4 + c]);
        }
        const auto label = static_cast<std::size_t>(classes[row]);
        expected += (std::log(sum) - logits[row * 4 + label]) / 6;
        one_hot[row * 4 + label] = 1;
    }
    const LossPtr loss(getLoss("sce"));
    const TensorPtr hard = make<std::int16_t>({2, 3}, classes, Layout::transposed);
    const TensorPtr column = make<std::int16_t>({2, 3, 1}, classes);
    const TensorPtr soft = make<double>({2, 3, 4}, one_hot, Layout::reversed);
    const TensorPtr mixed = random_tensor({2, 3, 4}, dtype::float64, 12);
    const TensorPtr unit = make<double>({}, {1});
    for (Tensor* target : {hard.get(), column.get(), soft.get(), mixed.get()}) {
        const TensorPtr value(loss->loss_forward(x.get(), target));
        EXPECT_EQ(value->Shape(), Dims{});
        if (target != mixed.get()) {
            EXPECT_NEAR(values_of<double>(value)[0], expected, 1e-14);
        }
        expect_gradient([&](Tensor* t) { return TensorPtr(loss->loss_forward(t, target)); }, x.get(), unit.get(),
                        TensorPtr(loss->loss_backward(x.get(), target)).get());
    }
    const TensorPtr extreme = make<float>({1, 2}, {1000, -1000});
    const TensorPtr first = make<std::int64_t>({1}, {1});
    EXPECT_EQ(values_of<float>(TensorPtr(loss->loss_forward(extreme.get(), first.get())))[0], 2000.0F);
}

TEST(CrossEntropy, NamesAndRefusals) {
    for (const char* name : {"soft_cross_entropy", "softmax_cross_entropy", "sce"}) {
        EXPECT_NE(dynamic_cast<LSoftCrossEntropy*>(LossPtr(getLoss(name)).get()), nullptr) << name;
    }
    const LossPtr none(getLoss("none"));
    EXPECT_EQ(none->get_name(), "none");
    EXPECT_EQ(none->loss_forward(nullptr, nullptr), nullptr);
    EXPECT_EQ(none->loss_backward(nullptr, nullptr), nullptr);
    for (const char* name : {"SCE", "", "unknown"}) {
        EXPECT_EQ(getLoss(name), nullptr) << name;
    }
    const LossPtr loss(getLoss("sce"));
    const TensorPtr x(Tensor::ones({2, 3}, 0, dtype::float32));
    const auto refused = [&](const TensorPtr& prediction, const TensorPtr& target, const std::string& message) {
        expect_error([&] { loss->loss_forward(prediction.get(), target.get()); }, message,
                     "ornik::LSoftCrossEntropy::loss_forward", "src/losses/soft_cross_entropy.cpp");
        expect_error([&] { loss->loss_backward(prediction.get(), target.get()); }, message,
                     "ornik::LSoftCrossEntropy::loss_backward", "src/losses/soft_cross_entropy.cpp");
    };
    refused(x, make<std::int64_t>({2}, {0, 3}), "Class index out of range, there are 3 classes.");
    refused(x, make<std::int8_t>({2}, {0, -1}), "Class index out of range, there are 3 classes.");
    refused(x, make<std::int64_t>({3}, {0, 1, 2}),
            "Class indices of shape ( 3 ) do not fit a prediction of shape ( 2, 3 ) ");
    refused(x, TensorPtr(Tensor::ones({2, 3}, 0, dtype::float64)), "Not same data type for inputs of cross entropy.");
    refused(x, TensorPtr(Tensor::ones({3, 2}, 0, dtype::float32)),
            "Target of shape ( 3, 2 ) does not fit a prediction of shape ( 2, 3 ) ");
    refused(make<std::int32_t>({1}, {1}), x, "Not valid dtype for this function.");
    refused(TensorPtr(Tensor::ones({}, 0, dtype::float32)), x,
            "Cross entropy needs a prediction [..., classes], however it is empty vector\n");
}

TEST(Sgd, HasTheBitsOfTheComposedSteps) {
    for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
        for (const bool nesterov : {false, true}) {
            for (const Layout layout : all_layouts) {
                const TensorPtr p = random_tensor({7, 9}, dtype, 21, layout);
                const TensorPtr g = random_tensor({7, 9}, dtype, 22, Layout::transposed);
                const TensorPtr v = random_tensor({7, 9}, dtype, 23, layout);
                const TensorPtr p2(p->clone());
                const TensorPtr v2(v->clone());
                const void* const address = p->getRawData();
                sgd_step(p.get(), g.get(), 0.1F, v.get(), 0.9F, nesterov);
                add(0.9F, v2.get(), -0.1F, g.get(), v2.get(), 0);
                if (nesterov) {
                    add(0.9F, v2.get(), -0.1F, g.get(), p2.get(), 1);
                } else {
                    p2->add_tensor_inplace(v2.get());
                }
                for (const auto& [one, other] : {std::pair{p.get(), p2.get()}, {v.get(), v2.get()}}) {
                    const TensorPtr dense(one->clone());
                    EXPECT_EQ(std::memcmp(dense->getRawData(), other->getRawData(),
                                          static_cast<std::size_t>(dense->get_alloc_mem_size())),
                              0)
                        << dtype_name(dtype) << nesterov << name_of(layout);
                }
                EXPECT_EQ(p->getRawData(), address);
            }
        }
    }
    const TensorPtr p = make<float>({1}, {1});
    const TensorPtr v = make<float>({1}, {100});
    sgd_step(p.get(), make<float>({1}, {4}).get(), 0.5F, v.get(), 0.0F, false);
    EXPECT_EQ(values_of<float>(v)[0], -2.0F);
    EXPECT_EQ(values_of<float>(p)[0], -1.0F);
}

TEST(Sgd, RefusalsComeBeforeAnyWrite) {
    const TensorPtr p = make<float>({2}, {1, 2});
    const TensorPtr g = make<float>({2}, {3, 4});
    const TensorPtr v = make<float>({2}, {5, 6});
    const auto refused = [&](Tensor* param, Tensor* grad, Tensor* velocity, const std::string& message) {
        expect_error([&] { sgd_step(param, grad, 0.1F, velocity, 0.9F, true); }, message, "ornik::sgd_step",
                     "src/optimizers/optim_sgd.cpp");
        EXPECT_EQ(values_of<float>(p), (std::vector<float>{1, 2}));
        EXPECT_EQ(values_of<float>(v), (std::vector<float>{5, 6}));
    };
    const TensorPtr longer = make<float>({1, 2}, {5, 6});
    const TensorPtr integers = make<std::int64_t>({2}, {5, 6});
    const TensorPtr elsewhere = make<float>({2}, {5, 6});
    elsewhere->updateDevice(1000);
    const TensorPtr expanded(Tensor::broadcast_to(make<float>({1}, {1}).get(), {2}));
    refused(p.get(), g.get(), elsewhere.get(), "Not same device of inputs for 'sgd_step'. ");
    refused(p.get(), g.get(), integers.get(), "Not same data type of inputs for 'sgd_step'. ");
    refused(p.get(), g.get(), longer.get(), "Not same shape of inputs for 'sgd_step'. ");
    refused(longer.get(), g.get(), v.get(), "Not same shape of inputs for 'sgd_step'. ");
    refused(integers.get(), integers.get(), integers.get(), "'sgd_step' only supports float or complex.");
    refused(p.get(), g.get(), expanded.get(), "Output can not be an expanded view: shape ( 2 ) , strides ( 0 ) ");
    refused(p.get(), g.get(), p.get(), "Inputs for 'sgd_step' overlap in memory.");
    refused(p.get(), v.get(), v.get(), "Inputs for 'sgd_step' overlap in memory.");
}

TEST(Training, SameBitsAtEveryTeamSize) {
    std::vector<float> first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        const TensorPtr x = random_tensor({600, 300}, dtype::float32, 31);
        const TensorPtr w = random_tensor({300, 50}, dtype::float32, 32);
        const TensorPtr b = random_tensor({50}, dtype::float32, 33);
        const TensorPtr labels(Tensor::zeros({600}, 0, dtype::int64));
        const LayerPtr dense(_Dense(50, true, ""));
        const LayerPtr softmax(_Softmax(0, ""));
        const LossPtr loss(getLoss("sce"));
        const TensorPtr y(dense->forward_dyn(w.get(), b.get(), x.get()));
        const TensorPtr s(softmax->forward_dyn(y.get()));
        const TensorPtr g(loss->loss_backward(s.get(), labels.get()));
        std::vector<float> all = values_of<float>(TensorPtr(loss->loss_forward(s.get(), labels.get())));
        for (const int node : {0, 1, 2}) {
            const std::vector<float> gradient =
                values_of<float>(TensorPtr(dense->backward_dyn(w.get(), b.get(), x.get(), g.get(), node)));
            all.insert(all.end(), gradient.begin(), gradient.end());
        }
        if (team == 1) {
            first = all;
        }
        EXPECT_EQ(std::memcmp(all.data(), first.data(), all.size() * sizeof(float)), 0) << team;
    }
    ConfigSetNumThreads(4);
}

}  // namespace
}  // namespace ornik::test
