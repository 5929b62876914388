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
constexpr float eps = 1e-3F;

// One normalization as a layer and as functions.
struct Case {
    std::string name;
    LayerPtr layer;
    Dims shape, parameter_shape;
    std::function<std::int64_t(std::int64_t)> statistic, parameter;  // of an element
    std::function<nn::Normalized(Tensor* x, Tensor* gamma, Tensor* beta)> function;
    std::function<nn::NormGradients(Tensor* g, Tensor* x, Tensor* gamma, const nn::Normalized& y,
                                    const std::array<bool, 3>& wanted)>
        gradients;

    TensorPtr forward(Tensor* gamma, Tensor* beta, Tensor* x) const {
        return TensorPtr(name[0] == 'b' ? layer->forward_dyn(gamma, beta, x, true, nullptr, nullptr)
                                        : layer->forward_dyn(gamma, beta, x, true));
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
        list.push_back({"batch" + suffix,
                        std::move(batch),
                        shape,
                        {6},
                        channel,
                        channel,
                        [](auto* x, auto* w, auto* b) { return nn::batch_norm(x, w, b, eps); },
                        [](auto* g, auto* x, auto* w, auto& y, auto& k) {
                            return nn::batch_norm_grad(g, x, w, y.mean.get(), y.variance.get(), eps, false, k);
                        }});
        list.push_back({"group" + suffix,
                        std::move(group),
                        shape,
                        {6},
                        pair,
                        channel,
                        [](auto* x, auto* w, auto* b) { return nn::group_norm(x, 3, w, b, eps); },
                        [](auto* g, auto* x, auto* w, auto& y, auto& k) {
                            return nn::group_norm_grad(g, x, 3, w, y.mean.get(), y.variance.get(), eps, k);
                        }});
    }
    for (const Dims& own : {Dims{50}, Dims{5, 50}}) {
        const std::int64_t size = numel_of(own);
        const int axes = static_cast<int>(own.size());
        const auto outer = [=](std::int64_t i) { return i / size; };
        const auto inner = [=](std::int64_t i) { return i % size; };
        LayerPtr layer(_LayerNormalization(true, eps, ""));
        list.push_back({"layer/" + std::to_string(size),
                        std::move(layer),
                        {3, 5, 50},
                        own,
                        outer,
                        inner,
                        [=](auto* x, auto* w, auto* b) { return nn::layer_norm(x, axes, w, b, eps); },
                        [=](auto* g, auto* x, auto* w, auto& y, auto& k) {
                            return nn::layer_norm_grad(g, x, axes, w, y.mean.get(), y.variance.get(), eps, k);
                        }});
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
        y[i] = (x[i] - sum[s(i)] / count[s(i)]) / std::sqrt(squares[s(i)] / count[s(i)] + eps) * gamma[p] + beta[p];
    }
    return y;
}

TEST(Normalization, ValuesGradientsAndSubsets) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const TensorPtr x = random_tensor(c.shape, dtype::float64, 1, Layout::transposed);
        const TensorPtr gamma = random_tensor(c.parameter_shape, dtype::float64, 2, Layout::reversed);
        const TensorPtr beta = random_tensor(c.parameter_shape, dtype::float64, 3, Layout::every_other);
        const TensorPtr g = random_tensor(c.shape, dtype::float64, 4, Layout::transposed);
        const nn::Normalized y = c.function(x.get(), gamma.get(), beta.get());
        const std::vector<double> values = values_of<double>(y.output);
        const std::vector<double> expected =
            reference(c, values_of<double>(x), values_of<double>(gamma), values_of<double>(beta));
        for (std::size_t i = 0; i < values.size(); ++i) {
            EXPECT_NEAR(values[i], expected[i], 1e-13) << i;
        }
        EXPECT_EQ(bytes_of(c.forward(gamma.get(), beta.get(), x.get())), bytes_of(y.output));
        const auto all = c.gradients(g.get(), x.get(), gamma.get(), y, {true, true, true});
        const TensorPtr* whole[] = {&all.input, &all.gamma, &all.beta};
        Tensor* arguments[] = {x.get(), gamma.get(), beta.get()};
        for (std::size_t one = 0; one < 3; ++one) {
            expect_gradient(
                [&](Tensor* t) {
                    std::swap(arguments[one], t);
                    nn::Normalized now = c.function(arguments[0], arguments[1], arguments[2]);
                    std::swap(arguments[one], t);
                    return std::move(now.output);
                },
                arguments[one], g.get(), whole[one]->get());
            const TensorPtr by_layer = c.backward(gamma.get(), beta.get(), x.get(), g.get(), static_cast<int>(one));
            EXPECT_EQ(bytes_of(by_layer), bytes_of(*whole[one]));
            std::array<bool, 3> wanted{};
            wanted[one] = true;
            const auto some = c.gradients(g.get(), x.get(), gamma.get(), y, wanted);
            const TensorPtr* got[] = {&some.input, &some.gamma, &some.beta};
            for (std::size_t i = 0; i < 3; ++i) {
                ASSERT_EQ(*got[i] != nullptr, i == one);
            }
            EXPECT_EQ(bytes_of(*got[one]), bytes_of(*whole[one]));
        }
        // A null parameter counts as ones or zeros.
        const TensorPtr ones(Tensor::ones(c.parameter_shape, 0, dtype::float64));
        const TensorPtr zeros(Tensor::zeros(c.parameter_shape, 0, dtype::float64));
        EXPECT_EQ(values_of<double>(c.forward(nullptr, zeros.get(), x.get())),
                  values_of<double>(c.forward(ones.get(), nullptr, x.get())));
        c.layer->_trainable = false;
        EXPECT_EQ(c.backward(gamma.get(), beta.get(), x.get(), g.get(), 1), nullptr);
        EXPECT_NE(c.backward(gamma.get(), beta.get(), x.get(), g.get(), 0), nullptr);

        Dims no_samples = c.shape;
        no_samples[0] = 0;
        const TensorPtr none = make_empty(no_samples, dtype::float64);
        const nn::Normalized empty = c.function(none.get(), gamma.get(), beta.get());
        EXPECT_EQ(empty.output->Shape(), no_samples);
        const auto zero = c.gradients(none.get(), none.get(), gamma.get(), empty, {true, true, true});
        EXPECT_EQ(zero.input->Shape(), no_samples);
        EXPECT_EQ(doubles_of(zero.gamma.get()), std::vector<double>(static_cast<std::size_t>(gamma->Size())));
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

