// Batch, group and layer normalization: values against sums in double, gradients against differences.
#include <array>
#include <cmath>
#include <limits>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;
constexpr double eps = 1e-3;

// One normalization behind one interface: parameters and input in, statistics left to the layer.
struct Case {
    std::string name;
    LayerPtr layer;
    Dims shape, parameter_shape;
    std::function<std::int64_t(std::int64_t)> statistic, parameter;  // of an element
    bool batch = false;

    TensorPtr forward(Tensor* gamma, Tensor* beta, Tensor* x, bool training = true) const {
        return TensorPtr(batch ? layer->forward_dyn(gamma, beta, x, training, nullptr, nullptr)
                               : layer->forward_dyn(gamma, beta, x, training));
    }
    TensorPtr backward(Tensor* gamma, Tensor* beta, Tensor* x, Tensor* g, int node) const {
        std::vector<Tensor*> saved = layer->get_fwd_cache();
        return TensorPtr(layer->backward_dyn(gamma, beta, x, g, saved, node));
    }
};

std::vector<Case> cases() {
    std::vector<Case> list;
    for (const Dims& tail : {Dims{}, Dims{2}, Dims{3, 7}}) {  // Runs of 1, 2 and 21 elements.
        const std::int64_t inner = numel_of(tail);
        Dims shape = {5, 6};
        shape.insert(shape.end(), tail.begin(), tail.end());
        const auto channel = [=](std::int64_t i) { return i / inner % 6; };
        const auto pair = [=](std::int64_t i) { return i / inner / 2; };
        const std::string suffix = "/" + std::to_string(inner);
        LayerPtr batch(_BatchNormalization(true, 0.1F, eps, "")), group(_GroupNormalization(3, 6, true, eps, ""));
        list.push_back({"batch" + suffix, std::move(batch), shape, {6}, channel, channel, true});
        list.push_back({"group" + suffix, std::move(group), shape, {6}, pair, channel});
    }
    for (const Dims& own : {Dims{50}, Dims{5, 50}}) {
        const std::int64_t size = numel_of(own);
        const auto outer = [=](std::int64_t i) { return i / size; };
        const auto inner = [=](std::int64_t i) { return i % size; };
        LayerPtr layer(_LayerNormalization(true, eps, ""));
        list.push_back({"layer/" + std::to_string(size), std::move(layer), {3, 5, 50}, own, outer, inner});
    }
    return list;
}

std::vector<double> reference(const Case& c, const std::vector<double>& x, const std::vector<double>& gamma,
                              const std::vector<double>& beta) {
    std::vector<double> count(x.size()), sum(x.size()), squares(x.size()), y(x.size());
    const auto s = [&](std::size_t i) { return static_cast<std::size_t>(c.statistic(static_cast<std::int64_t>(i))); };
    for (std::size_t i = 0; i < x.size(); ++i) {
        count[s(i)] += 1;
        sum[s(i)] += x[i];
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
        squares[s(i)] += std::pow(x[i] - sum[s(i)] / count[s(i)], 2);
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
        const auto p = static_cast<std::size_t>(c.parameter(static_cast<std::int64_t>(i)));
        y[i] = (x[i] - sum[s(i)] / count[s(i)]) / std::sqrt(squares[s(i)] / count[s(i)] + static_cast<float>(eps)) *
                   gamma[p] +
               beta[p];
    }
    return y;
}

TEST(Normalization, ValuesAndGradients) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const TensorPtr x = random_tensor(c.shape, dtype::float64, 1, Layout::transposed);
        const TensorPtr gamma = random_tensor(c.parameter_shape, dtype::float64, 2, Layout::reversed);
        const TensorPtr beta = random_tensor(c.parameter_shape, dtype::float64, 3, Layout::every_other);
        const TensorPtr g = random_tensor(c.shape, dtype::float64, 4, Layout::transposed);
        const std::vector<double> y = values_of<double>(c.forward(gamma.get(), beta.get(), x.get()));
        const std::vector<double> expected =
            reference(c, values_of<double>(x), values_of<double>(gamma), values_of<double>(beta));
        for (std::size_t i = 0; i < y.size(); ++i) {
            EXPECT_NEAR(y[i], expected[i], 1e-13) << i;
        }
        Tensor* arguments[] = {gamma.get(), beta.get(), x.get()};
        for (const int node : {0, 1, 2}) {
            const int varied = (node + 2) % 3;
            c.forward(gamma.get(), beta.get(), x.get());  // Differences left other statistics behind.
            const TensorPtr gradient = c.backward(gamma.get(), beta.get(), x.get(), g.get(), node);
            expect_gradient(
                [&](Tensor* t) {
                    std::swap(arguments[varied], t);
                    TensorPtr out = c.forward(arguments[0], arguments[1], arguments[2]);
                    std::swap(arguments[varied], t);
                    return out;
                },
                arguments[varied], g.get(), gradient.get());
        }
        // A null parameter counts as ones or zeros.
        const TensorPtr ones(Tensor::ones(c.parameter_shape, 0, dtype::float64));
        const TensorPtr zeros(Tensor::zeros(c.parameter_shape, 0, dtype::float64));
        EXPECT_EQ(values_of<double>(c.forward(nullptr, zeros.get(), x.get())),
                  values_of<double>(c.forward(ones.get(), nullptr, x.get())));
        c.layer->_trainable = false;
        EXPECT_EQ(c.backward(gamma.get(), beta.get(), x.get(), g.get(), 1), nullptr);
        EXPECT_NE(c.backward(gamma.get(), beta.get(), x.get(), g.get(), 0), nullptr);
    }
    LGroupNorm fixed(1, 2, true, 1e-5F, "", 0, 0);
    fixed._trainable = false;
    const TensorPtr x(Tensor::ones({1, 2}, 0, dtype::float32));
    TensorPtr(fixed.forward_dyn(nullptr, nullptr, x.get(), true));
    std::vector<Tensor*> latest;
    const std::array<Tensor*, 3> gradients = fixed.gradients(nullptr, nullptr, x.get(), x.get(), latest);
    EXPECT_NE(TensorPtr(gradients[0]), nullptr);
    EXPECT_EQ(gradients[1], nullptr);
    EXPECT_EQ(gradients[2], nullptr);
}

TEST(Normalization, FarFromZeroAndSameBitsAtEveryTeamSize) {
    for (const Dims& shape : {Dims{40, 5, 3000}, Dims{30000, 5}}) {
        const TensorPtr x(random_tensor(shape, dtype::float32, 5)->add_scalar(1000.0F));
        const TensorPtr g = random_tensor(shape, dtype::float32, 6);
        expect_same_bits([&] {
            const LayerPtr batch(_BatchNormalization(true, 0.1F, 1e-5F, ""));
            const LayerPtr group(_GroupNormalization(5, 5, true, 1e-5F, ""));
            const LayerPtr layer(_LayerNormalization(true, 1e-5F, ""));
            Tensor* const n = nullptr;
            std::vector<TensorPtr> all;
            all.emplace_back(batch->forward_dyn(n, n, x.get(), true, n, n));
            double square = 0;
            for (const float y : values_of<float>(all[0])) {
                square += y * y;
            }
            EXPECT_NEAR(square / static_cast<double>(x->Size()), 1, 2e-3);
            all.emplace_back(group->forward_dyn(n, n, x.get(), true));
            all.emplace_back(layer->forward_dyn(n, n, x.get(), true));
            std::vector<Tensor*> latest;
            const auto add_gradients = [&](auto& norm) {
                const std::array<Tensor*, 3> at_once = norm.gradients(n, n, x.get(), g.get(), latest);
                for (const int node : {0, 1, 2}) {
                    all.emplace_back(norm.backward_dyn(n, n, x.get(), g.get(), latest, node));
                    EXPECT_EQ(values_of<float>(all.back()),
                              values_of<float>(TensorPtr(at_once[static_cast<std::size_t>(node)])))
                        << node;
                }
            };
            add_gradients(static_cast<LBatchNorm&>(*batch));
            add_gradients(static_cast<LGroupNorm&>(*group));
            add_gradients(static_cast<LLayerNorm&>(*layer));
            return all;
        });
    }
}