TEST(BatchNormalization, RunningStatisticsByFunctions) {
    const TensorPtr x = random_tensor({3, 2, 4}, dtype::float64, 1), w = random_tensor({2}, dtype::float64, 2);
    const nn::Normalized batch = nn::batch_norm(x.get(), nullptr, nullptr);
    const TensorPtr mean = make<double>({2}, {1, 2}), variance = make<double>({2}, {3, 4});
    nn::update_running_statistics(mean.get(), variance.get(), batch.mean.get(), batch.variance.get(), 0, 0.5F);
    EXPECT_EQ(values_of<double>(mean), (std::vector<double>{1, 2}));
    nn::update_running_statistics(mean.get(), variance.get(), batch.mean.get(), batch.variance.get(), 12, 0.25);
    for (std::size_t c = 0; c < 2; ++c) {
        const double m = values_of<double>(batch.mean)[c], v = values_of<double>(batch.variance)[c];
        EXPECT_NEAR(values_of<double>(mean)[c], 0.75 * static_cast<double>(1 + c) + 0.25 * m, 1e-14);
        EXPECT_NEAR(values_of<double>(variance)[c], 0.75 * static_cast<double>(3 + c) + 0.25 * v * 12 / 11, 1e-14);
    }
    // By fixed statistics the gradient does not pass through them.
    const auto by = [&](Tensor* t) { return nn::batch_norm_by(t, mean.get(), variance.get(), w.get(), nullptr); };
    const TensorPtr g = random_tensor({3, 2, 4}, dtype::float64, 3);
    expect_gradient(by, x.get(), g.get(),
                    nn::batch_norm_grad(g.get(), x.get(), w.get(), mean.get(), variance.get(), 1e-5, true).input.get());
}

TEST(Normalization, RefusesMissingPassesAndSharedStatistics) {
    const LayerPtr batch(_BatchNormalization(true, 0.1F, 1e-5F, "")), group(_GroupNormalization(2, 4, true, 1e-5F, ""));
    const TensorPtr x(Tensor::ones({3, 4}, 0, dtype::float32)), four(Tensor::ones({4}, 0, dtype::float32));
    const TensorPtr integers(Tensor::ones({3, 4}, 0, dtype::int32)), one(Tensor::ones({1}, 0, dtype::float32));
    const TensorPtr expanded(Tensor::broadcast_to(one.get(), {4}));
    std::vector<Tensor*> latest;
    Tensor* const n = nullptr;
    const Refusal of_batch[] = {
        {"forward_dyn", [&] { batch->forward_dyn(n, n, integers.get(), true, n, n); },
         "batchnorm not impl for this data type, use float32 or float64."},
        {"forward_dyn", [&] { batch->forward_dyn(n, n, x.get(), true, four.get(), expanded.get()); },
         "Output can not be an expanded view: shape ( 4 ) , strides ( 0 ) "},
        {"backward_dyn", [&] { batch->backward_dyn(n, n, x.get(), x.get(), latest, 0); },
         "The backward pass of batchnorm needs a forward pass before."},
    };
    expect_refusals(of_batch, "ornik::LBatchNorm::", "src/layers/normalization/layer_batchnorm.cpp");
    expect_error([&] { group->backward_dyn(n, n, x.get(), x.get(), latest, 0); },
                 "The backward pass of group norm needs a forward pass before.", "ornik::LGroupNorm::backward_dyn",
                 "src/layers/normalization/layer_groupnorm.cpp");
}

}  // namespace
}  // namespace ornik::test