TEST(BatchNormalization, RunningStatistics) {
    const LayerPtr layer(_BatchNormalization(true, 0.25F, 1e-5F, "bn"));
    EXPECT_EQ(layer->get_saved_var(), nullptr);
    EXPECT_EQ(layer->get_saved_opa(), nullptr);
    const TensorPtr x = make<double>({4, 2}, {1, 10, 2, 10, 3, 14, 6, 14}, Layout::transposed);
    const TensorPtr mean = make<double>({2}, {8, 0}, Layout::every_other);
    const TensorPtr variance = make<double>({2}, {2, 4}, Layout::reversed);
    TensorPtr(layer->forward_dyn(nullptr, nullptr, x.get(), true, mean.get(), variance.get()));
    EXPECT_EQ(values_of<double>(TensorPtr(layer->get_saved_opa())), (std::vector<double>{3, 12}));
    EXPECT_EQ(values_of<double>(TensorPtr(layer->get_saved_var())), (std::vector<double>{3.5, 4}));
    EXPECT_EQ(values_of<double>(mean), (std::vector<double>{6.75, 3}));
    EXPECT_NEAR(values_of<double>(variance)[0], 0.75 * 2 + 0.25 * 14 / 3, 1e-15);
    EXPECT_NEAR(values_of<double>(variance)[1], 0.75 * 4 + 0.25 * 16 / 3, 1e-15);

    // A mean of 1 is reached and kept, exactly, whatever the momentum and the dtype.
    for_types(TypeList<float, double>{}, []<typename T>() {
        const TensorPtr ones(Tensor::ones({8, 2}, 0, dtype_code<T>));
        for (const float momentum : {0.1F, 0.3F, 1.0F}) {
            const LayerPtr moving(_BatchNormalization(false, momentum, 1e-5F, ""));
            const TensorPtr from = make<T>({2}, {1, 0}), spread(Tensor::zeros({2}, 0, dtype_code<T>));
            for (int i = 0; i < 500; ++i) {
                TensorPtr(moving->forward_dyn(nullptr, nullptr, ones.get(), true, from.get(), spread.get()));
            }
            EXPECT_EQ(values_of<T>(from)[0], T(1)) << momentum;
            EXPECT_NEAR(values_of<T>(from)[1], T(1), 8 * std::numeric_limits<T>::epsilon()) << momentum;
        }
    });

    // In inference they are fixed numbers, for the gradient as well.
    const TensorPtr g = random_tensor({4, 2}, dtype::float64, 7);
    const TensorPtr gamma = make<double>({2}, {2, -3});
    const auto infer = [&](Tensor* t) {
        return TensorPtr(layer->forward_dyn(gamma.get(), nullptr, t, false, mean.get(), variance.get()));
    };
    EXPECT_NEAR(values_of<double>(infer(x.get()))[0], (1 - 6.75) / std::sqrt(values_of<double>(variance)[0]) * 2, 1e-4);
    const TensorPtr saved[] = {TensorPtr(layer->get_saved_opa()), TensorPtr(layer->get_saved_var())};
    expect_gradient(
        infer, x.get(), g.get(),
        TensorPtr(layer->backward_dyn(gamma.get(), nullptr, x.get(), g.get(), saved[0].get(), saved[1].get(), 0))
            .get());
    testing::internal::CaptureStdout();
    EXPECT_EQ(layer->backward_dyn(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 3), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Node should be 0, 1, 2\n");
    const LayerPtr plain(_BatchNormalization(false, 0, 1e-5F, ""));
    EXPECT_EQ(values_of<double>(TensorPtr(plain->forward_dyn(gamma.get(), nullptr, x.get(), true, nullptr, nullptr))),
              values_of<double>(TensorPtr(layer->forward_dyn(nullptr, nullptr, x.get(), true, nullptr, nullptr))));
    EXPECT_EQ(plain->backward_dyn(gamma.get(), nullptr, x.get(), g.get(), nullptr, nullptr, 1), nullptr);
}

TEST(Normalization, Refusals) {
    const LayerPtr batch(_BatchNormalization(true, 0.1F, 1e-5F, ""));
    const LayerPtr group(_GroupNormalization(2, 4, true, 1e-5F, ""));
    const LayerPtr layer(_LayerNormalization(true, 1e-5F, ""));
    const auto ones = [](const Dims& shape, std::int64_t dtype = dtype::float32) {
        return TensorPtr(Tensor::ones(shape, 0, dtype));
    };
    const TensorPtr x = ones({3, 4}), four = ones({4}), three = ones({3}), wide = ones({4}, dtype::float64);
    const TensorPtr integers = ones({3, 4}, dtype::int32);
    const TensorPtr expanded(Tensor::broadcast_to(ones({1}).get(), {4}));
    Tensor* const n = nullptr;
    const auto forward = [&](Tensor* gamma, Tensor* in, bool training, Tensor* mean, Tensor* variance) {
        return [=, &batch] { batch->forward_dyn(gamma, nullptr, in, training, mean, variance); };
    };
    const auto backward = [&](const LayerPtr& l, Tensor* g, std::vector<Tensor*> saved, int node) {
        return [&l, &x, g, saved, node] {
            std::vector<Tensor*> list = saved;
            l->backward_dyn(nullptr, nullptr, x.get(), g, list, node);
        };
    };
    const std::string latest = "The backward pass of ", moving = "The running statistics of batchnorm ";
    const Refusal of_batch[] = {
        {"forward_dyn", forward(n, three.get(), true, n, n),
         "batchnorm needs an input [N, C, ...], however it is ( 3 ) "},
        {"forward_dyn", forward(wide.get(), x.get(), true, n, n), "Not same data type for inputs of batchnorm."},
        {"forward_dyn", forward(n, integers.get(), true, n, n),
         "batchnorm not impl for this data type, use float32 or float64."},
        {"forward_dyn", forward(three.get(), x.get(), true, n, n),
         "The parameters of batchnorm should have the shape ( 4 ) , however one has ( 3 ) "},
        {"forward_dyn", forward(n, x.get(), false, n, n),
         "batchnorm needs running statistics for inference, both or neither in training."},
        {"forward_dyn", forward(n, x.get(), false, four.get(), three.get()),
         moving + "should have one value per channel, however the shape is ( 3 ) "},
        {"forward_dyn", forward(n, x.get(), true, four.get(), four.get()), moving + "overlap in memory."},
        {"forward_dyn", forward(n, x.get(), true, four.get(), expanded.get()),
         "Output can not be an expanded view: shape ( 4 ) , strides ( 0 ) "},
        {"backward_dyn", backward(batch, x.get(), {}, 0), latest + "batchnorm needs a forward pass before."},
        {"LBatchNorm", [] { _BatchNormalization(true, 1.5F, 1e-5F, ""); },
         "The momentum of batchnorm should be in [0, 1]"},
    };
    expect_refusals(of_batch, "ornik::LBatchNorm::", "src/layers/normalization/layer_batchnorm.cpp");
    const Refusal of_group[] = {
        {"backward_dyn", backward(group, x.get(), {}, 0), latest + "group norm needs a forward pass before."},
        {"backward_dyn", backward(group, x.get(), {}, -1), "Node should be 0, 1, 2, however it equals -1"},
        {"backward_dyn", backward(group, x.get(), {four.get(), nullptr}, 0),
         "The saved statistics of group norm should be two tensors of shape ( 3, 2 ) "},
        {"forward_dyn", [&] { group->forward_dyn(n, n, four.get(), true); },
         "group norm needs an input [N, 4, ...], however it is ( 4 ) "},
        {"LGroupNorm", [] { _GroupNormalization(3, 4, true, 1e-5F, ""); },
         "group norm can not divide 4 channels into 3 groups"},
    };
    expect_refusals(of_group, "ornik::LGroupNorm::", "src/layers/normalization/layer_groupnorm.cpp");
    const Refusal of_layer[] = {
        {"backward_dyn", backward(layer, four.get(), {}, 0),
         "The gradient of layer norm should have its output's shape."},
        {"forward_dyn", [&] { layer->forward_dyn(x.get(), n, four.get(), true); },
         "layer norm needs an input with at least the axes of its parameters, however it is ( 4 ) "},
        {"LLayerNorm", [] { _LayerNormalization(true, 0, ""); }, "eps should be a positive number"},
    };
    expect_refusals(of_layer, "ornik::LLayerNorm::", "src/layers/normalization/layer_layernorm.cpp");
}

}  // namespace
}  // namespace ornik::test
